// Named mutexes, their scoped lock, and the condition that waits on them.
//
// Any thread may use them. A Mutex is not recursive. Condition is bound to one Mutex for its life
// and must be destroyed before it.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <mutex>

#include "orrery/Export.hpp"
#include "orrery/ThreadAnnotations.hpp"

namespace orrery {

class ORRERY_API ORRERY_CAPABILITY("mutex") Mutex {
 public:
  // `name` tells mutexes apart in a debugger. It is borrowed and must outlive the mutex: a literal.
  explicit Mutex(const char* name) noexcept : _name(name) {}
  Mutex(const Mutex&) = delete;
  Mutex& operator=(const Mutex&) = delete;

  void lock() ORRERY_ACQUIRE() { _mutex.lock(); }
  void unlock() noexcept ORRERY_RELEASE() { _mutex.unlock(); }
  bool tryLock() noexcept ORRERY_TRY_ACQUIRE(true) { return _mutex.try_lock(); }
  const char* name() const noexcept { return _name; }

 private:
  friend class Condition;
  const char* const _name;
  std::mutex _mutex;
};

// Holds a Mutex from construction to destruction.
class ORRERY_API ORRERY_SCOPED_CAPABILITY AutoMutex {
 public:
  explicit AutoMutex(Mutex& mutex) ORRERY_ACQUIRE(mutex) : _mutex(mutex) { _mutex.lock(); }
  ~AutoMutex() ORRERY_RELEASE() { _mutex.unlock(); }
  AutoMutex(const AutoMutex&) = delete;
  AutoMutex& operator=(const AutoMutex&) = delete;

 private:
  Mutex& _mutex;
};

// Waits may end without a broadcast: every caller re-checks what it waits for. The caller holds the
// bound mutex; it is released while waiting and held again on return.
class ORRERY_API Condition {
 public:
  explicit Condition(Mutex& mutex) noexcept : _mutex(mutex) {}
  Condition(const Condition&) = delete;
  Condition& operator=(const Condition&) = delete;

  // REQUIRES: the bound mutex is held.
  void wait();
  // True when woken, false when `milliseconds` have passed. REQUIRES: the bound mutex is held.
  bool timedWait(std::int64_t milliseconds);
  void broadcast() noexcept { _condition.notify_all(); }
  // Wakes one of those that wait, if any does.
  void signal() noexcept { _condition.notify_one(); }

 private:
  Mutex& _mutex;
  std::condition_variable _condition;
};

}  // namespace orrery
