// The barrier's count.
#include "plugins/http_client/dispatch/Sentinel.hpp"

namespace connectivity::plugins {

void Barriers::abandon(bool whether) {
  const orrery::AutoMutex lock(mutex);
  abandoned = whether;
  changed.broadcast();
}

void Sentinel::arrive() {
  const orrery::AutoMutex lock(_barriers.mutex);
  if (remaining > 0 && --remaining == 0) _barriers.changed.broadcast();
}

// In both, the count decides, not the wake-up, which may be spurious or another barrier's.

bool Sentinel::waitUntilComplete(std::int64_t milliseconds) {
  const orrery::AutoMutex lock(_barriers.mutex);
  if (remaining > 0) _barriers.changed.timedWait(milliseconds);
  return remaining == 0;
}

bool Sentinel::waitUntilOpen(std::int64_t milliseconds) {
  const orrery::AutoMutex lock(_barriers.mutex);
  if (remaining > 0 && !_barriers.abandoned) _barriers.changed.timedWait(milliseconds);
  return remaining == 0 || _barriers.abandoned;
}

bool Sentinel::isComplete() {
  const orrery::AutoMutex lock(_barriers.mutex);
  return remaining == 0;
}

}  // namespace connectivity::plugins
