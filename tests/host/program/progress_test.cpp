#include "host/program/Progress.hpp"

#include <chrono>

#include <gtest/gtest.h>

namespace host {
namespace {

using std::chrono::seconds;

ChainCounts counts(std::uint64_t sent, std::uint64_t answered, std::uint64_t failed) {
  ChainCounts counts;
  counts.sent = sent;
  counts.answered = answered;
  counts.failed = failed;
  return counts;
}

TEST(Progress, ShowsSentAnsweredFailedAndRate) {
  EXPECT_EQ(progressLine({counts(1200, 1000, 2)}, seconds(2)),
            "sent 1200, answered 1000, failed 2, 500/s");
}

TEST(Progress, ShowsTheTimeLeftWhereTheSizeIsKnown) {
  ChainCounts half = counts(10, 10, 0);
  half.bytesRead = 50;
  half.bytesInAll = 100;
  EXPECT_EQ(progressLine({half}, seconds(10)), "sent 10, answered 10, failed 0, 1/s, 10 s left");
  EXPECT_EQ(progressLine({half}, seconds(100)),
            "sent 10, answered 10, failed 0, 0/s, 1 min 40 s left");
  EXPECT_EQ(progressLine({half}, seconds(3660)),
            "sent 10, answered 10, failed 0, 0/s, 1 h 1 min left");
}

TEST(Progress, ShowsNoTimeLeftWhereOneOfSeveralInputsHasNoSize) {
  ChainCounts known = counts(1, 1, 0);
  known.bytesRead = 50;
  known.bytesInAll = 100;
  EXPECT_EQ(progressLine({known, counts(2, 2, 1)}, seconds(1)),
            "sent 3, answered 3, failed 1, 3/s");
}

TEST(Progress, ShowsNoRateBeforeTheFirstInstant) {
  EXPECT_EQ(progressLine({counts(1, 1, 0)}, seconds(0)), "sent 1, answered 1, failed 0, 0/s");
}

TEST(Progress, DescribesCountsWithWhatWasDropped) {
  ChainCounts run = counts(5, 3, 1);
  run.invalid = 4;
  EXPECT_EQ(describe(run), "sent 5, answered 3, failed 1, dropped 2, invalid lines 4");
}

TEST(Progress, CountsAsDroppedWhatWasReadAndNotSent) {
  ChainCounts one = counts(5, 3, 1);
  one.notSent = 4;
  EXPECT_EQ(sumOf({one, one}).dropped(), 12U);
}

}  // namespace
}  // namespace host
