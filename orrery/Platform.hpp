// The host's clocks.
#pragma once

#include <cstdint>

#include "orrery/Export.hpp"

namespace orrery {

// What tells the time. Both functions are called from any thread.
class ORRERY_API Clock {
 public:
  virtual ~Clock();
  virtual double relativeHighResTimeFloat() const noexcept = 0;
  virtual std::int64_t sysTime() const noexcept = 0;
};

class ORRERY_API Platform {
 public:
  // Seconds on the monotonic clock, from an arbitrary start.
  static double relativeHighResTimeFloat() noexcept;
  // Milliseconds since 1970-01-01 UTC.
  static std::int64_t sysTime() noexcept;

  // For tests: replaces the clocks for the whole process (null: the system's) and returns what was
  // there. `clock` is borrowed until it is replaced.
  static const Clock* replaceClock(const Clock* clock) noexcept;
};

}  // namespace orrery
