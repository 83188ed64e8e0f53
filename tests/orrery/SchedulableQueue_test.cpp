#include "orrery/SchedulableQueue.hpp"

#include <thread>

#include <gtest/gtest.h>

namespace {

using orrery::SchedulableQueue;
using orrery::SchedulableQueueGuard;

class CountingQueue final : public SchedulableQueue {
 public:
  void entered() noexcept override {
    ++depth;
    currentOnEntry = current();
  }
  void left() noexcept override { --depth; }
  int depth = 0;
  SchedulableQueue* currentOnEntry = nullptr;
};

TEST(SchedulableQueue, ThereIsNoneOutsideEveryGuard) {
  EXPECT_EQ(SchedulableQueue::current(), nullptr);
}

TEST(SchedulableQueue, IsCurrentInsideItsGuardAndIsToldOfBothEnds) {
  CountingQueue queue;
  {
    const SchedulableQueueGuard guard(&queue);
    EXPECT_EQ(SchedulableQueue::current(), &queue);
    EXPECT_EQ(queue.depth, 1);
    EXPECT_EQ(queue.currentOnEntry, &queue);
  }
  EXPECT_EQ(SchedulableQueue::current(), nullptr);
  EXPECT_EQ(queue.depth, 0);
}

TEST(SchedulableQueue, GuardsNestAndGoBackOneByOne) {
  CountingQueue outer;
  CountingQueue inner;
  const SchedulableQueueGuard first(&outer);
  {
    const SchedulableQueueGuard second(&inner);
    const SchedulableQueueGuard third(&inner);
    EXPECT_EQ(inner.depth, 2);
    EXPECT_EQ(SchedulableQueue::current(), &inner);
  }
  EXPECT_EQ(inner.depth, 0);
  EXPECT_EQ(SchedulableQueue::current(), &outer);
}

TEST(SchedulableQueue, AGuardOfNothingLeavesEveryQueueForItsTime) {
  CountingQueue queue;
  const SchedulableQueueGuard outer(&queue);
  {
    const SchedulableQueueGuard none(nullptr);
    EXPECT_EQ(SchedulableQueue::current(), nullptr);
  }
  EXPECT_EQ(SchedulableQueue::current(), &queue);
  EXPECT_EQ(queue.depth, 1);
}

TEST(SchedulableQueue, BelongsToOneThread) {
  CountingQueue queue;
  const SchedulableQueueGuard guard(&queue);
  const SchedulableQueue* seen = &queue;
  std::thread([&] { seen = SchedulableQueue::current(); }).join();
  EXPECT_EQ(seen, nullptr);
}

}  // namespace
