#include "host/chain/Outstanding.hpp"

#include <thread>

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
