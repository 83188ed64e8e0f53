// When the requests that are outstanding were handed over, by a key of their ids.
//
// Of several with one key the first that came is the first to be taken. At most `capacity` times
// are held: further ones are left out. Memory grows to what was outstanding at one time and is
// kept. Used by one thread at a time.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

namespace host {

class HandoverTimes {
 public:
  using TimePoint = std::chrono::steady_clock::time_point;
  static constexpr std::size_t capacity = std::size_t{1} << 16;

  HandoverTimes();

  void add(std::uint64_t key, TimePoint at);
  // Takes the earliest of the key; nothing where there is none.
  std::optional<TimePoint> take(std::uint64_t key) noexcept;

 private:
  using Index = std::uint32_t;
  static constexpr Index none = UINT32_MAX;

  // One outstanding request, in the queue of its bucket.
  struct Entry {
    std::uint64_t key;
    TimePoint at;
    Index next;
  };
  struct Bucket {
    Index first = none;
    Index last = none;
  };

  Index freeEntry();
  Bucket& bucketOf(std::uint64_t key) noexcept {
    return _buckets[static_cast<std::size_t>(key % _buckets.size())];
  }

  std::vector<Bucket> _buckets;
  std::vector<Entry> _entries;
  Index _free = none;  // the first of the entries that are not in use
};

}  // namespace host
