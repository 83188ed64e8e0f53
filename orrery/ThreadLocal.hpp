// One pointer per thread, in a POSIX thread-specific slot.
//
// Unlike a thread_local variable, the slot goes with its owner: a library that holds one can be
// unloaded while threads that used it live on.
#pragma once

#include <pthread.h>

#include "orrery/Export.hpp"

namespace orrery {

// The untyped slot. The constructor throws Exception "ThreadLocal ctor: pthread_key_create()
// failed".
class ORRERY_API ThreadLocalSlot {
 public:
  ThreadLocalSlot();
  ~ThreadLocalSlot();
  ThreadLocalSlot(const ThreadLocalSlot&) = delete;
  ThreadLocalSlot& operator=(const ThreadLocalSlot&) = delete;

  // Null on a thread that has set nothing.
  void* get() const noexcept { return pthread_getspecific(_key); }
  void set(void* value);

 private:
  pthread_key_t _key{};
};

// Does not own what it points at.
template <typename T>
class ThreadLocal {
 public:
  T* get() const noexcept { return static_cast<T*>(_slot.get()); }
  void set(T* value) { _slot.set(value); }

 private:
  ThreadLocalSlot _slot;
};

}  // namespace orrery
