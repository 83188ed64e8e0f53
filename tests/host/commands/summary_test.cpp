#include "host/commands/Summary.hpp"

#include <chrono>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace host {
namespace {

using std::chrono::milliseconds;
using testing::ElementsAre;

ChainSummary chain(const std::string& id) {
  ChainSummary summary{id, "shop", {}, {}};
  summary.counts.sent = 5;
  summary.counts.answered = 4;
  summary.counts.failed = 2;
  summary.counts.invalid = 1;
  summary.statistics.answers = {1, 1, 1, 1, 0};
  summary.statistics.withoutResponse = 1;
  summary.statistics.requestBytes = 52000;
  summary.statistics.responseBytes = 100;
  summary.statistics.duration = milliseconds(2500);
  for (int i = 1; i <= 4; ++i)
    summary.statistics.latencies.record(std::chrono::nanoseconds(i * 16));
  return summary;
}

TEST(Summary, TellsCountsBytesAndTimesInLines) {
  EXPECT_THAT(summaryLines(chain("a")),
              ElementsAre("sent 5, answered 4, failed 2, dropped 1, invalid lines 1",
                          "2xx 1, 3xx 1, 4xx 1, 5xx 1, other 0; without a response 1",
                          "bytes: 52000 in requests, 100 in responses",
                          "2.5 s, 1.6 answers/s; hand-over to answer: p50 3.2e-05 ms, "
                          "p90 6.4e-05 ms, p99 6.4e-05 ms, max 6.4e-05 ms"));
}

TEST(Summary, TellsNoLatenciesWhereNothingWasAnswered) {
  ChainSummary none = chain("a");
  none.statistics.latencies = LatencyHistogram();
  none.statistics.duration = milliseconds(1234);
  EXPECT_EQ(summaryLines(none).back(), "1.23 s");
}

TEST(Summary, IsOneLineOfJsonWithChainsAndTotal) {
  const std::string numbers =
      R"("answered":4,"answersByStatus":{"2xx":1,"3xx":1,"4xx":1,"5xx":1,"other":0},)"
      R"("answersPerSecond":1.6,"dropped":1,"durationSeconds":2.5,"failed":2,)";
  const std::string rest =
      R"("invalidLines":1,"latencyMillis":{"max":6.4e-05,"p50":3.2e-05,"p90":6.4e-05,)"
      R"("p99":6.4e-05},)";
  const std::string bytes =
      R"("requestBytes":52000,"responseBytes":100,"sent":5,"withoutResponse":1})";
  EXPECT_EQ(summaryJson({chain("a")}), R"({"summary":{"chains":[{)" + numbers + R"("id":"a",)" +
                                           rest + R"("name":"shop",)" + bytes + R"(],"total":{)" +
                                           numbers + rest + bytes + "}}");
}

TEST(Summary, HasNullForLatenciesThatWereNotMeasured) {
  ChainSummary none = chain("a");
  none.statistics.latencies = LatencyHistogram();
  EXPECT_THAT(summaryJson({none}), testing::HasSubstr("\"latencyMillis\":null"));
}

TEST(Summary, TotalAddsTheChainsUpAndTakesTheLongestTime) {
  ChainSummary longer = chain("b");
  longer.statistics.duration = milliseconds(4000);
  const ChainSummary total = totalOf({chain("a"), longer});
  EXPECT_EQ(total.counts.sent, 10U);
  EXPECT_EQ(total.counts.dropped(), 2U);
  EXPECT_EQ(total.statistics.requestBytes, 104000U);
  EXPECT_EQ(total.statistics.latencies.count(), 8U);
  EXPECT_EQ(total.statistics.duration, milliseconds(4000));
}

}  // namespace
}  // namespace host
