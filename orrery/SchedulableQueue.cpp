#include "orrery/SchedulableQueue.hpp"

namespace orrery {

namespace {
thread_local SchedulableQueue* currentQueue = nullptr;
}  // namespace

SchedulableQueue::~SchedulableQueue() = default;

SchedulableQueue* SchedulableQueue::current() noexcept { return currentQueue; }
void SchedulableQueue::setCurrent(SchedulableQueue* queue) noexcept { currentQueue = queue; }

SchedulableQueueGuard::SchedulableQueueGuard(SchedulableQueue* queue) noexcept
    : _entered(queue), _previous(SchedulableQueue::current()) {
  SchedulableQueue::setCurrent(queue);
  if (_entered != nullptr) _entered->entered();
}

SchedulableQueueGuard::~SchedulableQueueGuard() {
  if (_entered != nullptr) _entered->left();
  SchedulableQueue::setCurrent(_previous);
}

}  // namespace orrery
