// Who waits at the queue, for what, and who is woken: capacity, batches, termination.
#include <atomic>
#include <cstdint>
#include <memory>
#include <stdexcept>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "plugins/http_client/dispatch/AffinityQueue.hpp"
#include "tests/plugins/http_client/unit/dispatch/AffinityQueueUnderTest.hpp"
#include "tests/support/Event.hpp"

namespace connectivity::plugins {
namespace {

using test_support::Event;

TEST(AffinityQueueWaits, WakesAWaitingConsumerWhenTheBatchCloses) {
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
    queue.enqueue(batch, value(5), WhenFull::Wait);
    EXPECT_FALSE(taken.isSet());
  }
  taken.wait();
}

TEST(AffinityQueueWaits, MakesTheProducerOfTheElementBeyondItsCapacityWaitAndSaysSoOnce) {
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

TEST(AffinityQueueWaits, LetsANewProducerInJustBelowCapacityWithoutEndingTheEpisode) {
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

TEST(AffinityQueueWaits, ReportsAgainOnlyAfterItHasShrunkBelowItsLowMark) {
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

TEST(AffinityQueueWaits, GrowsBeyondItsCapacityForThoseWhoMustNotWait) {
  const StubLogger logger;
  Queue queue(1, logger);
  pushMany(queue, capacity + 10);
  EXPECT_EQ(queue.size(), Queue::capacity + 10);
  EXPECT_EQ(logger.lineCount(), 0U);
}

// The batch is not closed while its producer waits, so nobody but the producer wakes those who are
// to make the space.
TEST(AffinityQueueWaits, FinishesABatchLargerThanItsCapacityWhenAllConsumersSleep) {
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
    for (int i = 0; i < all; ++i) EXPECT_TRUE(queue.enqueue(batch, value(i), WhenFull::Wait));
  }
  done.wait();
  queue.terminate();
}

TEST(AffinityQueueWaits, LetsOtherBatchesInWhileAProducerWaits) {
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

TEST(AffinityQueueWaits, NeverCallsItsLoggerUnderItsMutex) {
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

TEST(AffinityQueueWaits, TellsABatchThatItWaitsAndNeverUnderItsMutex) {
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
    EXPECT_TRUE(queue.enqueue(batch, value(1), WhenFull::Wait));
    EXPECT_EQ(told.size(), 2U);  // before it is closed
  });
  waits.wait();
  takeMany(queue, 1);
  threads.join();
  EXPECT_EQ(told, (decltype(told){{true, Queue::capacity}, {false, Queue::capacity}}));
}

TEST(AffinityQueueWaits, TellsARowThatItWaits) {
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
    EXPECT_TRUE(queue.enqueueOnEachLane(batch, 2, WhenFull::Wait, [] { return value(1); }));
    EXPECT_EQ(told, (std::vector<bool>{true, false}));
    EXPECT_TRUE(queue.enqueue(batch, value(1), WhenFull::Grow));
  });
  waits.wait();
  takeMany(queue, 1);
  threads.join();
  EXPECT_EQ(told, (std::vector<bool>{true, false}));
}

// Its logger throws when it is to report that the queue is full once more.
TEST(AffinityQueueWaits, TellsABatchThatItsWaitHasEndedAlsoByAnException) {
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
    EXPECT_THROW(queue.enqueue(batch, value(1), WhenFull::Wait), std::runtime_error);
  });
  threads.join();
  EXPECT_EQ(told, (std::vector<bool>{true, false}));
}

TEST(AffinityQueueWaits, LeavesAValueWithAProducerWhoseBatchIsAbandonedWhileItWaits) {
  const StubLogger logger;
  Queue queue(1, logger);
  pushMany(queue, capacity);
  std::atomic<bool> abandoned{false};
  Threads threads;
  threads.run([&] {
    Value kept = value(42);
    Queue::LockPushBatch batch(queue, &abandoned);
    EXPECT_FALSE(queue.enqueue(batch, std::move(kept), WhenFull::Wait));
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

TEST(AffinityQueueWaits, WakesEveryWaitingConsumerAtTermination) {
  const StubLogger logger;
  Queue queue(4, logger);
  Threads threads;
  for (std::uint32_t consumer = 0; consumer < 4; ++consumer) {
    threads.run([&, consumer] { EXPECT_THROW(queue.dequeue(consumer), QueueTerminated); });
  }
  queue.terminate();
  threads.join();
}

TEST(AffinityQueueWaits, LetsAWaitingProducerGoOnAtTermination) {
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

TEST(AffinityQueueWaits, MakesNoProducerWaitAfterTermination) {
  const StubLogger logger;
  Queue queue(1, logger);
  pushMany(queue, capacity);
  queue.terminate();
  push(queue, 1);
  EXPECT_EQ(queue.size(), Queue::capacity + 1);
  EXPECT_EQ(logger.lineCount(), 0U);
}

}  // namespace
}  // namespace connectivity::plugins
