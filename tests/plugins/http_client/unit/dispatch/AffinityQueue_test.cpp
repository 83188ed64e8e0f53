// The queue on its own: order, capacity, wake-ups, termination.
#include "plugins/http_client/dispatch/AffinityQueue.hpp"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <new>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/Event.hpp"

namespace connectivity::plugins {
namespace {

using test_support::Event;

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
constexpr auto capacity = static_cast<int>(Queue::capacity);
constexpr auto notFullBelow = static_cast<int>(Queue::notFullBelow);

Value value(int number) { return std::make_unique<int>(number); }

void push(Queue& queue, int number, std::optional<std::uint32_t> affinity = std::nullopt) {
  Queue::LockPushBatch batch(queue);
  queue.enqueue(batch, value(number), false, affinity);
}

void pushMany(Queue& queue, int howMany, std::optional<std::uint32_t> affinity = std::nullopt) {
  Queue::LockPushBatch batch(queue);
  for (int i = 0; i < howMany; ++i) queue.enqueue(batch, value(i), true, affinity);
}

int take(Queue& queue, std::uint32_t consumer) { return *queue.dequeue(consumer); }

void takeMany(Queue& queue, int howMany, std::uint32_t consumer = 0) {
  for (int i = 0; i < howMany; ++i) queue.dequeue(consumer);
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
void waitUntilReported(const StubLogger& logger, std::size_t times = 1) {
  const auto end = std::chrono::steady_clock::now() + test_support::patience;
  while (logger.lineCount() < times) {
    ASSERT_LT(std::chrono::steady_clock::now(), end);
    std::this_thread::yield();
  }
}

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
    EXPECT_TRUE(queue.enqueueOnEachLane(batch, 3, false, [&] { return value(next++); }));
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
    EXPECT_THROW(queue.enqueueOnEachLane(batch, 3, false,
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

TEST(AffinityQueue, WakesAWaitingConsumerWhenTheBatchCloses) {
  const StubLogger logger;
  Queue queue(2, logger);
  Event taken("the element to be taken");
  Threads threads;
  threads.run([&] {
    EXPECT_EQ(take(queue, 1), 5);
    taken.set();
  });
  {
    Queue::LockPushBatch batch(queue);
    queue.enqueue(batch, value(5), false);
    EXPECT_FALSE(taken.isSet());
  }
  taken.wait();
}

TEST(AffinityQueue, MakesTheProducerOfTheElementBeyondItsCapacityWaitAndSaysSoOnce) {
  const StubLogger logger;
  Queue queue(1, logger);
  pushMany(queue, capacity);
  Event pushed("the producer to go on");
  Threads threads;
  threads.run([&] {
    push(queue, 1);
    push(queue, 2);  // still within the episode
    pushed.set();
  });
  waitUntilReported(logger);
  EXPECT_EQ(queue.size(), Queue::capacity);
  EXPECT_FALSE(pushed.isSet());
  takeMany(queue, 2);
  pushed.wait();
  EXPECT_EQ(queue.size(), Queue::capacity);
  ASSERT_EQ(logger.lineCount(), 1U);
  EXPECT_EQ(logger.lines[0].first,
            "AffinityQueue is full, must wait for something to be removed before adding more items "
            "- %d");
  EXPECT_EQ(logger.lines[0].second, capacity);
}

TEST(AffinityQueue, LetsANewProducerInJustBelowCapacityWithoutEndingTheEpisode) {
  const StubLogger logger;
  Queue queue(1, logger);
  pushMany(queue, capacity);
  Threads threads;
  threads.run([&] { push(queue, 1); });
  waitUntilReported(logger);
  takeMany(queue, 2);
  threads.join();
  EXPECT_EQ(queue.size(), Queue::capacity - 1);
  push(queue, 2);  // does not wait
  EXPECT_EQ(queue.size(), Queue::capacity);
  threads.run([&] { push(queue, 3); });
  takeMany(queue, 1);
  threads.join();
  EXPECT_EQ(logger.lineCount(), 1U);
}

TEST(AffinityQueue, ReportsAgainOnlyAfterItHasShrunkBelowItsLowMark) {
  const StubLogger logger;
  Queue queue(1, logger);
  const auto fillAndPushOneMore = [&](int present) {
    pushMany(queue, capacity - present);
    Threads threads;
    threads.run([&] { push(queue, 1); });
    takeMany(queue, 1);
    threads.join();
  };
  pushMany(queue, capacity);
  {
    Threads threads;
    threads.run([&] { push(queue, 1); });
    waitUntilReported(logger);
    takeMany(queue, 1);
  }
  takeMany(queue, capacity - notFullBelow);  // down to the mark: still the same episode
  push(queue, 1);
  fillAndPushOneMore(notFullBelow + 1);
  EXPECT_EQ(logger.lineCount(), 1U);

  takeMany(queue, capacity - notFullBelow + 1);  // below the mark
  push(queue, 1);
  pushMany(queue, capacity - notFullBelow);
  Threads threads;
  threads.run([&] { push(queue, 1); });
  waitUntilReported(logger, 2);
  takeMany(queue, 1);
  threads.join();
  EXPECT_EQ(logger.lineCount(), 2U);
}

TEST(AffinityQueue, GrowsBeyondItsCapacityForThoseWhoMustNotWait) {
  const StubLogger logger;
  Queue queue(1, logger);
  pushMany(queue, capacity + 10);
  EXPECT_EQ(queue.size(), Queue::capacity + 10);
  EXPECT_EQ(logger.lineCount(), 0U);
}

// The batch is not closed while its producer waits, so nobody but the producer wakes those who are
// to make the space.
TEST(AffinityQueue, FinishesABatchLargerThanItsCapacityWhenAllConsumersSleep) {
  const StubLogger logger;
  Queue queue(2, logger);
  constexpr int all = 3 * capacity;
  std::atomic<int> taken{0};
  Event done("all elements to be taken");
  Threads threads;
  for (std::uint32_t consumer = 0; consumer < 2; ++consumer) {
    threads.run([&, consumer] {
      try {
        for (;;) {
          queue.dequeue(consumer);
          if (++taken == all) done.set();
        }
      } catch (const QueueTerminated&) {
      }
    });
  }
  {
    Queue::LockPushBatch batch(queue);
    for (int i = 0; i < all; ++i) EXPECT_TRUE(queue.enqueue(batch, value(i), false));
  }
  done.wait();
  queue.terminate();
}

TEST(AffinityQueue, LetsOtherBatchesInWhileAProducerWaits) {
  const StubLogger logger;
  Queue queue(1, logger);
  pushMany(queue, capacity);
  Threads threads;
  threads.run([&] { push(queue, 1); });
  waitUntilReported(logger);
  pushMany(queue, 1);  // by one who must not wait
  EXPECT_EQ(queue.size(), Queue::capacity + 1);
  takeMany(queue, 2);
  threads.join();
}

TEST(AffinityQueue, NeverCallsItsLoggerUnderItsMutex) {
  StubLogger logger;
  Queue queue(1, logger);
  pushMany(queue, capacity);
  logger.whenCalled = [&] { pushMany(queue, 1); };  // would deadlock
  Threads threads;
  threads.run([&] { push(queue, 1); });
  waitUntilReported(logger);
  takeMany(queue, 3);
  threads.join();
  EXPECT_EQ(queue.size(), Queue::capacity - 1);
}

TEST(AffinityQueue, TellsABatchThatItWaitsAndNeverUnderItsMutex) {
  const StubLogger logger;
  Queue queue(1, logger);
  pushMany(queue, capacity);
  std::vector<std::pair<bool, std::uint32_t>> told;
  Event waits("the batch to wait");
  Threads threads;
  threads.run([&] {
    Queue::LockPushBatch batch(queue, nullptr, [&](bool waiting) {
      told.emplace_back(waiting, queue.size());  // would deadlock
      waits.set();
    });
    EXPECT_TRUE(queue.enqueue(batch, value(1), false));
    EXPECT_EQ(told.size(), 2U);  // before it is closed
  });
  waits.wait();
  takeMany(queue, 1);
  threads.join();
  EXPECT_EQ(told, (decltype(told){{true, Queue::capacity}, {false, Queue::capacity}}));
}

TEST(AffinityQueue, TellsARowThatItWaits) {
  const StubLogger logger;
  Queue queue(2, logger);
  pushMany(queue, capacity);
  std::vector<bool> told;
  Event waits("the batch to wait");
  Threads threads;
  threads.run([&] {
    Queue::LockPushBatch batch(queue, nullptr, [&](bool waiting) {
      told.push_back(waiting);
      waits.set();
    });
    EXPECT_TRUE(queue.enqueueOnEachLane(batch, 2, false, [] { return value(1); }));
    EXPECT_EQ(told, (std::vector<bool>{true, false}));
    EXPECT_TRUE(queue.enqueue(batch, value(1), true));
  });
  waits.wait();
  takeMany(queue, 1);
  threads.join();
  EXPECT_EQ(told, (std::vector<bool>{true, false}));
}

// Its logger throws when it is to report that the queue is full once more.
TEST(AffinityQueue, TellsABatchThatItsWaitHasEndedAlsoByAnException) {
  StubLogger logger;
  Queue queue(1, logger);
  pushMany(queue, capacity);
  std::vector<bool> told;
  Threads threads;
  threads.run([&] {
    Queue::LockPushBatch batch(queue, nullptr, [&](bool waiting) {
      told.push_back(waiting);
      if (!waiting) return;
      // The queue shrinks below the mark and fills up again before the batch looks.
      logger.whenCalled = [] { throw std::runtime_error("no log"); };
      takeMany(queue, capacity);
      push(queue, 1);
      pushMany(queue, capacity);
    });
    EXPECT_THROW(queue.enqueue(batch, value(1), false), std::runtime_error);
  });
  threads.join();
  EXPECT_EQ(told, (std::vector<bool>{true, false}));
}

TEST(AffinityQueue, LeavesAValueWithAProducerWhoseBatchIsAbandonedWhileItWaits) {
  const StubLogger logger;
  Queue queue(1, logger);
  pushMany(queue, capacity);
  std::atomic<bool> abandoned{false};
  Threads threads;
  threads.run([&] {
    Value kept = value(42);
    Queue::LockPushBatch batch(queue, &abandoned);
    EXPECT_FALSE(queue.enqueue(batch, std::move(kept), false));
    // NOLINTNEXTLINE(bugprone-use-after-move): that it was not moved is what is tested
    ASSERT_NE(kept, nullptr);
    EXPECT_EQ(*kept, 42);
  });
  waitUntilReported(logger);
  abandoned = true;
  queue.wakeProducers();
  threads.join();
  EXPECT_EQ(queue.size(), Queue::capacity);
}

TEST(AffinityQueue, TakesNothingIntoAnAbandonedBatch) {
  const StubLogger logger;
  Queue queue(2, logger);
  const std::atomic<bool> abandoned{true};
  Queue::LockPushBatch batch(queue, &abandoned);
  EXPECT_FALSE(queue.enqueue(batch, value(1), true));
  bool made = false;
  EXPECT_FALSE(queue.enqueueOnEachLane(batch, 2, true, [&] {
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

TEST(AffinityQueue, WakesEveryWaitingConsumerAtTermination) {
  const StubLogger logger;
  Queue queue(4, logger);
  Threads threads;
  for (std::uint32_t consumer = 0; consumer < 4; ++consumer) {
    threads.run([&, consumer] { EXPECT_THROW(queue.dequeue(consumer), QueueTerminated); });
  }
  queue.terminate();
  threads.join();
}

TEST(AffinityQueue, LetsAWaitingProducerGoOnAtTermination) {
  const StubLogger logger;
  Queue queue(1, logger);
  pushMany(queue, capacity);
  Threads threads;
  threads.run([&] { push(queue, 1); });
  waitUntilReported(logger);
  queue.terminate();
  threads.join();
  EXPECT_EQ(queue.size(), Queue::capacity + 1);
}

TEST(AffinityQueue, MakesNoProducerWaitAfterTermination) {
  const StubLogger logger;
  Queue queue(1, logger);
  pushMany(queue, capacity);
  queue.terminate();
  push(queue, 1);
  EXPECT_EQ(queue.size(), Queue::capacity + 1);
  EXPECT_EQ(logger.lineCount(), 0U);
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
    queue.enqueue(batch, probe('c'), false, 2);
    queue.enqueue(batch, probe('a'), false);
    queue.enqueue(batch, probe('b'), false, 0);
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
                  false);
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
          queue.enqueue(batch, value(number), false,
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
