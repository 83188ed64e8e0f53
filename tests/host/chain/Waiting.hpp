// For tests that need a thread to stand somewhere before they go on.
#pragma once

#include <chrono>
#include <string>
#include <thread>

#include "tests/support/Event.hpp"

namespace host_tests {

// Returns when the condition holds, which another thread is to bring about. TimedOut.
template <typename Condition>
void waitUntil(const Condition& holds, const std::string& what) {
  const auto end = std::chrono::steady_clock::now() + test_support::patience;
  while (!holds()) {
    if (std::chrono::steady_clock::now() > end) throw test_support::TimedOut(what);
    std::this_thread::yield();
  }
}

}  // namespace host_tests
