// data_t: the tagged value that crosses between host and plug-in, with its list, buffer, decimal
// and custom alternatives, and Message.
//
// A data_t has the layout of qor_data_t, and each alternative that owns a block has the layout of
// the block's pointer, padded to 8 bytes; so a value built on one side is read and freed on the
// other. Blocks are allocated, copied and freed by the host's qor_ functions.
//
// Moving leaves the source empty. There is no implicit copy: copy() says that it costs something.
// A value may be read from several threads; it must not be changed while anybody else uses it.
//
// Values may be nested as deep as memory allows: hashing, comparing, rendering, copying and freeing
// them need no stack for depth. What is nested more than a few levels deep takes memory from the
// heap while it is hashed, compared or rendered (std::bad_alloc where there is none).
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>
#include <utility>

#include "connectivity/map_t.hpp"
#include "connectivity/qor_plugin.h"

namespace connectivity {

class data_t;

// An owned list block; null is the empty list.
class alignas(8) list_t {
 public:
  list_t() noexcept = default;
  explicit list_t(qor_underlying_list_t* block) noexcept : _block(block) {}
  list_t(list_t&& other) noexcept : _block(std::exchange(other._block, nullptr)) {}
  list_t& operator=(list_t&& other) noexcept;
  list_t(const list_t&) = delete;
  list_t& operator=(const list_t&) = delete;
  ~list_t();

  std::uint64_t size() const noexcept { return _block == nullptr ? 0 : _block->count; }
  bool empty() const noexcept { return size() == 0; }
  // REQUIRES: index < size().
  data_t& operator[](std::uint64_t index) noexcept;
  const data_t& operator[](std::uint64_t index) const noexcept;
  // The block doubles when it is full. Where the host refuses: std::runtime_error "Failed to
  // allocate a list of N elements", and nothing has changed.
  void push_back(data_t&& element);
  data_t* begin() noexcept;
  data_t* end() noexcept;
  const data_t* begin() const noexcept;
  const data_t* end() const noexcept;

  qor_underlying_list_t* block() const noexcept { return _block; }
  qor_underlying_list_t* release() noexcept { return std::exchange(_block, nullptr); }

 private:
  qor_underlying_list_t* _block = nullptr;
};

// An owned buffer block; null is the empty buffer.
class alignas(8) buffer_t {
 public:
  buffer_t() noexcept = default;
  explicit buffer_t(qor_underlying_buffer_t* block) noexcept : _block(block) {}
  // A new block with a copy of the bytes. More bytes than 32 bits can count are std::runtime_error
  // "A buffer cannot hold N bytes".
  static buffer_t copyOf(std::string_view bytes);
  buffer_t(buffer_t&& other) noexcept : _block(std::exchange(other._block, nullptr)) {}
  buffer_t& operator=(buffer_t&& other) noexcept;
  buffer_t(const buffer_t&) = delete;
  buffer_t& operator=(const buffer_t&) = delete;
  ~buffer_t();

  // The low 32 bits of the block's length.
  std::uint32_t size() const noexcept {
    return _block == nullptr ? 0 : static_cast<std::uint32_t>(_block->length);
  }
  bool empty() const noexcept { return size() == 0; }
  char* data() noexcept { return _block == nullptr ? nullptr : qor_buffer_bytes(_block); }
  const char* data() const noexcept {
    return _block == nullptr ? nullptr : qor_buffer_bytes(_block);
  }
  std::string_view view() const noexcept { return {data(), size()}; }

  qor_underlying_buffer_t* block() const noexcept { return _block; }
  qor_underlying_buffer_t* release() noexcept { return std::exchange(_block, nullptr); }

 private:
  qor_underlying_buffer_t* _block = nullptr;
};

// IEEE 754-2008 decimal64 in binary integer encoding; compared and hashed as raw bits.
struct decimal_t {
  qor_underlying_decimal_t bits = 0;
};

// An owned custom block: an object of the host's.
class alignas(8) custom_t {
 public:
  explicit custom_t(qor_underlying_custom_t* block) noexcept : _block(block) {}
  custom_t(custom_t&& other) noexcept : _block(std::exchange(other._block, nullptr)) {}
  custom_t& operator=(custom_t&& other) noexcept;
  custom_t(const custom_t&) = delete;
  custom_t& operator=(const custom_t&) = delete;
  ~custom_t();

  qor_underlying_custom_t* block() const noexcept { return _block; }
  qor_underlying_custom_t* release() noexcept { return std::exchange(_block, nullptr); }

