#include "host/chain/Outstanding.hpp"

#include <chrono>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

namespace host {
namespace {

TEST(Outstanding, IsNothingOnceTheInputHasEndedAndAllIsRemoved) {
  Outstanding outstanding;
  outstanding.add(3);
  std::thread waiter([&] { outstanding.waitUntilNone(); });
  outstanding.remove(2);
  EXPECT_EQ(outstanding.count(), 1U);
  outstanding.endOfInput();
  outstanding.remove(1);
  waiter.join();
}

TEST(Outstanding, KnowsWhenARequestWasHandedOver) {
  Outstanding outstanding;
  const auto now = Outstanding::TimePoint(std::chrono::seconds(5));
  const std::vector<std::uint64_t> keys{1, 2};
  outstanding.add(3, keys, now);
  EXPECT_EQ(outstanding.takeHandoverTime(2), now);
  EXPECT_FALSE(outstanding.takeHandoverTime(3));
  outstanding.withdraw(1);
  EXPECT_EQ(outstanding.count(), 2U);
  EXPECT_FALSE(outstanding.takeHandoverTime(1));
}

TEST(Outstanding, AbandonEndsEveryWait) {
  Outstanding outstanding;
  outstanding.add(100);
  std::thread none([&] { outstanding.waitUntilNone(); });
  std::thread level([&] { outstanding.waitUntilAtMost(10); });
  outstanding.abandon();
  none.join();
  level.join();
  outstanding.waitUntilAtMost(10);
}

TEST(Outstanding, WaitsUntilNoMoreThanSoManyAreLeft) {
  Outstanding outstanding;
  outstanding.add(100);
  std::thread waiter([&] {
    outstanding.waitUntilAtMost(10);
    EXPECT_LE(outstanding.count(), 10U);
  });
  for (int i = 0; i < 90; ++i) outstanding.remove(1);
  waiter.join();
  outstanding.waitUntilAtMost(10);
}

TEST(Outstanding, NeverCountsBelowNothing) {
  Outstanding outstanding;
  outstanding.add(1);
  outstanding.remove(5);
  outstanding.add(1);
  EXPECT_EQ(outstanding.count(), 1U);
}

}  // namespace
}  // namespace host
