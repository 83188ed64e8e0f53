// A thread with little stack, on which a recursion that follows its input's depth ends soon.
#pragma once

#include <cstddef>
#include <functional>
#include <pthread.h>
#include <stdexcept>

namespace test_support {

// Runs the action on a thread with 128 KiB of stack and waits for it. The action throws nothing.
inline void onSmallStack(const std::function<void()>& action) {
  constexpr std::size_t stackSize = 128 << 10;
  const auto run = [](void* given) -> void* {
    (*static_cast<const std::function<void()>*>(given))();
    return nullptr;
  };
  pthread_attr_t attributes;
  pthread_attr_init(&attributes);
  pthread_attr_setstacksize(&attributes, stackSize);
  pthread_t thread{};
  const int result =
      pthread_create(&thread, &attributes, run, const_cast<std::function<void()>*>(&action));
  pthread_attr_destroy(&attributes);
  if (result != 0) throw std::runtime_error("No thread with a small stack");
  pthread_join(thread, nullptr);
}

}  // namespace test_support
