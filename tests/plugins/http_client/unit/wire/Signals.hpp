// Signals that interrupt a system call, for code that has to go on with it.
#pragma once

#include <atomic>
#include <chrono>
#include <csignal>
#include <functional>
#include <pthread.h>
#include <thread>

#include "tests/support/Event.hpp"

namespace test_support {

// Runs `waiting` on a thread of its own and sends signals there, each when the one before it has
// been handled, then calls `end`, which is to end it. False where it had ended before that.
inline bool goesOnAfterSignals(const std::function<void()>& waiting,
                               const std::function<void()>& end) {
  static std::atomic<int> handled{0};
  struct sigaction action {};
  struct sigaction before {};
  action.sa_handler = [](int) { ++handled; };  // without SA_RESTART: system calls are interrupted
  ::sigaction(SIGUSR1, &action, &before);
  std::atomic<bool> ended{false};
  Event begun;
  std::thread thread([&] {
    begun.set();
    waiting();
    ended = true;
  });
  begun.wait();
  const auto latest = std::chrono::steady_clock::now() + patience;
  for (int round = 0; round < 50; ++round) {
    const int soFar = handled;
    ::pthread_kill(thread.native_handle(), SIGUSR1);
    while (handled == soFar && !ended && std::chrono::steady_clock::now() < latest) {
      std::this_thread::yield();
    }
  }
  const bool went = !ended;
  end();
  thread.join();
  ::sigaction(SIGUSR1, &before, nullptr);
  return went;
}

}  // namespace test_support
