// A queue between threads that holds at most so many items and so many bytes.
//
// Who puts waits while there is no room, and those who wait go in the order in which they came. An
// item larger than all the bytes passes alone: when everything before it is done. One thread takes,
// many items at a time; what it took counts until it takes again, so that the bounds hold for what
// it is working on too.
//
//   while (queue.take(items, 128)) {
//     for (Item& item : items) { ... }
//   }
//
// What was taken and is done can be given back, to leave with those who put: memory is freed
// cheapest by the threads that allocate it.
//
// Nothing waits with a time-out, and nobody is woken but where somebody waits.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <iterator>
#include <utility>
#include <vector>

#include "orrery/Mutex.hpp"

namespace host {

// Of what is on its way at one time, in front of a transport or behind it.
struct QueueBounds {
  std::size_t items = 1024;
  std::uint64_t bytes = std::size_t{1} << 26U;  // 64 MiB
};

// Who waits at the moment.
struct QueueWaiting {
  std::size_t putters = 0;
  bool taker = false;
};

// Whether an item wakes a taker that waits, or leaves that to wakeTaker(), so that items which come
// together are taken together.
enum class Wake { Now, Later };

// Any thread may call anything, but only one take().
template <typename Item>
class BoundedQueue {
 public:
  explicit BoundedQueue(QueueBounds bounds = {}) : _bounds(bounds) {}
  BoundedQueue(const BoundedQueue&) = delete;
  BoundedQueue& operator=(const BoundedQueue&) = delete;

  // Appends the item, and waits for room; leaves one in its place that was given back, if there is
  // any. False, with the item left as it is, after close(), and where there is no room after
  // abandon().
  bool put(Item& item, std::uint64_t bytes, Wake wake = Wake::Now) ORRERY_EXCLUDES(_mutex) {
    bool wakesTaker = false;
    {
      const orrery::AutoMutex lock(_mutex);
      waitForRoom(bytes);
      if (_closed || !hasRoom(bytes)) return false;
      _entries.push_back({std::move(item), bytes});
      _bytes += bytes;
      if (!_done.empty()) {
        item = std::move(_done.back());
        _done.pop_back();
      }
      wakesTaker = _waiting.taker && wake == Wake::Now;
    }
    if (wakesTaker) _filled.broadcast();
    return true;
  }

  bool put(Item&& item, std::uint64_t bytes, Wake wake = Wake::Now) ORRERY_EXCLUDES(_mutex) {
    return put(item, bytes, wake);
  }

  // Wakes the taker where it waits beside items.
  void wakeTaker() ORRERY_EXCLUDES(_mutex) {
    const orrery::AutoMutex lock(_mutex);
    wakeTakerBesideItems();
  }

  // Ends what was taken before, waits for an item, and moves what there is to `taken`, at most
  // `most`. False, with nothing taken, when the queue is closed and empty.
  bool take(std::vector<Item>& taken, std::size_t most) ORRERY_EXCLUDES(_mutex) {
    taken.clear();
    const orrery::AutoMutex lock(_mutex);
    endTaken();
    while (_entries.empty() && !_closed) {
      _waiting.taker = true;
      _filled.wait();
      _waiting.taker = false;
    }
    taken.reserve(std::min(most, _entries.size()));
    for (; !_entries.empty() && _taken < most; _entries.pop_front(), ++_taken) {
      taken.push_back(std::move(_entries.front().item));
      _takenBytes += _entries.front().bytes;
    }
    return _taken > 0;
  }

  // For the taker: what it does not need any more.
  void giveBack(std::vector<Item>& done) ORRERY_EXCLUDES(_mutex) {
    const orrery::AutoMutex lock(_mutex);
    std::move(done.begin(), done.end(), std::back_inserter(_done));
    done.clear();
  }

  // Whether take() would wait, or say that nothing comes any more.
  bool isEmpty() const ORRERY_EXCLUDES(_mutex) {
    const orrery::AutoMutex lock(_mutex);
    return _entries.empty();
  }

  // Nothing is put any more; what there is can still be taken.
  void close() ORRERY_EXCLUDES(_mutex) {
    {
      const orrery::AutoMutex lock(_mutex);
      _closed = true;
    }
    _filled.broadcast();
    _room.broadcast();
  }

  // Nobody waits for room any more, now or later: what finds none is refused.
  void abandon() ORRERY_EXCLUDES(_mutex) {
    {
      const orrery::AutoMutex lock(_mutex);
      _abandoned = true;
    }
    _room.broadcast();
  }

  QueueWaiting waiting() const ORRERY_EXCLUDES(_mutex) {
    const orrery::AutoMutex lock(_mutex);
    return _waiting;
  }

 private:
  struct Entry {
    Item item;
    std::uint64_t bytes;
  };

  bool hasRoom(std::uint64_t bytes) const ORRERY_REQUIRES(_mutex) {
    const std::size_t count = _entries.size() + _taken;
    if (count == 0) return true;
    return count < _bounds.items && _bytes <= _bounds.bytes && bytes <= _bounds.bytes - _bytes;
  }

  void waitForRoom(std::uint64_t bytes) ORRERY_REQUIRES(_mutex) {
    const std::uint64_t ticket = _tickets++;
    while (!_closed && !_abandoned && (ticket != _turn || !hasRoom(bytes))) {
      wakeTakerBesideItems();
      ++_waiting.putters;
      _room.wait();
      --_waiting.putters;
    }
    ++_turn;
    if (_waiting.putters > 0) _room.broadcast();
  }

  void wakeTakerBesideItems() ORRERY_REQUIRES(_mutex) {
    if (_waiting.taker && !_entries.empty()) _filled.broadcast();
  }

  void endTaken() ORRERY_REQUIRES(_mutex) {
    if (_taken > 0 && _waiting.putters > 0) _room.broadcast();
    _bytes -= _takenBytes;
    _taken = 0;
    _takenBytes = 0;
  }

  const QueueBounds _bounds;
  mutable orrery::Mutex _mutex{"BoundedQueue"};
  orrery::Condition _room{_mutex};
  orrery::Condition _filled{_mutex};
  std::deque<Entry> _entries ORRERY_GUARDED_BY(_mutex);
  std::vector<Item> _done ORRERY_GUARDED_BY(_mutex);
  std::uint64_t _bytes ORRERY_GUARDED_BY(_mutex) = 0;  // of what is queued or taken
  std::size_t _taken ORRERY_GUARDED_BY(_mutex) = 0;
  std::uint64_t _takenBytes ORRERY_GUARDED_BY(_mutex) = 0;
  std::uint64_t _tickets ORRERY_GUARDED_BY(_mutex) = 0;  // of those who put, in their order
  std::uint64_t _turn ORRERY_GUARDED_BY(_mutex) = 0;     // the ticket that goes next
  bool _closed ORRERY_GUARDED_BY(_mutex) = false;
  bool _abandoned ORRERY_GUARDED_BY(_mutex) = false;
  QueueWaiting _waiting ORRERY_GUARDED_BY(_mutex);
};

}  // namespace host
