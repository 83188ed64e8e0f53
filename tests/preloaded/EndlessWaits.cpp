// Preloaded into a test program: every wait of a second or more becomes endless. Such waits are
// there for asking the host something from time to time; that they end by themselves would hide a
// wake-up that is lost.
#include <chrono>

#include "orrery/Mutex.hpp"

namespace orrery {

bool Condition::timedWait(std::int64_t milliseconds) {
  std::unique_lock<std::mutex> held(_mutex._mutex, std::adopt_lock);
  bool woken = true;
  if (milliseconds >= 1000) {
    _condition.wait(held);
  } else {
    woken = _condition.wait_for(held, std::chrono::milliseconds(milliseconds)) ==
            std::cv_status::no_timeout;
  }
  held.release();
  return woken;
}

}  // namespace orrery
