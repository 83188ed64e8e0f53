#include "orrery/ThreadLocal.hpp"

#include "orrery/Exception.hpp"

namespace orrery {

ThreadLocalSlot::ThreadLocalSlot() {
  if (pthread_key_create(&_key, nullptr) != 0) {
    throw Exception("ThreadLocal ctor: pthread_key_create() failed");
  }
}

ThreadLocalSlot::~ThreadLocalSlot() { pthread_key_delete(_key); }

// NOLINTNEXTLINE(readability-make-member-function-const): it changes what get() gives
void ThreadLocalSlot::set(void* value) {
  if (pthread_setspecific(_key, value) != 0) {
    throw Exception("ThreadLocal set: pthread_setspecific() failed");
  }
}

}  // namespace orrery
