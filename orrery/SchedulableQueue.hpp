// The queue of the host's scheduler in which the calling thread's work is counted.
//
// A host derives its queues from SchedulableQueue and enters one on each thread that works for it.
// A library that hands work to threads of its own captures the current queue and enters it there.
#pragma once

#include "orrery/Export.hpp"

namespace orrery {

class ORRERY_API SchedulableQueue {
 public:
  virtual ~SchedulableQueue();
  // Called on the thread that enters or leaves; calls nest.
  virtual void entered() noexcept {}
  virtual void left() noexcept {}

  // The queue that the calling thread is in; null outside every queue.
  static SchedulableQueue* current() noexcept;

 private:
  friend class SchedulableQueueGuard;
  static void setCurrent(SchedulableQueue* queue) noexcept;
};

// Enters `queue` (null is allowed: the thread is then in no queue) and, at its end, goes back to
// the queue that the thread was in. The queue outlives the guard.
class ORRERY_API SchedulableQueueGuard {
 public:
  explicit SchedulableQueueGuard(SchedulableQueue* queue) noexcept;
  ~SchedulableQueueGuard();
  SchedulableQueueGuard(const SchedulableQueueGuard&) = delete;
  SchedulableQueueGuard& operator=(const SchedulableQueueGuard&) = delete;

 private:
  SchedulableQueue* const _entered;
  SchedulableQueue* const _previous;
};

}  // namespace orrery
