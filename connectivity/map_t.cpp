#include "connectivity/map_t.hpp"

#include <algorithm>
#include <cstring>
#include <stdexcept>
#include <string>

#include "connectivity/data_t.hpp"
#include "connectivity/probing.hpp"

namespace connectivity {

namespace {

using details::isLive;
using details::Slot;

constexpr std::uint64_t smallestCapacity = 8;
constexpr double loadLimit = 0.75;

[[noreturn]] void throwNotAllocated(std::uint64_t capacity) {
  throw std::runtime_error("Failed to allocate a map of " + std::to_string(capacity) + " slots");
}

qor_underlying_map_table_t* allocate(std::uint64_t capacity) {
  auto* const table = qor_allocate_map(capacity);
  if (table == nullptr) throwNotAllocated(capacity);
  return table;
}

// 2 * size + 2 slots, counted on the low 32 bits of the size.
std::uint64_t grownCapacity(std::uint64_t size) noexcept {
  const std::uint64_t low = static_cast<std::uint32_t>(size);
  return std::max(2 * low + 2, smallestCapacity);
}

}  // namespace

// --- Life --------------------------------------------------------------------------------------

map_t& map_t::operator=(map_t&& other) noexcept {
  map_t taken(std::move(other));
  std::swap(_table, taken._table);
  return *this;
}

map_t::~map_t() { qor_free_map(release()); }

// --- Iteration ---------------------------------------------------------------------------------

template <bool isConst>
map_t::_iterator<isConst>::_iterator(owner_t* owner, std::uint64_t index) noexcept
    : _owner(owner),
      _slots(owner->_table == nullptr ? nullptr : qor_map_entries(owner->_table)),
      _capacity(owner->capacity()),
      _index(index),
      _size(owner->size()) {}

template <bool isConst>
void map_t::_iterator<isConst>::settle() noexcept {
  if (_slots == nullptr) return;
  while (_index < _capacity && !isLive(_slots[_index])) ++_index;
}

template <bool isConst>
map_t::_iterator<isConst>& map_t::_iterator<isConst>::operator++() {
  checkmodified();
  if (_index < _capacity) ++_index;
  settle();
  return *this;
}

template <bool isConst>
bool map_t::_iterator<isConst>::operator==(const _iterator& other) const {
  checkOwner(other._owner);
  return _index == other._index;
}

template <bool isConst>
qor_underlying_map_table_entry_t& map_t::_iterator<isConst>::slot() const {
  checkmodified();
  if (_slots == nullptr || _index >= _capacity)
    throw std::runtime_error("The end of a map holds no entry");
  return _slots[_index];
}

template <bool isConst>
void map_t::_iterator<isConst>::checkmodified() const {
  auto* const table = _owner == nullptr ? nullptr : _owner->_table;
  const bool valid = table == nullptr ? _slots == nullptr && _size == 0
                                      : _capacity == table->capacity && _size == table->size &&
                                            _slots == qor_map_entries(table);
  if (!valid && details::iteratorChecksAreOn())
    throw std::runtime_error("Iterator invalidated by modifying map");
}

template <bool isConst>
void map_t::_iterator<isConst>::checkOwner(const map_t* map) const {
  if (_owner != map && details::iteratorChecksAreOn())
    throw std::runtime_error("Invalid comparison of iterators into different maps");
}

template class map_t::_iterator<false>;
template class map_t::_iterator<true>;

map_t::iterator map_t::begin() {
  iterator first(this, 0);
  first.settle();
  return first;
}

map_t::iterator map_t::end() { return {this, capacity()}; }

map_t::const_iterator map_t::begin() const {
  const_iterator first(this, 0);
  first.settle();
  return first;
}

map_t::const_iterator map_t::end() const { return {this, capacity()}; }

// --- Lookup ------------------------------------------------------------------------------------

template <typename Matches>
map_t::Probe map_t::probeFor(std::uint64_t hash, const Matches& matches) const {
  details::Candidates candidates(_table, hash);
  while (const Slot* const slot = candidates.next())
    if (matches(details::keyOf(*slot))) return {candidates.indexOf(*slot), candidates.free()};
  return {candidates.capacity(), candidates.free()};
}

map_t::Probe map_t::probe(const data_t& key, std::uint64_t hash) const {
  return probeFor(hash, [&key](const data_t& candidate) { return candidate == key; });
}

std::pair<map_t::const_iterator, map_t::const_iterator> map_t::find_for_insert(
    const data_t& key, std::uint64_t hash) const {
  const auto [found, free] = probe(key, hash);
  return {const_iterator(this, found), const_iterator(this, free)};
}

std::pair<map_t::iterator, map_t::iterator> map_t::find_for_insert(const data_t& key,
                                                                   std::uint64_t hash) {
  const auto [found, free] = probe(key, hash);
  return {iterator(this, found), iterator(this, free)};
}

const data_t* map_t::valueAt(std::uint64_t index) const noexcept {
  return index == capacity() ? nullptr : &details::valueOf(qor_map_entries(_table)[index]);
}

const data_t* map_t::find(const data_t& key) const {
  return valueAt(probe(key, hashes::hash(key)).found);
}

data_t* map_t::find(const data_t& key) {
  return const_cast<data_t*>(std::as_const(*this).find(key));
}

const data_t* map_t::findText(const char* text, std::uint64_t hash) const {
  const auto matches = [text](const data_t& candidate) {
    return candidate.isString() && std::strcmp(candidate.text(), text) == 0;
  };
  return valueAt(probeFor(hash, matches).found);
}

const data_t* map_t::findText(const char* text) const {
  return empty() ? nullptr : findText(text, qor_hash_string(text));
}

data_t* map_t::findText(const char* text, std::uint64_t hash) {
  return const_cast<data_t*>(std::as_const(*this).findText(text, hash));
}

data_t* map_t::findText(const char* text) {
  return const_cast<data_t*>(std::as_const(*this).findText(text));
}

// --- Change ------------------------------------------------------------------------------------

std::pair<map_t::iterator, bool> map_t::insert(std::pair<data_t, data_t>&& pair, long long hash) {
  return insertMoving(pair.first, pair.second, static_cast<std::uint64_t>(hash));
}

std::pair<map_t::iterator, bool> map_t::insert(data_t&& key, data_t&& value) {
  return insertMoving(key, value, hashes::hash(key));
}

std::pair<map_t::iterator, bool> map_t::insertMoving(data_t& key, data_t& value,
                                                     std::uint64_t hash) {
  for (;;) {
    const auto [found, free] = probe(key, hash);
    if (found != capacity()) return {iterator(this, found), false};
    if (free != capacity() && !isOverloaded()) {
      fill(free, key, value, hash);
      return {iterator(this, free), true};
    }
    grow();
  }
}

bool map_t::isOverloaded() const noexcept {
  return loadLimit * static_cast<double>(_table->capacity) <
         static_cast<double>(_table->size + _table->tombstones);
}

// The tombstone count stays as it is, also where the slot was one: a table with much erasure is
// meant to be rebuilt sooner.
void map_t::fill(std::uint64_t index, data_t& key, data_t& value, std::uint64_t hash) noexcept {
  Slot& slot = qor_map_entries(_table)[index];
  ++_table->size;
  slot.hash = hash;
  details::keyOf(slot) = std::move(key);
  details::valueOf(slot) = std::move(value);
}

void map_t::grow() {
  if (_table == nullptr) {
    _table = allocate(smallestCapacity);
    return;
  }
  const std::uint64_t wanted = grownCapacity(_table->size);
  if (wanted < _table->size) throwNotAllocated(wanted);
  auto* const grown = qor_reallocate_map(_table, wanted);
  if (grown == nullptr) throwNotAllocated(wanted);
  _table = grown;
}

void map_t::erase(const iterator& position) {
  position.checkOwner(this);
  if (position.atEnd()) return;
  position.checkmodified();
  // With the checks off, the position may be that of an entry that is gone.
  if (position.index() >= capacity()) return;
  Slot& slot = qor_map_entries(_table)[position.index()];
  if (!isLive(slot)) return;
  const data_t key(std::move(details::keyOf(slot)));
  const data_t value(std::move(details::valueOf(slot)));
  slot.hash = details::tombstoneHash;
  --_table->size;
  ++_table->tombstones;
}

// --- Whole maps --------------------------------------------------------------------------------

map_t map_t::copy() const {
  map_t result;
  if (!empty()) {
    result._table = allocate(std::max(smallestCapacity, size()));
    result._table->header_string = nullptr;
  }
  for (const auto& [hash, key, value] : *this) result.insert(key.copy(), value.copy());
  if (_table != nullptr && _table->header_string != nullptr) {
    if (result._table == nullptr) result._table = allocate(smallestCapacity);
    result._table->header_string = qor_copy_string(_table->header_string);
  }
  return result;
}

}  // namespace connectivity
