// The queue on its own: order, lanes, what becomes of its elements. Its waits are beside this.
#include "plugins/http_client/dispatch/AffinityQueue.hpp"

#include <algorithm>
#include <atomic>
#include <functional>
#include <memory>
#include <new>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "tests/plugins/http_client/unit/dispatch/AffinityQueueUnderTest.hpp"
#include "tests/support/Event.hpp"

namespace connectivity::plugins {
namespace {

using test_support::Event;

TEST(AffinityQueue, RefusesToHaveNoConsumers) {
  const StubLogger logger;
  try {
    const Queue queue(0, logger);
    FAIL();
  } catch (const std::runtime_error& error) {
    EXPECT_STREQ(error.what(), "Must have at least one consumer");
  }
}

TEST(AffinityQueue, IgnoresAffinitiesWithOneConsumer) {
  const StubLogger logger;
  Queue queue(1, logger);
  push(queue, 1, 7);
  push(queue, 2);
  push(queue, 3, 4);
  EXPECT_EQ(take(queue, 0), 1);
  EXPECT_EQ(take(queue, 0), 2);
  EXPECT_EQ(take(queue, 0), 3);
}

TEST(AffinityQueue, KeepsOrderWithinOneAffinity) {
  const StubLogger logger;
  Queue queue(3, logger);
  for (int i = 0; i < 9; ++i) push(queue, i, 5);
  for (int i = 0; i < 9; ++i) EXPECT_EQ(take(queue, 2), i);
}

TEST(AffinityQueue, MapsAffinitiesToLanesByTheRemainder) {
  const StubLogger logger;
  Queue queue(4, logger);
  push(queue, 1, 0xFFFFFFFFU);
  push(queue, 2, 4);
  EXPECT_EQ(take(queue, 3), 1);
  EXPECT_EQ(take(queue, 0), 2);
}

TEST(AffinityQueue, MapsConsumersToLanesByTheRemainder) {
  const StubLogger logger;
  Queue queue(2, logger);
  push(queue, 1, 1);
  EXPECT_EQ(take(queue, 5), 1);
}

TEST(AffinityQueue, GivesAnElementWithoutAffinityToWhoeverComesFirst) {
  const StubLogger logger;
  Queue queue(3, logger);
  push(queue, 1);
  push(queue, 2);
  EXPECT_EQ(take(queue, 2), 1);
  EXPECT_EQ(take(queue, 0), 2);
  EXPECT_EQ(queue.size(), 0U);
}

TEST(AffinityQueue, LetsAnIdleConsumerOvertakeAKeyedBacklogOfAnotherLane) {
  const StubLogger logger;
  Queue queue(2, logger);
  for (int i = 0; i < 100; ++i) push(queue, i, 0);
  push(queue, 100);
  EXPECT_EQ(take(queue, 1), 100);
}

TEST(AffinityQueue, TakesAnElementWithoutAffinityBehindWhatIsOlderOnTheLane) {
  const StubLogger logger;
  Queue queue(2, logger);
  push(queue, 1, 0);
  push(queue, 2);
  push(queue, 3, 0);
  EXPECT_EQ(take(queue, 0), 1);
  EXPECT_EQ(take(queue, 0), 2);
  EXPECT_EQ(take(queue, 0), 3);
}

TEST(AffinityQueue, CountsAnElementOnceHoweverManyLanesItStandsOn) {
  const StubLogger logger;
  Queue queue(8, logger);
  push(queue, 1);
  push(queue, 2, 3);
  EXPECT_EQ(queue.size(), 2U);
}

TEST(AffinityQueue, PutsOneElementOfARowOnEachLaneBehindWhatIsThere) {
  const StubLogger logger;
  Queue queue(3, logger);
  push(queue, 1, 1);
  {
    Queue::LockPushBatch batch(queue);
    int next = 10;
    EXPECT_TRUE(queue.enqueueOnEachLane(batch, 3, WhenFull::Wait, [&] { return value(next++); }));
  }
  push(queue, 2, 1);
  EXPECT_EQ(queue.size(), 5U);
  EXPECT_EQ(take(queue, 0), 10);
  EXPECT_EQ(take(queue, 1), 1);
  EXPECT_EQ(take(queue, 1), 11);
  EXPECT_EQ(take(queue, 1), 2);
  EXPECT_EQ(take(queue, 2), 12);
}

TEST(AffinityQueue, LinksNothingOfARowThatCouldNotBeMade) {
  const StubLogger logger;
  Queue queue(3, logger);
  int made = 0;
  {
    Queue::LockPushBatch batch(queue);
    EXPECT_THROW(queue.enqueueOnEachLane(batch, 3, WhenFull::Wait,
                                         [&] {
                                           if (++made == 3) throw std::bad_alloc();
                                           return value(made);
                                         }),
                 std::bad_alloc);
  }
  EXPECT_EQ(queue.size(), 0U);
  push(queue, 7, 0);
  EXPECT_EQ(take(queue, 0), 7);
}

TEST(AffinityQueue, TakesNothingIntoAnAbandonedBatch) {
  const StubLogger logger;
  Queue queue(2, logger);
  const std::atomic<bool> abandoned{true};
  Queue::LockPushBatch batch(queue, &abandoned);
  EXPECT_FALSE(queue.enqueue(batch, value(1), WhenFull::Grow));
  bool made = false;
  EXPECT_FALSE(queue.enqueueOnEachLane(batch, 2, WhenFull::Grow, [&] {
    made = true;
    return value(1);
  }));
  EXPECT_FALSE(made);
}

TEST(AffinityQueue, GivesNothingAfterTerminationThoughALaneHoldsElements) {
  const StubLogger logger;
  Queue queue(1, logger);
  push(queue, 1);
  queue.terminate();
  try {
    queue.dequeue(0);
    FAIL();
  } catch (const std::runtime_error& error) {
    EXPECT_STREQ(error.what(), "This queue has been terminated");
  }
}

TEST(AffinityQueue, CallsBackWhenAnElementIsTaken) {
  const StubLogger logger;
  Queue queue(1, logger);
  push(queue, 1);
  int calls = 0;
  const std::function<void()> onTaken = [&] { ++calls; };
  EXPECT_EQ(*queue.dequeue(0, onTaken), 1);
  EXPECT_EQ(calls, 1);
}

TEST(AffinityQueue, RaisesTheStandardErrorForAnEmptyCallback) {
  const StubLogger logger;
  Queue queue(1, logger);
  push(queue, 1);
  EXPECT_THROW(queue.dequeue(0, std::function<void()>()), std::bad_function_call);
}

// A value that uses the queue from its destructor, as a host's flush object may.
struct Probe {
  explicit Probe(std::function<void()> action) noexcept : whenDestroyed(std::move(action)) {}
  Probe(Probe&& other) noexcept : whenDestroyed(std::exchange(other.whenDestroyed, nullptr)) {}
  Probe& operator=(Probe&&) = delete;
  Probe(const Probe&) = delete;
  Probe& operator=(const Probe&) = delete;
  ~Probe() {
    if (whenDestroyed) whenDestroyed();
  }
  std::function<void()> whenDestroyed;
};
using ProbeQueue = AffinityQueue<Probe, StubLogger>;

TEST(AffinityQueue, DestroysWhatIsLeftOutsideItsMutexLaneByLane) {
  const StubLogger logger;
  std::string destroyed;
  {
    ProbeQueue queue(3, logger);
    const auto probe = [&](char name) {
      return Probe([&destroyed, &queue, name] {
        destroyed += name;
        EXPECT_EQ(queue.size(), 0U);  // would deadlock under the mutex
      });
    };
    ProbeQueue::LockPushBatch batch(queue);
    queue.enqueue(batch, probe('c'), WhenFull::Wait, 2);
    queue.enqueue(batch, probe('a'), WhenFull::Wait);
    queue.enqueue(batch, probe('b'), WhenFull::Wait, 0);
  }
  EXPECT_EQ(destroyed, "abc");
}

TEST(AffinityQueue, DestroysAnElementWhoseCallbackFailsOutsideItsMutex) {
  const StubLogger logger;
  ProbeQueue queue(1, logger);
  bool destroyed = false;
  {
    ProbeQueue::LockPushBatch batch(queue);
    queue.enqueue(batch, Probe([&] {
                    destroyed = true;
                    EXPECT_EQ(queue.size(), 0U);
                  }),
                  WhenFull::Wait);
  }
  EXPECT_THROW(queue.dequeue(0, std::function<void()>()), std::bad_function_call);
  EXPECT_TRUE(destroyed);
}

// Every element exactly once, each key in order, under everything at once.
TEST(AffinityQueue, LosesAndDoublesNothingBetweenManyProducersAndConsumers) {
  const StubLogger logger;
  constexpr std::uint32_t consumers = 4;
  constexpr int producers = 3;
  constexpr int each = 4000;
  Queue queue(consumers, logger);
  std::vector<std::atomic<int>> seen(producers * each);
  std::vector<std::vector<int>> order(consumers);
  std::atomic<int> taken{0};
  Event done("all elements to be taken");
  Threads consuming;
  for (std::uint32_t consumer = 0; consumer < consumers; ++consumer) {
    consuming.run([&, consumer] {
      try {
        for (;;) {
          const int number = take(queue, consumer);
          ++seen[static_cast<std::size_t>(number)];
          if (number % 2 == 0) order[consumer].push_back(number);
          if (++taken == producers * each) done.set();
        }
      } catch (const QueueTerminated&) {
      }
    });
  }
  Threads producing;
  for (int producer = 0; producer < producers; ++producer) {
    producing.run([&, producer] {
      for (int i = 0; i < each; i += 8) {
        Queue::LockPushBatch batch(queue);
        for (int j = i; j < i + 8; ++j) {
          const int number = producer * each + j;
          // Even numbers are keyed by their producer, odd ones are anybody's.
          queue.enqueue(batch, value(number), WhenFull::Wait,
                        j % 2 == 0 ? std::optional<std::uint32_t>(producer) : std::nullopt);
        }
      }
    });
  }
  producing.join();
  done.wait();
  queue.terminate();
  consuming.join();
  for (const auto& times : seen) EXPECT_EQ(times, 1);
  for (std::uint32_t lane = 0; lane < consumers; ++lane) {
    EXPECT_TRUE(std::is_sorted(order[lane].begin(), order[lane].end())) << "lane " << lane;
  }
}

}  // namespace
}  // namespace connectivity::plugins
