// Who is woken, and who sleeps on. The interleavings are forced: a test goes on when the queue says
// that those who are to sleep are asleep.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <optional>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "plugins/http_client/dispatch/AffinityQueue.hpp"
#include "tests/plugins/http_client/unit/dispatch/AffinityQueueUnderTest.hpp"
#include "tests/support/Event.hpp"

namespace connectivity::plugins {

// What the queue knows of those who wait.
struct AffinityQueueTestPeer {
  // From the top of the stack.
  static std::vector<std::uint32_t> sleepers(Queue& queue) {
    const orrery::AutoMutex lock(queue.mutex);
    std::vector<std::uint32_t> found;
    const Sleeper* each = queue.sleepers.empty() ? nullptr : &queue.sleepers.top();
    for (; each != nullptr; each = each->below) {
      std::uint32_t lane = 0;
      while (&queue.lanes[lane] != each) ++lane;
      found.push_back(lane);
    }
    return found;
  }
  static std::uint32_t waitingProducers(Queue& queue) {
    const orrery::AutoMutex lock(queue.mutex);
    return queue.waitingProducers;
  }
};

namespace {

using test_support::Event;
using Lanes = std::vector<std::uint32_t>;
using Peer = AffinityQueueTestPeer;
// Long enough for somebody who is woken to go on.
constexpr std::chrono::milliseconds notWoken{50};

template <typename Condition>
void await(const char* what, Condition&& condition) {
  const auto end = std::chrono::steady_clock::now() + test_support::patience;
  while (!condition()) {
    ASSERT_LT(std::chrono::steady_clock::now(), end) << what;
    std::this_thread::yield();
  }
}

// Consumers that fall asleep one after the other, so that the last one is on top of the stack. One
// that has taken something keeps it until it is told to come back.
class AffinityQueueWakes : public testing::Test {
 protected:
  void sleepers(std::uint32_t consumers) {
    _queue.emplace(consumers, _logger);
    _taken = std::vector<std::atomic<int>>(consumers);
    _comesBack = std::vector<std::atomic<bool>>(consumers);
    for (std::uint32_t consumer = 0; consumer < consumers; ++consumer) {
      _threads.run([this, consumer] { consume(consumer); });
      awaitSleepers(consumer + 1);
    }
  }
  void TearDown() override {
    _over = true;
    queue().terminate();
    _threads.join();
  }

  Queue& queue() { return *_queue; }
  Threads& threads() { return _threads; }
  // What the consumer has taken last, once it has.
  void expectTaken(std::uint32_t consumer, int number) {
    await("an element to be taken", [&] { return _taken[consumer] != 0; });
    EXPECT_EQ(_taken[consumer], number);
  }
  void expectTaken(const Lanes& consumers, std::vector<int> numbers) {
    std::vector<int> taken;
    for (const std::uint32_t consumer : consumers) {
      await("an element to be taken", [&] { return _taken[consumer] != 0; });
      taken.push_back(_taken[consumer]);
    }
    std::sort(taken.begin(), taken.end());
    EXPECT_EQ(taken, numbers);
  }
  void letGoOn(std::uint32_t consumer) {
    _taken[consumer] = 0;
    _comesBack[consumer] = true;
  }
  void comeBack(std::uint32_t consumer) {
    const std::size_t asleep = Peer::sleepers(queue()).size();
    letGoOn(consumer);
    awaitSleepers(asleep + 1);
  }
  void awaitSleepers(std::size_t howMany) {
    await("consumers to sleep", [&] { return Peer::sleepers(queue()).size() == howMany; });
  }
  // A producer in a thread of its own that waits for space.
  void waitingProducer(Event& goesOn) {
    threads().run([this, &goesOn] {
      push(queue(), 9999, 0);
      goesOn.set();
    });
    await("a producer to wait", [&] { return Peer::waitingProducers(queue()) == 1; });
  }
  // The only consumer is busy, and so many elements wait for it.
  void busyConsumer(int elements) {
    sleepers(1);
    push(queue(), 1);
    expectTaken(0, 1);
    pushMany(queue(), elements, 0);
  }
  void take(std::uint32_t howMany) {
    for (; howMany > 0; --howMany) queue().dequeue(0);
  }
  // Of two consumers the first is busy, and its lane is full; the other one sleeps.
  void producerBehindABusyConsumer(Event& goesOn) {
    sleepers(2);
    push(queue(), 1, 0);
    expectTaken(0, 1);
    pushMany(queue(), capacity, 0);
    waitingProducer(goesOn);
  }

 private:
  void consume(std::uint32_t consumer) {
    try {
      for (;;) {
        _taken[consumer] = plugins::take(queue(), consumer);
        while (!_comesBack[consumer] && !_over) std::this_thread::yield();
        _comesBack[consumer] = false;
      }
    } catch (const QueueTerminated&) {
    }
  }

