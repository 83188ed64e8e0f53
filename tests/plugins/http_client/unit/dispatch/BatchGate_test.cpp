// Who is inside, and who waits for them.
#include "plugins/http_client/dispatch/BatchGate.hpp"

#include <atomic>
#include <optional>
#include <thread>

#include <gtest/gtest.h>

#include "tests/support/Event.hpp"

namespace connectivity::plugins {
namespace {

using test_support::Event;

TEST(BatchGate, LetsEverybodyInUntilItIsClosed) {
  BatchGate gate;
  const BatchGate::Pass first(gate);
  const BatchGate::Pass second(gate);
  EXPECT_TRUE(first);
  EXPECT_TRUE(second);
  EXPECT_FALSE(gate.closed());
}

TEST(BatchGate, LetsNobodyInOnceItIsClosed) {
  BatchGate gate;
  EXPECT_TRUE(gate.close());
  EXPECT_TRUE(gate.closed());
  EXPECT_FALSE(BatchGate::Pass(gate));
}

TEST(BatchGate, TellsWhetherItWasClosedAlready) {
  BatchGate gate;
  EXPECT_TRUE(gate.close());
  EXPECT_FALSE(gate.close());
}

TEST(BatchGate, IsEmptyAtOnceWhereNobodyIsInside) {
  BatchGate gate;
  { const BatchGate::Pass left(gate); }
  gate.close();
  { const BatchGate::Pass refused(gate); }  // never was inside, so it does not leave either
  gate.waitUntilEmpty();
}

TEST(BatchGate, IsWaitedForUntilTheLastHasLeft) {
  BatchGate gate;
  std::optional<BatchGate::Pass> first(gate);
  std::optional<BatchGate::Pass> second(gate);
  gate.close();
  Event waiting("the one who closed it to wait");
  std::atomic<bool> left{false};
  std::thread closing([&] {
    waiting.set();
    gate.waitUntilEmpty();
    EXPECT_TRUE(left) << "one was still inside";
  });
  waiting.wait();
  first.reset();
  left = true;
  second.reset();
  closing.join();
}

}  // namespace
}  // namespace connectivity::plugins
