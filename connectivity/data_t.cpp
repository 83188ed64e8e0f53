#include "connectivity/data_t.hpp"

#include <algorithm>
#include <cstdlib>
#include <limits>
#include <new>
#include <stdexcept>
#include <string>

namespace connectivity {

namespace {

const data_t* elementsOf(qor_underlying_list_t* block) noexcept {
  return block == nullptr ? nullptr : reinterpret_cast<const data_t*>(qor_list_elements(block));
}

[[noreturn]] void throwNullText() {
  throw std::runtime_error(
      "Cannot use a null char* as a data_t value (consider using an empty data_t() instead)");
}

}  // namespace

// --- Lists -------------------------------------------------------------------------------------

list_t& list_t::operator=(list_t&& other) noexcept {
  list_t taken(std::move(other));
  std::swap(_block, taken._block);
  return *this;
}

list_t::~list_t() {
  if (_block != nullptr) qor_free_vector(release());
}

const data_t* list_t::begin() const noexcept { return elementsOf(_block); }
const data_t* list_t::end() const noexcept { return begin() + size(); }
data_t* list_t::begin() noexcept { return const_cast<data_t*>(std::as_const(*this).begin()); }
data_t* list_t::end() noexcept { return begin() + size(); }
data_t& list_t::operator[](std::uint64_t index) noexcept { return begin()[index]; }
const data_t& list_t::operator[](std::uint64_t index) const noexcept { return begin()[index]; }

void list_t::push_back(data_t&& element) {
  constexpr std::uint64_t firstCapacity = 4;
  if (_block == nullptr || _block->count >= _block->capacity) {
    const std::uint64_t half = std::numeric_limits<std::uint64_t>::max() / 2;
    const std::uint64_t wanted = std::max(firstCapacity, 2 * std::min(half, size()));
    auto* const grown = qor_reallocate_list(_block, wanted);
    if (grown == nullptr)
      throw std::runtime_error("Failed to allocate a list of " + std::to_string(wanted) +
                               " elements");
    _block = grown;
  }
  qor_list_elements(_block)[_block->count++] = element.release();
}

namespace details {

bool iteratorChecksAreOn() noexcept {
  return std::getenv("ZQ_SKIP_DATA_T_ITERATOR_CHECKS") == nullptr;
}

// With the checks off, the walk goes on over the list as it is now.
const data_t* ListWalk::next() {
  const bool unchanged = _list->block() == _block && _list->size() == _count;
  if (!unchanged && iteratorChecksAreOn())
    throw std::runtime_error("Iterator invalidated by modifying list");
  return _index < _list->size() ? &(*_list)[_index++] : nullptr;
}

}  // namespace details

// --- Buffers and custom values -----------------------------------------------------------------

buffer_t buffer_t::copyOf(std::string_view bytes) {
  if (static_cast<std::uint64_t>(bytes.size()) > std::numeric_limits<std::uint32_t>::max())
    throw std::runtime_error("A buffer cannot hold " + std::to_string(bytes.size()) + " bytes");
  buffer_t result(qor_allocate_buffer(bytes.size()));
  if (result._block == nullptr) throw std::bad_alloc();
  if (!bytes.empty()) std::memcpy(result.data(), bytes.data(), bytes.size());
  return result;
}

buffer_t& buffer_t::operator=(buffer_t&& other) noexcept {
  buffer_t taken(std::move(other));
  std::swap(_block, taken._block);
  return *this;
}

buffer_t::~buffer_t() {
  if (_block != nullptr) qor_free_buffer(release());
}

custom_t& custom_t::operator=(custom_t&& other) noexcept {
  custom_t taken(std::move(other));
  std::swap(_block, taken._block);
  return *this;
}

custom_t::~custom_t() {
  if (_block != nullptr) qor_free_custom(release());
}

// --- Values ------------------------------------------------------------------------------------

data_t::data_t(const char* text) : _string(nullptr), _tag(QOR_STRING) {
  if (text == nullptr) throwNullText();
  _string = qor_copy_string(text);
}

data_t data_t::borrow(const char* text) {
  if (text == nullptr) throwNullText();
  data_t result;
  result._string = text;
  result._tag = QOR_BORROWED_STRING;
  return result;
}

data_t::data_t(qor_data_t raw) noexcept : data_t() {
  std::memcpy(static_cast<void*>(this), &raw, sizeof raw);
}

data_t data_t::copy() const { return data_t(qor_copy_data(raw())); }

qor_data_t data_t::raw() const noexcept {
  qor_data_t result;
  std::memcpy(&result, static_cast<const void*>(this), sizeof result);
  return result;
}

qor_data_t data_t::release() noexcept {
  const qor_data_t result = raw();
  const qor_data_t nothing{};
  std::memcpy(static_cast<void*>(this), &nothing, sizeof nothing);
  return result;
}

// The value is empty before its block is freed, so that nothing met on the way sees it half gone.
void data_t::destroy() noexcept {
  const qor_data_t held = release();
  switch (held.tag) {
    case QOR_STRING:
      return qor_free_string(held.value.string);
    case QOR_LIST:
      return qor_free_vector(held.value.list);
    case QOR_MAP:
      return qor_free_map(held.value.map);
    case QOR_BUFFER:
      return qor_free_buffer(held.value.buffer);
    case QOR_CUSTOM:
      return qor_free_custom(held.value.custom);
    default:
      return;
  }
}

}  // namespace connectivity
