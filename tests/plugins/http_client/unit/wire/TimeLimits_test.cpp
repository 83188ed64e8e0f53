#include "plugins/http_client/wire/TimeLimits.hpp"

#include <chrono>
#include <optional>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace connectivity::plugins {
namespace {

using namespace std::chrono_literals;
using Clock = TimeLimits::Clock;
using testing::ThrowsMessage;

// The end of a wait that begins now, and when that may be.
void expectTimeout(const TimeLimits& limits, std::chrono::milliseconds timeout) {
  const auto before = Clock::now();
  const auto end = limits.endOfWait();
  const auto after = Clock::now();
  EXPECT_GE(end, before + timeout);
  EXPECT_LE(end, after + timeout);
}

TEST(TimeLimits, WithoutADeadlineAWaitEndsAfterTheTimeout) {
  const TimeLimits limits(90s);
  EXPECT_EQ(limits.timeout(), 90s);
  EXPECT_FALSE(limits.hasDeadline());
  expectTimeout(limits, 90s);
  EXPECT_NO_THROW(limits.check());
}

TEST(TimeLimits, WaitEndsAtTheDeadlineWhereThatComesFirst) {
  TimeLimits limits(90s);
  for (const auto deadline : {Clock::now() + 30s, Clock::now() - 1ms, Clock::now() - 1h}) {
    limits.setDeadline(deadline);
    EXPECT_TRUE(limits.hasDeadline());
    EXPECT_EQ(limits.endOfWait(), deadline);
  }
}

TEST(TimeLimits, WaitEndsAfterTheTimeoutWhereTheDeadlineComesLater) {
  TimeLimits limits(90s);
  limits.setDeadline(Clock::now() + 1h);
  expectTimeout(limits, 90s);
  limits.setDeadline(Clock::time_point::max());
  expectTimeout(limits, 90s);
}

TEST(TimeLimits, DeadlineThatHasPassedIsExceeded) {
  TimeLimits limits(90s);
  limits.setDeadline(Clock::now());
  EXPECT_THAT([&] { limits.check(); }, ThrowsMessage<DeadlineExceeded>("Deadline exceeded"));
  limits.setDeadline(Clock::now() - 1h);
  EXPECT_THAT([&] { limits.check(); }, ThrowsMessage<DeadlineExceeded>("Deadline exceeded"));
}

TEST(TimeLimits, DeadlineToComeIsNotExceeded) {
  TimeLimits limits(0ms);
  limits.setDeadline(Clock::now() + 1h);
  EXPECT_NO_THROW(limits.check());
}

TEST(TimeLimits, DeadlineCanBeTakenBack) {
  TimeLimits limits(90s);
  limits.setDeadline(Clock::now() - 1h);
  limits.setDeadline(std::nullopt);
  EXPECT_FALSE(limits.hasDeadline());
  EXPECT_NO_THROW(limits.check());
  expectTimeout(limits, 90s);
}

// --- For a while --------------------------------------------------------------------------------

TEST(ShortenedTimeLimits, EndSoonerForItsLifetime) {
  TimeLimits limits(90s);
  {
    const auto before = Clock::now();
    const TimeLimits::Shortened shortened(limits, 10s);
    EXPECT_TRUE(limits.hasDeadline());
    EXPECT_GE(limits.endOfWait(), before + 10s);
    EXPECT_LE(limits.endOfWait(), Clock::now() + 10s);
  }
  EXPECT_FALSE(limits.hasDeadline());
  expectTimeout(limits, 90s);
}

TEST(ShortenedTimeLimits, ComeBeforeALaterDeadlineAndGiveItBack) {
  TimeLimits limits(90s);
  const auto deadline = Clock::now() + 60s;
  limits.setDeadline(deadline);
  {
    const TimeLimits::Shortened shortened(limits, 10s);
    EXPECT_LE(limits.endOfWait(), Clock::now() + 10s);
  }
  EXPECT_EQ(limits.endOfWait(), deadline);
}

TEST(ShortenedTimeLimits, KeepADeadlineThatComesSooner) {
  TimeLimits limits(90s);
  const auto deadline = Clock::now() + 5s;
  limits.setDeadline(deadline);
  {
    const TimeLimits::Shortened shortened(limits, 1h);
    EXPECT_EQ(limits.endOfWait(), deadline);
  }
  EXPECT_EQ(limits.endOfWait(), deadline);
}

TEST(ShortenedTimeLimits, AreExceededWhenTheirTimeIsUp) {
  TimeLimits limits(90s);
  {
    const TimeLimits::Shortened shortened(limits, 0ms);
    EXPECT_THROW(limits.check(), DeadlineExceeded);
  }
  EXPECT_NO_THROW(limits.check());
}

}  // namespace
}  // namespace connectivity::plugins
