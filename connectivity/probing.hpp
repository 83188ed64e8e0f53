// The states of a map's slots, and the search for a key among them: linear probing (Knuth, TAOCP
// vol. 3, 6.4, algorithm L).
//
// Internal to this folder. An object here is used by one thread while the table does not change.
#pragma once

#include <cstdint>

#include "connectivity/qor_plugin.h"

namespace connectivity::details {

inline constexpr std::uint64_t emptyHash = 0;
inline constexpr std::uint64_t tombstoneHash = 1;

using Slot = qor_underlying_map_table_entry_t;

inline bool isTombstone(const Slot& slot) noexcept {
  return slot.hash == tombstoneHash && slot.key.tag == QOR_EMPTY;
}
inline bool isEmpty(const Slot& slot) noexcept {
  return slot.hash == emptyHash && slot.key.tag == QOR_EMPTY;
}
// So a key whose hash happens to be 0 or 1 is live.
inline bool isLive(const Slot& slot) noexcept { return !isEmpty(slot) && !isTombstone(slot); }

// The slots that may hold a key with a given hash, in the order in which they are looked at. The
// search can be interrupted between two of them.
class Candidates {
 public:
  // `table` may be null.
  Candidates(qor_underlying_map_table_t* table, std::uint64_t hash) noexcept
      : _slots(table == nullptr ? nullptr : qor_map_entries(table)),
        _count(table == nullptr ? 0 : table->capacity),
        _hash(hash),
        _start(_count == 0 ? 0 : hash % _count),
        _index(_start),
        _free(_count),
        _isOver(_count == 0) {}

  // The next live slot with the hash, or null where the key is absent.
  const Slot* next() noexcept {
    while (!_isOver) {
      const std::uint64_t here = _index;
      const Slot& slot = _slots[here];
      if (++_index == _count) _index = 0;
      _isOver = _index == _start;
      if (isLive(slot)) {
        if (slot.hash == _hash) return &slot;
      } else {
        if (_free == _count) _free = here;
        if (isEmpty(slot)) _isOver = true;
      }
    }
    return nullptr;
  }

  std::uint64_t indexOf(const Slot& slot) const noexcept {
    return static_cast<std::uint64_t>(&slot - _slots);
  }
  // The first slot on the way so far that holds no entry, or the capacity.
  std::uint64_t free() const noexcept { return _free; }
  std::uint64_t capacity() const noexcept { return _count; }

 private:
  const Slot* _slots;
  std::uint64_t _count;
  std::uint64_t _hash;
  std::uint64_t _start;
  std::uint64_t _index;
  std::uint64_t _free;
  bool _isOver;
};

}  // namespace connectivity::details
