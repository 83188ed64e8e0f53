#include <algorithm>
#include <cmath>
#include <cstdint>
#include <random>
#include <vector>

#include <gtest/gtest.h>

#include "host/chain/LatencyHistogram.hpp"

namespace host {
namespace {

using std::chrono::nanoseconds;

TEST(LatencyHistogram, WithoutValuesHasQuantilesOfZero) {
  const LatencyHistogram histogram;
  EXPECT_EQ(histogram.count(), 0U);
  EXPECT_EQ(histogram.quantile(0.5), nanoseconds(0));
  EXPECT_EQ(histogram.max(), nanoseconds(0));
}

TEST(LatencyHistogram, KnowsSmallValuesExactly) {
  LatencyHistogram histogram;
  for (int i = 1; i <= 100; ++i) histogram.record(nanoseconds(i));
  EXPECT_EQ(histogram.quantile(0.5), nanoseconds(50));
  EXPECT_EQ(histogram.quantile(0.99), nanoseconds(99));
  EXPECT_EQ(histogram.quantile(1.0), nanoseconds(100));
}

TEST(LatencyHistogram, KnowsEveryValueToWithinTwoPercent) {
  for (std::uint64_t value = 1; value < (std::uint64_t{1} << 62); value += value / 50 + 1) {
    LatencyHistogram histogram;
    histogram.record(nanoseconds(static_cast<std::int64_t>(value)));
    // The larger value keeps the quantile from being cut to the maximum.
    histogram.record(nanoseconds::max());
    const auto found = static_cast<double>(histogram.quantile(0.5).count());
    ASSERT_NEAR(found, static_cast<double>(value), 0.02 * static_cast<double>(value));
  }
}

TEST(LatencyHistogram, FindsTheQuantilesOfManyValues) {
  std::mt19937_64 random(1);
  std::lognormal_distribution<double> distribution(14, 2);
  LatencyHistogram histogram;
  std::vector<std::int64_t> values;
  for (int i = 0; i < 100000; ++i) {
    values.push_back(std::llround(distribution(random)));
    histogram.record(nanoseconds(values.back()));
  }
  std::sort(values.begin(), values.end());
  for (const double fraction : {0.5, 0.9, 0.99, 0.999}) {
    const auto rank = static_cast<std::size_t>(std::ceil(fraction * 100000)) - 1;
    const auto exact = static_cast<double>(values[rank]);
    EXPECT_NEAR(static_cast<double>(histogram.quantile(fraction).count()), exact, 0.02 * exact);
  }
  EXPECT_EQ(histogram.max().count(), values.back());
}

TEST(LatencyHistogram, QuantilesNeverExceedTheLargestValue) {
  LatencyHistogram histogram;
  // The lowest value of its bucket.
  const nanoseconds value(std::int64_t{1} << 41);
  histogram.record(value);
  EXPECT_EQ(histogram.quantile(0.99), value);
}

TEST(LatencyHistogram, TakesTheWholeRange) {
  LatencyHistogram histogram;
  histogram.record(nanoseconds::max());
  histogram.record(nanoseconds(-5));
  EXPECT_EQ(histogram.quantile(0.5), nanoseconds(0));
  EXPECT_EQ(histogram.max(), nanoseconds::max());
}

TEST(LatencyHistogram, AddsAnother) {
  LatencyHistogram sum;
  sum.record(nanoseconds(10));
  LatencyHistogram other;
  other.record(nanoseconds(20));
  other.record(nanoseconds(30));
  sum.add(other);
  EXPECT_EQ(sum.count(), 3U);
  EXPECT_EQ(sum.quantile(0.5), nanoseconds(20));
  EXPECT_EQ(sum.max(), nanoseconds(30));
}

}  // namespace
}  // namespace host
