#include "orrery/Platform.hpp"

#include <ctime>

#include <gtest/gtest.h>

namespace {

using orrery::Platform;

class StandingClock final : public orrery::Clock {
 public:
  double relativeHighResTimeFloat() const noexcept override { return 12.5; }
  std::int64_t sysTime() const noexcept override { return 34; }
};

TEST(Platform, TheMonotonicClockNeverGoesBack) {
  double last = Platform::relativeHighResTimeFloat();
  for (int i = 0; i < 10'000; ++i) {
    const double now = Platform::relativeHighResTimeFloat();
    ASSERT_GE(now, last);
    last = now;
  }
}

TEST(Platform, SysTimeIsMillisecondsSinceTheEpoch) {
  const std::int64_t before = std::int64_t{std::time(nullptr)} * 1000;
  const std::int64_t now = Platform::sysTime();
  const std::int64_t after = (std::int64_t{std::time(nullptr)} + 1) * 1000;
  // time() may lag behind by one tick of the kernel's coarse clock.
  EXPECT_GE(now, before);
  EXPECT_LE(now, after + 1000);
}

TEST(Platform, AReplacedClockTellsTheTimeUntilItIsTakenBack) {
  const StandingClock standing;
  EXPECT_EQ(Platform::replaceClock(&standing), nullptr);
  EXPECT_EQ(Platform::relativeHighResTimeFloat(), 12.5);
  EXPECT_EQ(Platform::sysTime(), 34);
  EXPECT_EQ(Platform::replaceClock(nullptr), &standing);
  EXPECT_NE(Platform::sysTime(), 34);
}

}  // namespace
