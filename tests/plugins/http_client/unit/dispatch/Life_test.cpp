// The states, who is inside, and who waits for them.
#include "plugins/http_client/dispatch/Life.hpp"

#include <atomic>
#include <chrono>
#include <optional>
#include <thread>

#include <gtest/gtest.h>

#include "tests/support/Event.hpp"

namespace connectivity::plugins {
namespace {

using test_support::Event;
using Call = Life::Call;
using State = Life::State;
constexpr Call::Kind batch = Call::Kind::Batch;
constexpr Call::Kind other = Call::Kind::Other;

TEST(Life, GoesFromMadeToStopped) {
  Life life;
  EXPECT_EQ(life.state(), State::Made);
  EXPECT_TRUE(life.run());
  EXPECT_EQ(life.state(), State::Running);
  EXPECT_TRUE(life.run());
  EXPECT_FALSE(life.isStopping());
  EXPECT_TRUE(life.stop());
  EXPECT_EQ(life.state(), State::Stopping);
  EXPECT_TRUE(life.isStopping());
  life.stopped();
  EXPECT_EQ(life.state(), State::Stopped);
  EXPECT_TRUE(life.isStopping());
}

TEST(Life, NeverRunsAgainOnceItStops) {
  Life life;
  EXPECT_TRUE(life.stop());
  EXPECT_FALSE(life.run());
  EXPECT_FALSE(life.stop());
  EXPECT_EQ(life.state(), State::Stopping);
  life.stopped();
  EXPECT_FALSE(life.run());
  EXPECT_FALSE(life.stop());
  EXPECT_EQ(life.state(), State::Stopped);
}

TEST(Life, KnowsACallFromInsideAnotherOfTheSameThread) {
  Life life;
  const Call outer(life, batch);
  EXPECT_FALSE(outer.isNested());
  {
    const Call inner(life, other);
    EXPECT_TRUE(inner.isNested());
  }
  std::thread([&] { EXPECT_FALSE(Call(life, other).isNested()); }).join();
  EXPECT_TRUE(Call(life, batch).isNested());
}

TEST(Life, TakesNoCallForNestedInOneThatHasLeftOrInAnotherTransports) {
  Life life;
  Life another;
  const Call elsewhere(another, batch);
  { const Call left(life, batch); }
  EXPECT_FALSE(Call(life, other).isNested());
}

TEST(Life, WaitsForTheLastBatch) {
  Life life;
  std::optional<Call> first(std::in_place, life, batch);
  std::optional<Call> second(std::in_place, life, batch);
  life.stop();
  Event waiting("the one who stops to wait");
  std::atomic<bool> left{false};
  std::thread stopping([&] {
    const Call own(life, other);
    waiting.set();
    life.waitForBatches();
    EXPECT_TRUE(left) << "one was still inside";
  });
  waiting.wait();
  second.reset();
  left = true;
  first.reset();
  stopping.join();
}

// Batches that come all the time would keep a shutdown from its end.
TEST(Life, WaitsForNoBatchThatCameTooLateAndForNoOtherCall) {
  Life life;
  const Call control(life, other);
  life.stop();
  const Call late(life, batch);
  life.waitForBatches();
}

TEST(Life, WaitsUntilItIsAloneForEveryCall) {
  for (const Call::Kind kind : {batch, other}) {
    Life life;
    std::optional<Call> before(std::in_place, life, kind);
    std::optional<Call> after;
    Event inside("the one who ends it to be inside");
    Event both("another to be inside");
    Event alone("the one who ends it to be alone");
    std::thread ending([&] {
      const Call own(life, other);
      life.stop();
      inside.set();
      both.wait();
      life.waitUntilAlone(own);
      alone.set();
    });
    inside.wait();
    after.emplace(life, kind);
    both.set();
    before.reset();
    // So that it waits, and is woken.
    EXPECT_FALSE(alone.isSetWithin(std::chrono::milliseconds(50))) << "one was still inside";
    after.reset();
    ending.join();
  }
}

TEST(Life, IsAloneAtOnce) {
  Life life;
  const Call own(life, other);
  life.stop();
  life.waitUntilAlone(own);
}

}  // namespace
}  // namespace connectivity::plugins
