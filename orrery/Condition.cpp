#include <algorithm>
#include <chrono>

#include "orrery/Mutex.hpp"

namespace orrery {

namespace {
// A longer wait ends early: its end would not fit the system's clock where time_t has 32 bits.
constexpr std::int64_t longestWaitMilliseconds = std::int64_t{365} * 24 * 3600 * 1000;
}  // namespace

void Condition::wait() {
  std::unique_lock<std::mutex> held(_mutex._mutex, std::adopt_lock);
  _condition.wait(held);
  held.release();
}

bool Condition::timedWait(std::int64_t milliseconds) {
  const std::chrono::milliseconds limit(
      std::clamp<std::int64_t>(milliseconds, 0, longestWaitMilliseconds));
  std::unique_lock<std::mutex> held(_mutex._mutex, std::adopt_lock);
  const std::cv_status status =
      _condition.wait_until(held, std::chrono::steady_clock::now() + limit);
  held.release();
  return status == std::cv_status::no_timeout;
}

}  // namespace orrery
