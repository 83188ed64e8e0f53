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
  Sentinel sentinel(2, data_t());
  EXPECT_FALSE(sentinel.isComplete());
  sentinel.arrive();
  EXPECT_FALSE(sentinel.waitUntilComplete(1));
  sentinel.arrive();
  EXPECT_TRUE(sentinel.isComplete());
  EXPECT_TRUE(sentinel.waitUntilComplete(0));
}

TEST(Sentinel, IsCompleteAtOnceWithoutWorkers) {
  Sentinel sentinel(0, data_t());
  EXPECT_TRUE(sentinel.waitUntilComplete(0));
}

TEST(Sentinel, WakesThoseWhoWaitWhenTheLastWorkerArrives) {
  Sentinel sentinel(1, data_t());
  std::thread waiting([&] {
    while (!sentinel.waitUntilComplete(60'000)) {
    }
  });
  sentinel.arrive();
  waiting.join();
  EXPECT_TRUE(sentinel.isComplete());
}

TEST(Sentinel, FreesTheFlushObjectWithItsLastHolder) {
  auto released = std::make_shared<Event>("the flush object to be freed");
  Message message = test_support::flushMessage(released);
  auto worker =
      std::make_shared<Sentinel>(1, std::move(*message.metadata.findText("qor.controlObject")));
  auto otherWorker = worker;
  worker.reset();
  EXPECT_FALSE(released->isSet());
  otherWorker.reset();
  EXPECT_TRUE(released->isSet());
}

}  // namespace
}  // namespace connectivity::plugins
