// What a chain still waits for: input that is being read, requests without answer, flushes that are
// not complete. Any thread may call anything.
#pragma once

#include <cstdint>

#include "orrery/Mutex.hpp"

namespace host {

class Outstanding {
 public:
  void add(std::uint64_t count) ORRERY_EXCLUDES(_mutex);
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
  std::uint64_t _awaitedLevel ORRERY_GUARDED_BY(_mutex) = 0;
  bool _reading ORRERY_GUARDED_BY(_mutex) = true;
  bool _abandoned ORRERY_GUARDED_BY(_mutex) = false;
};

}  // namespace host