  const StubLogger _logger{};
  std::optional<Queue> _queue;
  std::vector<std::atomic<int>> _taken;
  std::vector<std::atomic<bool>> _comesBack;
  std::atomic<bool> _over{false};
  Threads _threads;
};

TEST_F(AffinityQueueWakes, OneForAnElementWithoutAffinityTheOneThatFellAsleepLast) {
  sleepers(4);
  EXPECT_EQ(Peer::sleepers(queue()), (Lanes{3, 2, 1, 0}));
  push(queue(), 1);
  EXPECT_EQ(Peer::sleepers(queue()), (Lanes{2, 1, 0}));
  expectTaken(3, 1);
  push(queue(), 2);
  EXPECT_EQ(Peer::sleepers(queue()), (Lanes{1, 0}));
  expectTaken(2, 2);
  comeBack(3);
  EXPECT_EQ(Peer::sleepers(queue()), (Lanes{3, 1, 0}));
  push(queue(), 3);
  expectTaken(3, 3);
}

TEST_F(AffinityQueueWakes, TheConsumerOfTheLaneForAnElementWithAffinity) {
  sleepers(4);
  push(queue(), 1, 1);
  EXPECT_EQ(Peer::sleepers(queue()), (Lanes{3, 2, 0}));
  expectTaken(1, 1);
  push(queue(), 2, 1);  // it does not sleep: nobody else can take this
  EXPECT_EQ(Peer::sleepers(queue()), (Lanes{3, 2, 0}));
  letGoOn(1);
  expectTaken(1, 2);
}

TEST_F(AffinityQueueWakes, AsManyAsABatchHasElementsForAndOnlyWhenItCloses) {
  sleepers(5);
  {
    Queue::LockPushBatch batch(queue());
    queue().enqueue(batch, value(1), WhenFull::Wait, 4);  // the one on top has its own
    queue().enqueue(batch, value(2), WhenFull::Wait);
    queue().enqueue(batch, value(3), WhenFull::Wait);
    queue().enqueue(batch, value(4), WhenFull::Wait, 4);
  }
  EXPECT_EQ(Peer::sleepers(queue()), (Lanes{1, 0}));
  await("all but one to be taken", [&] { return queue().size() == 1; });
}

TEST_F(AffinityQueueWakes, EverybodyForARow) {
  sleepers(3);
  {
    Queue::LockPushBatch batch(queue());
    queue().enqueueOnEachLane(batch, 3, WhenFull::Wait, [] { return value(7); });
  }
  EXPECT_EQ(Peer::sleepers(queue()), Lanes{});
  expectTaken(Lanes{0, 1, 2}, {7, 7, 7});
}

TEST_F(AffinityQueueWakes, MoreThanABatchKeepsAListOf) {
  constexpr std::uint32_t consumers = 40;
  sleepers(consumers);
  pushMany(queue(), consumers);
  EXPECT_EQ(Peer::sleepers(queue()), Lanes{});
  await("all to be taken", [&] { return queue().size() == 0; });
}

TEST_F(AffinityQueueWakes, NobodyTwiceForTwoElements) {
  sleepers(2);
  push(queue(), 1);
  push(queue(), 2);
  EXPECT_EQ(Peer::sleepers(queue()), Lanes{});
  expectTaken(Lanes{0, 1}, {1, 2});
}

// --- Producers ----------------------------------------------------------------------------------

TEST_F(AffinityQueueWakes, AProducerOnceEnoughWasTaken) {
  busyConsumer(capacity);
  Event goesOn("the producer to go on");
  waitingProducer(goesOn);
  take(Queue::takenBeforeWaking - 1);
  EXPECT_FALSE(goesOn.isSetWithin(notWoken));
  take(1);
  goesOn.wait();
}

TEST_F(AffinityQueueWakes, AProducerOnceEnoughWasTakenSinceThereIsRoom) {
  constexpr int tooMany = 40;
  busyConsumer(capacity + tooMany);
  Event goesOn("the producer to go on");
  waitingProducer(goesOn);
  take(tooMany + Queue::takenBeforeWaking - 1);
  EXPECT_FALSE(goesOn.isSetWithin(notWoken));
  take(1);
  goesOn.wait();
}

TEST_F(AffinityQueueWakes, AProducerAtOnceWhileAConsumerSleeps) {
  sleepers(2);
  push(queue(), 1, 0);
  expectTaken(0, 1);
  pushMany(queue(), capacity, 0);
  EXPECT_EQ(Peer::sleepers(queue()), Lanes{1});
  Event goesOn("the producer to go on");
  waitingProducer(goesOn);
  queue().dequeue(0);
  goesOn.wait();
}

TEST_F(AffinityQueueWakes, AProducerWhenAConsumerFallsAsleep) {
  sleepers(2);
  push(queue(), 1, 0);
  push(queue(), 2, 1);
  expectTaken(0, 1);
  expectTaken(1, 2);
  pushMany(queue(), capacity, 0);
  Event goesOn("the producer to go on");
  waitingProducer(goesOn);
  queue().dequeue(0);
  EXPECT_FALSE(goesOn.isSetWithin(notWoken)) << "nobody sleeps, and one is not enough";
  comeBack(1);
  goesOn.wait();
}

// The full queue is no news here, and nobody is told of the wait: the batch does not let go of the
// mutex for that.
TEST_F(AffinityQueueWakes, WhomABatchHasBroughtSomethingBeforeItWaitsForSpace) {
  Event goesOn("the producer to go on");
  producerBehindABusyConsumer(goesOn);
  queue().dequeue(0);
  goesOn.wait();
  queue().dequeue(0);
  threads().run([this] {
    Queue::LockPushBatch batch(queue());
    queue().enqueue(batch, value(2), WhenFull::Wait, 1);
    queue().enqueue(batch, value(3), WhenFull::Wait, 0);
  });
  expectTaken(1, 2);
}

// Beyond the capacity there is no room, whatever was taken.
TEST_F(AffinityQueueWakes, NoProducerBeforeThereIsRoom) {
  Event goesOn("the producer to go on");
  producerBehindABusyConsumer(goesOn);
  pushMany(queue(), 40, 0);
  take(40);
  EXPECT_FALSE(goesOn.isSetWithin(notWoken));
  queue().dequeue(0);
  goesOn.wait();
}

}  // namespace
}  // namespace connectivity::plugins
