// Queues of numbers, for the tests of the affinity queue.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "plugins/http_client/dispatch/AffinityQueue.hpp"
#include "tests/support/Event.hpp"

namespace connectivity::plugins {

// Records the lines, and does what a test wants inside a call.
class StubLogger {
 public:
  void debug(const char* format, int count) const {
    {
      const std::lock_guard lock(_mutex);
      lines.emplace_back(format, count);
    }
    if (whenCalled) whenCalled();
  }
  std::size_t lineCount() const {
    const std::lock_guard lock(_mutex);
    return lines.size();
  }

  mutable std::vector<std::pair<std::string, int>> lines;
  std::function<void()> whenCalled;

 private:
  mutable std::mutex _mutex;
};

using Value = std::unique_ptr<int>;
using Queue = AffinityQueue<Value, StubLogger>;
inline constexpr auto capacity = static_cast<int>(Queue::capacity);
inline constexpr auto notFullBelow = static_cast<int>(Queue::notFullBelow);

inline Value value(int number) { return std::make_unique<int>(number); }

inline void push(Queue& queue, int number, std::optional<std::uint32_t> affinity = std::nullopt) {
  Queue::LockPushBatch batch(queue);
  queue.enqueue(batch, value(number), WhenFull::Wait, affinity);
}

inline void pushMany(Queue& queue, int howMany,
                     std::optional<std::uint32_t> affinity = std::nullopt) {
  Queue::LockPushBatch batch(queue);
  for (int i = 0; i < howMany; ++i) queue.enqueue(batch, value(i), WhenFull::Grow, affinity);
}

inline int take(Queue& queue, std::uint32_t consumer) { return *queue.dequeue(consumer); }

// By a consumer that never sleeps, in front of a producer that would wait for more to be taken.
inline void takeMany(Queue& queue, int howMany, std::uint32_t consumer = 0) {
  for (int i = 0; i < howMany; ++i) queue.dequeue(consumer);
  queue.wakeProducers();
}

// Threads that are joined before the queue goes.
class Threads {
 public:
  ~Threads() { join(); }
  template <typename Body>
  void run(Body&& body) {
    _threads.emplace_back(std::forward<Body>(body));
  }
  void join() {
    for (auto& thread : _threads) thread.join();
    _threads.clear();
  }

 private:
  std::vector<std::thread> _threads;
};

// Waits until the producer that fills `queue` has found it full: it reports that, and then waits.
inline void waitUntilReported(const StubLogger& logger, std::size_t times = 1) {
  const auto end = std::chrono::steady_clock::now() + test_support::patience;
  while (logger.lineCount() < times) {
    ASSERT_LT(std::chrono::steady_clock::now(), end);
    std::this_thread::yield();
  }
}

}  // namespace connectivity::plugins
