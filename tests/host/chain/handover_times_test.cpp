#include <gtest/gtest.h>

#include "host/chain/HandoverTimes.hpp"

namespace host {
namespace {

HandoverTimes::TimePoint at(int seconds) {
  return HandoverTimes::TimePoint(std::chrono::seconds(seconds));
}

TEST(HandoverTimes, AreTakenByTheirKeyInAnyOrder) {
  HandoverTimes times;
  for (int i = 0; i < 100; ++i) times.add(static_cast<std::uint64_t>(i), at(i));
  for (int i = 99; i >= 0; --i) EXPECT_EQ(times.take(static_cast<std::uint64_t>(i)), at(i));
}

TEST(HandoverTimes, OfEqualKeysTheFirstThatCameIsTakenFirst) {
  HandoverTimes times;
  times.add(7, at(1));
  times.add(7, at(2));
  EXPECT_EQ(times.take(7), at(1));
  times.add(7, at(3));
  EXPECT_EQ(times.take(7), at(2));
  EXPECT_EQ(times.take(7), at(3));
}

TEST(HandoverTimes, AreTakenOnce) {
  HandoverTimes times;
  EXPECT_FALSE(times.take(1));
  times.add(1, at(1));
  EXPECT_TRUE(times.take(1));
  EXPECT_FALSE(times.take(1));
}

TEST(HandoverTimes, KeysOfOneBucketAreToldApart) {
  constexpr std::uint64_t step = std::uint64_t{1} << 32;
  HandoverTimes times;
  for (int i = 0; i < 5; ++i) times.add(static_cast<std::uint64_t>(i) * step, at(i));
  for (const int i : {2, 4, 0, 1, 3}) {
    EXPECT_EQ(times.take(static_cast<std::uint64_t>(i) * step), at(i));
  }
  times.add(step, at(9));
  EXPECT_EQ(times.take(step), at(9));
}

TEST(HandoverTimes, BeyondTheirCapacityAreLeftOut) {
  HandoverTimes times;
  for (std::uint64_t i = 0; i <= HandoverTimes::capacity; ++i) times.add(i, at(1));
  EXPECT_FALSE(times.take(HandoverTimes::capacity));
  EXPECT_TRUE(times.take(0));
  times.add(HandoverTimes::capacity, at(2));
  EXPECT_EQ(times.take(HandoverTimes::capacity), at(2));
}

}  // namespace
}  // namespace host