 private:
  qor_underlying_custom_t* _block = nullptr;
};

class data_t {
 public:
  data_t() noexcept : _int64(0), _tag(QOR_EMPTY) {}
  explicit data_t(bool value) noexcept : _int64(0), _tag(QOR_BOOL) { _boolean = value; }
  explicit data_t(double value) noexcept : _double(value), _tag(QOR_DOUBLE) {}
  explicit data_t(int value) noexcept : data_t(static_cast<long long>(value)) {}
  explicit data_t(long value) noexcept : data_t(static_cast<long long>(value)) {}
  explicit data_t(long long value) noexcept : _int64(value), _tag(QOR_INT64) {}
  explicit data_t(decimal_t value) noexcept : _decimal(value), _tag(QOR_DECIMAL) {}
  // Copies the text (tag 5). A null pointer is std::runtime_error "Cannot use a null char* as a
  // data_t value (consider using an empty data_t() instead)".
  explicit data_t(const char* text);
  explicit data_t(const std::string& text) : data_t(text.c_str()) {}
  explicit data_t(list_t&& value) noexcept : _list(std::move(value)), _tag(QOR_LIST) {}
  explicit data_t(map_t&& value) noexcept : _map(std::move(value)), _tag(QOR_MAP) {}
  explicit data_t(buffer_t&& value) noexcept : _buffer(std::move(value)), _tag(QOR_BUFFER) {}
  explicit data_t(custom_t&& value) noexcept : _custom(std::move(value)), _tag(QOR_CUSTOM) {}
  // A string that the value does not own (tag 10): `text` outlives it. Null as above.
  static data_t borrow(const char* text);
  // Takes over what `raw` owns.
  explicit data_t(qor_data_t raw) noexcept;

  data_t(data_t&& other) noexcept : data_t() { swap(other); }
  data_t& operator=(data_t&& other) noexcept {
    data_t taken(std::move(other));
    swap(taken);
    return *this;
  }
  data_t(const data_t&) = delete;
  data_t& operator=(const data_t&) = delete;
  ~data_t() {
    if (_tag >= QOR_STRING && _tag <= QOR_CUSTOM) destroy();
  }

  void swap(data_t& other) noexcept {
    std::byte mine[16];
    std::byte theirs[16];
    std::memcpy(mine, static_cast<const void*>(this), sizeof mine);
    std::memcpy(theirs, static_cast<const void*>(&other), sizeof theirs);
    std::memcpy(static_cast<void*>(this), theirs, sizeof theirs);
    std::memcpy(static_cast<void*>(&other), mine, sizeof mine);
  }
  // A deep copy, made by the host.
  data_t copy() const;
  // Gives the contents away as the C structure and leaves the value empty.
  qor_data_t release() noexcept;
  // The C structure, still owned by this value.
  qor_data_t raw() const noexcept;

  std::uint32_t tag() const noexcept { return _tag; }
  bool empty() const noexcept { return _tag == QOR_EMPTY; }
  bool isString() const noexcept { return _tag == QOR_STRING || _tag == QOR_BORROWED_STRING; }
  // The text of a string of either kind, or null.
  const char* text() const noexcept { return isString() ? _string : nullptr; }

  // Equal tags (at most 10) and equal contents; doubles as doubles, so NaN differs from itself;
  // custom values never equal anything.
  bool operator==(const data_t& other) const;

  // Calls visitor() for an empty value, else visitor(alternative): bool&, double&, long long&,
  // decimal_t&, const char*& (both kinds of string), list_t&, map_t&, buffer_t&, custom_t&, each
  // const for a const value. A tag above 10 is no alternative: visitor.unknown() is called.
  template <typename Visitor>
  decltype(auto) apply_visitor(Visitor&& visitor) {
    return applyTo(*this, std::forward<Visitor>(visitor));
  }
  template <typename Visitor>
  decltype(auto) apply_visitor(Visitor&& visitor) const {
    return applyTo(*this, std::forward<Visitor>(visitor));
  }

 private:
  template <typename Self, typename Visitor>
  static decltype(auto) applyTo(Self& self, Visitor&& visitor) {
    switch (self._tag) {
      case QOR_EMPTY:
        return visitor();
      case QOR_BOOL:
        return visitor(self._boolean);
      case QOR_DOUBLE:
        return visitor(self._double);
      case QOR_INT64:
        return visitor(self._int64);
      case QOR_DECIMAL:
        return visitor(self._decimal);
      case QOR_STRING:
      case QOR_BORROWED_STRING:
        return visitor(self._string);
      case QOR_LIST:
        return visitor(self._list);
      case QOR_MAP:
        return visitor(self._map);
      case QOR_BUFFER:
        return visitor(self._buffer);
      case QOR_CUSTOM:
        return visitor(self._custom);
      default:
        return visitor.unknown();
    }
  }
  void destroy() noexcept;

