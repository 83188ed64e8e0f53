// What passes between the threads of a chain: the bounds, the order, and the ends of waits.
//
// Where a test needs a thread that waits, it looks until the queue says that one does: from then on
// only a wake-up lets that thread go on, and a lost one is a test that does not end.
#include <numeric>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "host/chain/BoundedQueue.hpp"
#include "tests/host/chain/Waiting.hpp"

namespace host {
namespace {

using Numbers = std::vector<int>;

// A queue of numbers in which each takes as many bytes as it says.
class Queue : public BoundedQueue<int> {
 public:
  explicit Queue(QueueBounds bounds) : BoundedQueue(bounds) {}

  bool add(int number) { return put(int{number}, static_cast<std::uint64_t>(number)); }
  Numbers takeUpTo(std::size_t most) {
    Numbers numbers;
    take(numbers, most);
    return numbers;
  }
  void untilWaiting(std::size_t putters) const {
    host_tests::waitUntil([&] { return waiting().putters == putters; }, "threads that put");
  }
  void untilTakerWaits() const {
    host_tests::waitUntil([&] { return waiting().taker; }, "a thread that takes");
  }
};

TEST(BoundedQueue, GivesWhatWasPutInItsOrderAndAtMostAsManyAsAskedFor) {
  Queue queue({8, 1000});
  for (const int number : {3, 1, 2}) EXPECT_TRUE(queue.add(number));
  EXPECT_EQ(queue.takeUpTo(2), (Numbers{3, 1}));
  EXPECT_EQ(queue.takeUpTo(2), (Numbers{2}));
  EXPECT_TRUE(queue.isEmpty());
}

TEST(BoundedQueue, WhoPutsWaitsWhileThereAreAsManyItemsAsTheBound) {
  Queue queue({2, 1000});
  queue.add(1);
  queue.add(2);
  std::thread third([&] { EXPECT_TRUE(queue.add(3)); });
  queue.untilWaiting(1);
  EXPECT_EQ(queue.takeUpTo(1), (Numbers{1}));
  // What was taken counts until the next.
  EXPECT_EQ(queue.waiting().putters, 1U);
  EXPECT_EQ(queue.takeUpTo(1), (Numbers{2}));
  third.join();
  EXPECT_EQ(queue.takeUpTo(1), (Numbers{3}));
}

TEST(BoundedQueue, WhoPutsWaitsWhileThereAreTooManyBytesForTheItem) {
  Queue queue({100, 10});
  queue.add(6);
  queue.add(4);
  std::thread third([&] { EXPECT_TRUE(queue.add(5)); });
  queue.untilWaiting(1);
  EXPECT_EQ(queue.takeUpTo(1), (Numbers{6}));
  EXPECT_EQ(queue.waiting().putters, 1U);
  EXPECT_EQ(queue.takeUpTo(1), (Numbers{4}));
  third.join();
  EXPECT_EQ(queue.takeUpTo(1), (Numbers{5}));
}

TEST(BoundedQueue, AnItemLargerThanTheBoundPassesAlone) {
  Queue queue({100, 10});
  queue.add(1);
  std::thread large([&] { EXPECT_TRUE(queue.add(11)); });
  queue.untilWaiting(1);
  EXPECT_EQ(queue.takeUpTo(9), (Numbers{1}));
  EXPECT_EQ(queue.waiting().putters, 1U) << "the one before is not done";
  EXPECT_EQ(queue.takeUpTo(9), (Numbers{11}));
  large.join();
  std::thread small([&] { EXPECT_TRUE(queue.add(0)); });
  queue.untilWaiting(1);
  EXPECT_EQ(queue.takeUpTo(9), (Numbers{0}));
  small.join();
}

TEST(BoundedQueue, WhoeverWaitsLongerGoesFirstSoThatALargeItemIsNotPassedForEver) {
  Queue queue({100, 10});
  queue.add(10);
  std::thread large([&] { EXPECT_TRUE(queue.add(11)); });
  queue.untilWaiting(1);
  std::thread small([&] { EXPECT_TRUE(queue.add(1)); });
  queue.untilWaiting(2);
  EXPECT_EQ(queue.takeUpTo(9), (Numbers{10}));
  EXPECT_EQ(queue.takeUpTo(9), (Numbers{11}));
  large.join();
  EXPECT_EQ(queue.takeUpTo(9), (Numbers{1}));
  small.join();
}

TEST(BoundedQueue, RoomForSeveralLetsSeveralGoOn) {
  Queue queue({3, 1000});
  for (int i = 0; i < 3; ++i) queue.add(0);
  std::vector<std::thread> threads;
  for (int i = 1; i <= 3; ++i) {
    threads.emplace_back([&queue, i] { EXPECT_TRUE(queue.add(i)); });
    queue.untilWaiting(static_cast<std::size_t>(i));
  }
  EXPECT_EQ(queue.takeUpTo(3), (Numbers{0, 0, 0}));
  Numbers all = queue.takeUpTo(1);
  for (std::thread& thread : threads) thread.join();
  while (all.size() < 3) all.push_back(queue.takeUpTo(1).at(0));
  EXPECT_EQ(all, (Numbers{1, 2, 3}));
}

TEST(BoundedQueue, AnItemWakesATakerThatWaits) {
  Queue queue({2, 1000});
  std::thread taker([&] { EXPECT_EQ(queue.takeUpTo(2), (Numbers{7})); });
  queue.untilTakerWaits();
  queue.add(7);
  taker.join();
}

TEST(BoundedQueue, ItemsThatWakeNobodyAreTakenTogetherWhenTheTakerIsWoken) {
  Queue queue({8, 1000});
  queue.wakeTaker();
  std::thread taker([&] { EXPECT_EQ(queue.takeUpTo(8), (Numbers{1, 2, 3})); });
  queue.untilTakerWaits();
  queue.put(1, 1, Wake::Later);
  // Turns enough for a taker that has been woken after all.
  for (int turn = 0; turn < 2000; ++turn) {
    EXPECT_TRUE(queue.waiting().taker);
    std::this_thread::yield();
  }
  queue.put(2, 1, Wake::Later);
  queue.put(3, 1, Wake::Later);
  queue.wakeTaker();
  taker.join();
}

TEST(BoundedQueue, WhoHasToWaitForRoomWakesTheTakerFirst) {
  Queue queue({2, 1000});
  Numbers all;
  std::thread taker([&] {
    Numbers taken;
    while (all.size() < 3 && queue.take(taken, 8))
      all.insert(all.end(), taken.begin(), taken.end());
  });
  queue.untilTakerWaits();
  for (const int number : {1, 2, 3}) queue.put(int{number}, 1, Wake::Later);
  queue.wakeTaker();
  taker.join();
  EXPECT_EQ(all, (Numbers{1, 2, 3}));
}

TEST(BoundedQueue, ClosedGivesWhatItHoldsAndThenEnds) {
  Queue queue({8, 1000});
  queue.add(1);
  queue.close();
  EXPECT_FALSE(queue.add(2));
  Numbers taken;
  EXPECT_TRUE(queue.take(taken, 8));
  EXPECT_EQ(taken, (Numbers{1}));
  EXPECT_FALSE(queue.take(taken, 8));
  EXPECT_TRUE(taken.empty());
}

TEST(BoundedQueue, ClosingEndsTheWaitsOnBothSides) {
  Queue full({1, 1000});
  full.add(1);
  std::thread putter([&] { EXPECT_FALSE(full.add(2)); });
  full.untilWaiting(1);
  full.close();
  putter.join();
  Queue empty({1, 1000});
  std::thread taker([&] {
    Numbers taken;
    EXPECT_FALSE(empty.take(taken, 1));
  });
  empty.untilTakerWaits();
  empty.close();
  taker.join();
}

TEST(BoundedQueue, AbandonedRefusesWhatFindsNoRoomAndTakesWhatDoes) {
  Queue queue({1, 1000});
  queue.add(1);
  std::thread first([&] { EXPECT_FALSE(queue.add(2)); });
  std::thread second([&] { EXPECT_FALSE(queue.add(3)); });
  queue.untilWaiting(2);
  queue.abandon();
  first.join();
  second.join();
  EXPECT_FALSE(queue.add(4));
  EXPECT_EQ(queue.takeUpTo(1), (Numbers{1}));
  EXPECT_FALSE(queue.add(5)) << "what was taken counts";
  std::thread taker([&] { EXPECT_EQ(queue.takeUpTo(1), (Numbers{6})); });
  queue.untilTakerWaits();
  EXPECT_TRUE(queue.add(6));
  taker.join();
}

TEST(BoundedQueue, WhatIsRefusedStaysWithTheCaller) {
  BoundedQueue<std::string> queue;
  queue.close();
  std::string text = "kept";
  EXPECT_FALSE(queue.put(text, 4));
  EXPECT_EQ(text, "kept");
}

TEST(BoundedQueue, WhatIsGivenBackLeavesOnceWithThoseWhoPut) {
  BoundedQueue<std::string> queue;
  for (const char* item : {"one", "two"}) queue.put(std::string(item), 1);
  std::vector<std::string> taken;
  ASSERT_TRUE(queue.take(taken, 8));
  queue.giveBack(taken);
  EXPECT_TRUE(taken.empty());
  std::set<std::string> left;
  for (const char* item : {"three", "four", "five"}) {
    std::string text = item;
    EXPECT_TRUE(queue.put(text, 1));
    left.insert(text);
  }
  EXPECT_EQ(left, (std::set<std::string>{"one", "two", ""}));
  ASSERT_TRUE(queue.take(taken, 8));
  EXPECT_EQ(taken, (std::vector<std::string>{"three", "four", "five"}));
}

// The bounds are so narrow that somebody waits for each item; a wake-up that goes astray stops all.
TEST(BoundedQueue, LosesNoItemAndNoWakeUpBetweenSeveralThatPutAndOneThatTakes) {
  constexpr int putters = 3;
  constexpr int each = 5000;
  for (const std::size_t bound : {1U, 2U, 5U}) {
    Queue queue({bound, 1000000});
    std::vector<std::thread> threads;
    for (int putter = 0; putter < putters; ++putter) {
      threads.emplace_back([&queue, putter] {
        for (int i = 0; i < each; ++i) queue.put(putter * each + i, 1);
      });
    }
    std::vector<Numbers> seen(putters);
    Numbers taken;
    for (int count = 0; count < putters * each; count += static_cast<int>(taken.size())) {
      ASSERT_TRUE(queue.take(taken, 3));
      ASSERT_LE(taken.size(), bound);
      for (const int number : taken)
        seen.at(static_cast<std::size_t>(number / each)).push_back(number);
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_TRUE(queue.isEmpty());
    for (int putter = 0; putter < putters; ++putter) {
      Numbers expected(each);
      std::iota(expected.begin(), expected.end(), putter * each);
      EXPECT_EQ(seen.at(static_cast<std::size_t>(putter)), expected);
    }
  }
}

}  // namespace
}  // namespace host
