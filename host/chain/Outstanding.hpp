// What a chain still waits for: input that is being read, requests without answer, flushes that are
// not complete. And since when: the hand-over times of requests. Any thread may call anything.
#pragma once

#include <cstdint>
#include <optional>
#include <span>

#include "host/chain/HandoverTimes.hpp"
#include "orrery/Mutex.hpp"

namespace host {

class Outstanding {
 public:
  using TimePoint = HandoverTimes::TimePoint;

  void add(std::uint64_t count) ORRERY_EXCLUDES(_mutex) { add(count, {}, {}); }
  // Among them are requests with these keys, handed over now.
  void add(std::uint64_t count, std::span<const std::uint64_t> keys, TimePoint now)
      ORRERY_EXCLUDES(_mutex);
  // When the request with this key was handed over; of several, the first that came. Nothing where
  // that is not known. Whether it is outstanding or removed makes no difference.
  std::optional<TimePoint> takeHandoverTime(std::uint64_t key) ORRERY_EXCLUDES(_mutex);
  // A request with this key has not been taken after all.
  void withdraw(std::uint64_t key) ORRERY_EXCLUDES(_mutex);
  void remove(std::uint64_t count) ORRERY_EXCLUDES(_mutex);
  std::uint64_t count() const ORRERY_EXCLUDES(_mutex);
  // Waits until no more than `level` are outstanding, or for abandon(). For one thread.
  void waitUntilAtMost(std::uint64_t level) ORRERY_EXCLUDES(_mutex);
  void endOfInput() ORRERY_EXCLUDES(_mutex);
  // Waiting is over, whatever is outstanding.
  void abandon() ORRERY_EXCLUDES(_mutex);
  // Returns when the input has ended and nothing is outstanding, or after abandon().
  void waitUntilNone() ORRERY_EXCLUDES(_mutex);

 private:
  mutable orrery::Mutex _mutex{"Outstanding"};
  orrery::Condition _changed{_mutex};
  std::uint64_t _count ORRERY_GUARDED_BY(_mutex) = 0;
  HandoverTimes _times ORRERY_GUARDED_BY(_mutex);
  std::uint64_t _awaitedLevel ORRERY_GUARDED_BY(_mutex) = 0;
  bool _reading ORRERY_GUARDED_BY(_mutex) = true;
  bool _abandoned ORRERY_GUARDED_BY(_mutex) = false;
};

}  // namespace host
