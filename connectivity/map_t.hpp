// map_t: the associative value of the data model, over a table block that host and plug-in share.
//
// An open-addressing hash table with linear probing (Knuth, TAOCP vol. 3, 6.4, algorithm L) and
// tombstones for erased slots; the layout of its block is qor_underlying_map_table_t. Tables are
// allocated, grown and freed by the host (qor_allocate_map, qor_reallocate_map, qor_free_map); the
// rest happens here. A map without a table is empty.
//
// Every stored or probed hash is hashes::calculate_hash of the key with the seed hashes::hashSeed.
//
// Iterators see every insert and erase: an iterator that was obtained before one raises
// std::runtime_error "Iterator invalidated by modifying map" at its next use, and one of another
// map raises "Invalid comparison of iterators into different maps", unless the environment variable
// ZQ_SKIP_DATA_T_ITERATOR_CHECKS is set; it is looked up when a check fails, so that a valid step
// costs nothing. With the checks off a stale iterator goes on with the slots that it knew, which is
// safe only while the table has not been replaced by a larger one.
//
// A map may be read from several threads; it must not be changed while anybody else uses it.
#pragma once

#include <cstdint>
#include <type_traits>
#include <utility>

#include "connectivity/qor_plugin.h"

namespace connectivity {

class data_t;

class alignas(8) map_t {
 public:
  // What an iterator points at. The key of a live entry must not be changed.
  struct entry {
    std::uint64_t hash;
    const data_t& first;
    data_t& second;
  };
  struct const_entry {
    std::uint64_t hash;
    const data_t& first;
    const data_t& second;
  };

  template <bool isConst>
  class _iterator;
  using iterator = _iterator<false>;
  using const_iterator = _iterator<true>;

  map_t() noexcept = default;
  // Takes the table over.
  explicit map_t(qor_underlying_map_table_t* table) noexcept : _table(table) {}
  map_t(map_t&& other) noexcept : _table(std::exchange(other._table, nullptr)) {}
  map_t& operator=(map_t&& other) noexcept;
  map_t(const map_t&) = delete;
  map_t& operator=(const map_t&) = delete;
  ~map_t();

  std::uint64_t size() const noexcept { return _table == nullptr ? 0 : _table->size; }
  bool empty() const noexcept { return size() == 0; }

  // Live entries in ascending slot order, which depends on hashes and history.
  iterator begin();
  iterator end();
  const_iterator begin() const;
  const_iterator end() const;

  // The entry that holds `key`, or the end; and the slot where it would be inserted, or the end
  // where no slot is usable.
  std::pair<const_iterator, const_iterator> find_for_insert(const data_t& key,
                                                            std::uint64_t hash) const;
  std::pair<iterator, iterator> find_for_insert(const data_t& key, std::uint64_t hash);

  // The entry of the key, and whether it is new. A key that is present leaves the pair with the
  // caller; otherwise key and value are moved in. Growth that the host refuses is
  // std::runtime_error "Failed to allocate a map of N slots" and changes nothing.
  std::pair<iterator, bool> insert(std::pair<data_t, data_t>&& pair, long long hash);
  // The same, hashing the key; a custom key raises "Cannot use custom values as a key".
  std::pair<iterator, bool> insert(data_t&& key, data_t&& value);

  // Frees the entry and leaves a tombstone; the table never shrinks. Nothing happens at the end. A
  // stale iterator, or one of another map, raises the iterator errors above and changes nothing.
  void erase(const iterator& position);

  // The value under `key`, or null.
  const data_t* find(const data_t& key) const;
  data_t* find(const data_t& key);
  // The value under a text key, whether the key is an owned or a borrowed string, or null. `hash`
  // is qor_hash_string of the text.
  const data_t* findText(const char* text, std::uint64_t hash) const;
  const data_t* findText(const char* text) const;
  data_t* findText(const char* text, std::uint64_t hash);
  data_t* findText(const char* text);

  // A deep copy of the entries and of the header text. Slots are not carried over: the copy starts
  // with max(8, size) of them. An empty map without header text has a copy without a table.
  map_t copy() const;
  // Same size, same header text (or both without), and every entry of this map with an equal value
  // in the other.
  bool operator==(const map_t& other) const;

  // The table, still owned by the map; null for a map without one.
  qor_underlying_map_table_t* table() const noexcept { return _table; }
  // Gives the table away and leaves the map empty.
  qor_underlying_map_table_t* release() noexcept { return std::exchange(_table, nullptr); }

 private:
  // Slot indexes; the capacity stands for "none".
  struct Probe {
    std::uint64_t found;
    std::uint64_t free;
  };
  template <typename Matches>
  Probe probeFor(std::uint64_t hash, const Matches& matches) const;
  Probe probe(const data_t& key, std::uint64_t hash) const;
  std::uint64_t capacity() const noexcept { return _table == nullptr ? 0 : _table->capacity; }
  const data_t* valueAt(std::uint64_t index) const noexcept;
  bool isOverloaded() const noexcept;
  std::pair<iterator, bool> insertMoving(data_t& key, data_t& value, std::uint64_t hash);
  void fill(std::uint64_t index, data_t& key, data_t& value, std::uint64_t hash) noexcept;
  void grow();

  qor_underlying_map_table_t* _table = nullptr;
};

static_assert(sizeof(map_t) == 8, "a map is one padded pointer");

template <bool isConst>
class map_t::_iterator {
 public:
  using owner_t = std::conditional_t<isConst, const map_t, map_t>;
  using entry_t = std::conditional_t<isConst, const_entry, entry>;

  _iterator() noexcept = default;
  // The end, or the slot at `index`, of `owner`.
  _iterator(owner_t* owner, std::uint64_t index) noexcept;

  // Reading at the end is std::runtime_error "The end of a map holds no entry".
  entry_t operator*() const;
  const data_t& key() const;
  std::conditional_t<isConst, const data_t&, data_t&> value() const;
  _iterator& operator++();
  // Both iterators must belong to one map.
  bool operator==(const _iterator& other) const;

  // Raises "Iterator invalidated by modifying map" where the table behind has changed.
  void checkmodified() const;
  // Raises "Invalid comparison of iterators into different maps" unless this is `map`'s iterator.
  void checkOwner(const map_t* map) const;
  std::uint64_t index() const noexcept { return _index; }
  bool atEnd() const noexcept { return _index == _capacity; }

 private:
  friend class map_t;
  qor_underlying_map_table_entry_t& slot() const;
  // Moves to the first live slot at or after the index.
  void settle() noexcept;

  owner_t* _owner = nullptr;
  // As they were when the iterator was obtained.
  qor_underlying_map_table_entry_t* _slots = nullptr;
  std::uint64_t _capacity = 0;
  std::uint64_t _index = 0;
  std::uint64_t _size = 0;
};

}  // namespace connectivity
