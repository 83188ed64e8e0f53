// The barrier's count.
#include "plugins/http_client/dispatch/Sentinel.hpp"

namespace connectivity::plugins {

void Sentinel::arrive() {
  const orrery::AutoMutex lock(mutex);
  if (remaining > 0 && --remaining == 0) complete.broadcast();
}

bool Sentinel::waitUntilComplete(std::int64_t milliseconds) {
  const orrery::AutoMutex lock(mutex);
  // The count decides, not the wake-up, which may be spurious.
  if (remaining > 0) complete.timedWait(milliseconds);
  return remaining == 0;
}

bool Sentinel::isComplete() {
  const orrery::AutoMutex lock(mutex);
  return remaining == 0;
}

}  // namespace connectivity::plugins