  union {
    alignas(8) bool _boolean;
    double _double;
    long long _int64;
    decimal_t _decimal;
    const char* _string;  // owned under tag 5
    list_t _list;
    map_t _map;
    buffer_t _buffer;
    custom_t _custom;
  };
  std::uint32_t _tag;
  std::uint32_t _reserved = 0;
};

static_assert(sizeof(data_t) == sizeof(qor_data_t), "a data_t is a qor_data_t");
static_assert(sizeof(list_t) == 8 && sizeof(buffer_t) == 8 && sizeof(custom_t) == 8,
              "alternatives that own a block fill the payload");

namespace details {

// Whether iterator errors are raised: not while ZQ_SKIP_DATA_T_ITERATOR_CHECKS is set. Asked only
// where a check has failed.
bool iteratorChecksAreOn() noexcept;

// A walk over a list that notices when the list changes under it: by a visitor that alters what it
// visits, or by another thread. REQUIRES: the list outlives the walk.
class ListWalk {
 public:
  explicit ListWalk(const list_t& list) noexcept
      : _list(&list), _block(list.block()), _count(list.size()) {}
  // The next element, or null at the end. std::runtime_error "Iterator invalidated by modifying
  // list" where the list's count or block is no longer what it was.
  const data_t* next();

 private:
  const list_t* _list;
  const qor_underlying_list_t* _block;
  std::uint64_t _count;
  std::uint64_t _index = 0;
};

}  // namespace details

// A payload and its metadata, moved as a unit. The layout of qor_message_t.
struct Message {
  data_t payload;
  map_t metadata;

  Message() noexcept = default;
  Message(data_t&& body, map_t&& about) noexcept
      : payload(std::move(body)), metadata(std::move(about)) {}
};

static_assert(sizeof(Message) == sizeof(qor_message_t), "a Message is a qor_message_t");

namespace hashes {

// The seed of every key's hash, list's hash and buffer's hash.
inline constexpr std::uint64_t hashSeed = 0x243FCAF1;

// A visitor that hashes the value it is applied to. Numbers and buffers are hashed with
// MurmurHash64A (Austin Appleby, public domain), strings with qor_hash_string. A custom value
// raises std::runtime_error "Cannot use custom values as a key".
class calculate_hash {
 public:
  explicit calculate_hash(std::uint64_t seed = hashSeed) noexcept : _seed(seed) {}
  std::uint64_t operator()() const noexcept { return _seed; }
  std::uint64_t operator()(bool value) const noexcept;
  std::uint64_t operator()(double value) const noexcept;
  std::uint64_t operator()(long long value) const noexcept;
  std::uint64_t operator()(decimal_t value) const noexcept;
  std::uint64_t operator()(const char* text) const noexcept;
  std::uint64_t operator()(const list_t& list) const;
  std::uint64_t operator()(const map_t& map) const;
  std::uint64_t operator()(const buffer_t& buffer) const noexcept;
  std::uint64_t operator()(const custom_t&) const;
  std::uint64_t unknown() const noexcept { return _seed; }

 private:
  std::uint64_t _seed;
};

// The hash of a key.
inline std::uint64_t hash(const data_t& value) { return value.apply_visitor(calculate_hash()); }
// Independent of slot order: equal maps with different histories hash alike.
std::uint64_t hash(const map_t& map);
// The same, with the hashes of keys inside the value as their maps' slots have them, where hash()
// works them out anew: a key that is the key in a key in a key costs no more than any. REQUIRES:
// map_t's functions have filled the maps in it.
std::uint64_t hashByStored(const data_t& value);

}  // namespace hashes

// --- Inline parts of map_t that need a complete data_t ------------------------------------------

namespace details {
// Slots seen as C++ values: the layouts are the same.
inline const data_t& keyOf(const qor_underlying_map_table_entry_t& slot) noexcept {
  return reinterpret_cast<const data_t&>(slot.key);
}
inline data_t& keyOf(qor_underlying_map_table_entry_t& slot) noexcept {
  return reinterpret_cast<data_t&>(slot.key);
}
inline const data_t& valueOf(const qor_underlying_map_table_entry_t& slot) noexcept {
  return reinterpret_cast<const data_t&>(slot.value);
}
inline data_t& valueOf(qor_underlying_map_table_entry_t& slot) noexcept {
  return reinterpret_cast<data_t&>(slot.value);
}
}  // namespace details

template <bool isConst>
typename map_t::_iterator<isConst>::entry_t map_t::_iterator<isConst>::operator*() const {
  auto& here = slot();
  return {here.hash, details::keyOf(here), details::valueOf(here)};
}

template <bool isConst>
const data_t& map_t::_iterator<isConst>::key() const {
  return details::keyOf(slot());
}

template <bool isConst>
std::conditional_t<isConst, const data_t&, data_t&> map_t::_iterator<isConst>::value() const {
  return details::valueOf(slot());
}

extern template class map_t::_iterator<false>;
extern template class map_t::_iterator<true>;

}  // namespace connectivity
