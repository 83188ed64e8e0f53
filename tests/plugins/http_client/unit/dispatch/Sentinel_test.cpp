// The barrier's count and its flush object.
#include "plugins/http_client/dispatch/Sentinel.hpp"

#include <memory>
#include <thread>
#include <utility>

#include <gtest/gtest.h>

#include "tests/support/Event.hpp"
#include "tests/support/Messages.hpp"

namespace connectivity::plugins {
namespace {

using test_support::Event;

TEST(Sentinel, IsCompleteOnceEveryWorkerHasArrived) {
  Barriers barriers;
  Sentinel sentinel(barriers, 2, data_t());
  EXPECT_FALSE(sentinel.isComplete());
  sentinel.arrive();
  EXPECT_FALSE(sentinel.waitUntilComplete(1));
  sentinel.arrive();
  EXPECT_TRUE(sentinel.isComplete());
  EXPECT_TRUE(sentinel.waitUntilComplete(0));
}

TEST(Sentinel, IsCompleteAtOnceWithoutWorkers) {
  Barriers barriers;
  Sentinel sentinel(barriers, 0, data_t());
  EXPECT_TRUE(sentinel.waitUntilComplete(0));
}

TEST(Sentinel, WakesThoseWhoWaitWhenTheLastWorkerArrives) {
  Barriers barriers;
  Sentinel sentinel(barriers, 1, data_t());
  std::thread waiting([&] {
    while (!sentinel.waitUntilComplete(3'600'000)) {
    }
  });
  sentinel.arrive();
  waiting.join();
  EXPECT_TRUE(sentinel.isComplete());
}

TEST(Sentinel, IsOpenToWorkersOnceBarriersAreAbandonedAndNotComplete) {
  Barriers barriers;
  Sentinel sentinel(barriers, 2, data_t());
  sentinel.arrive();
  EXPECT_FALSE(sentinel.waitUntilOpen(1));
  barriers.abandon(true);
  EXPECT_TRUE(sentinel.waitUntilOpen(60'000));
  EXPECT_FALSE(sentinel.waitUntilComplete(1));
  barriers.abandon(false);
  EXPECT_FALSE(sentinel.waitUntilOpen(1));
  sentinel.arrive();
  EXPECT_TRUE(sentinel.waitUntilOpen(0));
}

// The wait has no end of its own that a test would live to see.
TEST(Sentinel, WakesWorkersWhenBarriersAreAbandoned) {
  Barriers barriers;
  Sentinel sentinel(barriers, 1, data_t());
  Event waits("the worker to be about to wait");
  std::thread worker([&] {
    waits.set();
    while (!sentinel.waitUntilOpen(3'600'000)) {
    }
  });
  waits.wait();
  barriers.abandon(true);
  worker.join();
  EXPECT_FALSE(sentinel.isComplete());
}

TEST(Sentinel, FreesTheFlushObjectWithItsLastHolder) {
  Barriers barriers;
  auto released = std::make_shared<Event>("the flush object to be freed");
  Message message = test_support::flushMessage(released);
  auto worker = std::make_shared<Sentinel>(
      barriers, 1, std::move(*message.metadata.findText("qor.controlObject")));
  auto otherWorker = worker;
  worker.reset();
  EXPECT_FALSE(released->isSet());
  otherWorker.reset();
  EXPECT_TRUE(released->isSet());
}

}  // namespace
}  // namespace connectivity::plugins
