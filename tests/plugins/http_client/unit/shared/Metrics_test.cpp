// What each status item shows after which samples.
#include "plugins/http_client/shared/Metrics.hpp"

#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/FakeClock.hpp"
#include "tests/support/ServiceDoubles.hpp"

namespace connectivity::plugins {
namespace {

using test_support::FakeClock;
using test_support::StatusDouble;

class MetricsTest : public testing::Test {
 protected:
  static std::unique_ptr<Metrics> make(StatusReporter& reporter, std::uint32_t workers) {
    return std::make_unique<Metrics>(reporter, "name.chain", workers);
  }
  std::string item(const std::string& name) const {
    return status.text("name.chain." + name).value_or("(absent)");
  }
  std::vector<std::string> history(const std::string& name) const {
    return status.history("name.chain." + name);
  }

  FakeClock clock;
  StatusDouble status;
  StatusReporter reporter{status.handle()};
  std::unique_ptr<Metrics> metrics = make(reporter, 2);
};

TEST_F(MetricsTest, CreatesSixteenItemsWithTheirInitialTexts) {
  EXPECT_EQ(status.items().size(), 16U);
  EXPECT_EQ(item("status"), "STARTING");
  for (const char* name :
       {"errorsTowardsHost", "responsesTowardsHost", "requestLatencyEWMAShortMillis",
        "requestLatencyEWMALongMillis", "requestSizeEWMAShortBytes", "requestSizeEWMALongBytes",
        "responseSizeEWMAShortBytes", "responseSizeEWMALongBytes", "requestSizeMaxInLastHourBytes",
        "responseSizeMaxInLastHourBytes", "serializedRequests", "queueSize"}) {
    EXPECT_EQ(item(name), "0") << name;
  }
  EXPECT_EQ(item("numClients"), "2");
  EXPECT_EQ(item("concurrencyUtilizationPercent"), "100");
}

// Where one is refused, those before it in the order have been made, and none behind it.
TEST_F(MetricsTest, CreatesItsItemsInTheirOrder) {
  const std::vector<std::string> order = {".status",
                                          ".errorsTowardsHost",
                                          ".responsesTowardsHost",
                                          ".requestLatencyEWMAShortMillis",
                                          ".requestLatencyEWMALongMillis",
                                          ".requestSizeEWMAShortBytes",
                                          ".requestSizeEWMALongBytes",
                                          ".responseSizeEWMAShortBytes",
                                          ".responseSizeEWMALongBytes",
                                          ".requestSizeMaxInLastHourBytes",
                                          ".responseSizeMaxInLastHourBytes",
                                          ".numClients",
                                          ".serializedRequests",
                                          ".concurrencyUtilizationPercent",
                                          ".queueSize",
                                          ".KPIs"};
  for (std::size_t refused = 0; refused < order.size(); ++refused) {
    StatusDouble refusing;
    refusing.refuse(order[refused]);
    StatusReporter itsReporter(refusing.handle());
    EXPECT_THROW(make(itsReporter, 2), std::runtime_error);
    for (std::size_t at = 0; at < order.size(); ++at) {
      EXPECT_EQ(refusing.history("name.chain" + order[at]).size(), at < refused ? 1U : 0U)
          << order[at] << " where " << order[refused] << " is refused";
    }
  }
}

TEST_F(MetricsTest, ListsTheFullKeysOfItsPerformanceIndicators) {
  EXPECT_EQ(item("KPIs"),
            "name.chain.requestLatencyEWMAShortMillis,name.chain.requestLatencyEWMALongMillis,"
            "name.chain.requestSizeEWMAShortBytes,name.chain.requestSizeEWMALongBytes,"
            "name.chain.responseSizeEWMAShortBytes,name.chain.responseSizeEWMALongBytes,"
            "name.chain.requestSizeMaxInLastHourBytes,name.chain.responseSizeMaxInLastHourBytes,"
            "name.chain.concurrencyUtilizationPercent,name.chain.queueSize");
}

TEST_F(MetricsTest, RemovesItsItems) {
  metrics.reset();
  EXPECT_TRUE(status.items().empty());
}

TEST_F(MetricsTest, FailsWhereAnItemIsRefusedAndLeavesNoneBehind) {
  metrics.reset();
  status.refuse(".queueSize");
  EXPECT_THROW(make(reporter, 2), std::runtime_error);
  EXPECT_TRUE(status.items().empty());
}

TEST_F(MetricsTest, AveragesRequestSizes) {
  metrics->updateRequestMetrics(500);
  EXPECT_EQ(item("requestSizeEWMAShortBytes"), "500");
  EXPECT_EQ(item("requestSizeEWMALongBytes"), "500");
  metrics->updateRequestMetrics(1500);
  EXPECT_EQ(item("requestSizeEWMAShortBytes"), "1000");
  EXPECT_EQ(item("requestSizeEWMALongBytes"), "600");
}

// An average of exactly 0 takes the next sample as it is, also after a sample of 0.
TEST_F(MetricsTest, SeedsAnAverageAfreshAfterSamplesOfZero) {
  metrics->updateRequestMetrics(0);
  EXPECT_EQ(item("requestSizeEWMALongBytes"), "0");
  metrics->updateRequestMetrics(800);
  EXPECT_EQ(item("requestSizeEWMAShortBytes"), "800");
  EXPECT_EQ(item("requestSizeEWMALongBytes"), "800");
}

TEST_F(MetricsTest, AveragesLatenciesInWholeMilliseconds) {
  metrics->updateResponseMetrics(0.0125, 404, 0);
  EXPECT_EQ(item("requestLatencyEWMAShortMillis"), "12");
  EXPECT_EQ(item("requestLatencyEWMALongMillis"), "12");
  metrics->updateResponseMetrics(0.1125, 200, 0);
  EXPECT_EQ(item("requestLatencyEWMAShortMillis"), "62");
  EXPECT_EQ(item("requestLatencyEWMALongMillis"), "22");
}

TEST_F(MetricsTest, AveragesTheSizesOfSuccessfulResponses) {
  metrics->updateResponseMetrics(1, 200, 500);
  metrics->updateResponseMetrics(1, 299, 1500);
  EXPECT_EQ(item("responseSizeEWMAShortBytes"), "1000");
  EXPECT_EQ(item("responseSizeEWMALongBytes"), "600");
  EXPECT_EQ(item("responseSizeMaxInLastHourBytes"), "1500");
}

TEST_F(MetricsTest, CountsOnlyTheLatencyOfOtherResponses) {
  for (const int code : {100, 199, 300, 404, 500}) metrics->updateResponseMetrics(2, code, 900);
  EXPECT_EQ(item("responseSizeEWMAShortBytes"), "0");
  EXPECT_EQ(item("responseSizeEWMALongBytes"), "0");
  EXPECT_EQ(item("responseSizeMaxInLastHourBytes"), "0");
  EXPECT_EQ(item("requestLatencyEWMAShortMillis"), "2000");
}

TEST_F(MetricsTest, SetsItsItemsInTheirOrder) {
  metrics->updateRequestMetrics(500);
  metrics->updateResponseMetrics(1, 200, 700);
  std::vector<std::string> keys;
  for (const auto& [key, text] : status.changes()) keys.push_back(key);
  EXPECT_EQ(
      keys,
      (std::vector<std::string>{
          "name.chain.requestSizeEWMAShortBytes", "name.chain.requestSizeEWMALongBytes",
          "name.chain.requestSizeMaxInLastHourBytes", "name.chain.requestLatencyEWMALongMillis",
          "name.chain.requestLatencyEWMAShortMillis", "name.chain.responseSizeEWMAShortBytes",
          "name.chain.responseSizeEWMALongBytes", "name.chain.responseSizeMaxInLastHourBytes"}));
}

TEST_F(MetricsTest, KeepsTheLargestRequestForAnHour) {
  metrics->updateRequestMetrics(700);
  clock.advance(3600);
  metrics->updateRequestMetrics(10);
  EXPECT_EQ(item("requestSizeMaxInLastHourBytes"), "700");
  clock.advance(0.001);
  metrics->updateRequestMetrics(9);
  EXPECT_EQ(item("requestSizeMaxInLastHourBytes"), "9");
}

TEST_F(MetricsTest, ReplacesALargeResponseByATinyOneAfterAnHourAndASecond) {
  metrics->updateResponseMetrics(1, 200, 10'000);
  EXPECT_EQ(item("responseSizeMaxInLastHourBytes"), "10000");
  clock.advance(3601);
  metrics->updateResponseMetrics(1, 200, 1);
  EXPECT_EQ(item("responseSizeMaxInLastHourBytes"), "1");
}

TEST_F(MetricsTest, DoesNotRenewAMaximumForASampleThatEqualsIt) {
  metrics->updateRequestMetrics(700);
  clock.advance(3000);
  metrics->updateRequestMetrics(700);
  clock.advance(601);
  metrics->updateRequestMetrics(5);
  EXPECT_EQ(item("requestSizeMaxInLastHourBytes"), "5");
}

TEST_F(MetricsTest, RenewsTheHourWithALargerSample) {
  metrics->updateRequestMetrics(700);
  clock.advance(3000);
  metrics->updateRequestMetrics(701);
  clock.advance(601);
  metrics->updateRequestMetrics(5);
  EXPECT_EQ(item("requestSizeMaxInLastHourBytes"), "701");
}

TEST_F(MetricsTest, CountsSuccessesAndErrors) {
  for (const int code : {200, 399, 304}) metrics->countResponse(code);
  for (const int code : {199, 400, 500, 413}) metrics->countResponse(code);
  EXPECT_EQ(item("responsesTowardsHost"), "3");
  EXPECT_EQ(item("errorsTowardsHost"), "4");
}

TEST_F(MetricsTest, CountsSerializedRequests) {
  metrics->countSerializedRequest();
  metrics->countSerializedRequest();
  EXPECT_EQ(history("serializedRequests"), (std::vector<std::string>{"0", "1", "2"}));
}

TEST_F(MetricsTest, ShowsTheQueueSizeAndTellsTheHostOnlyOfChanges) {
  metrics->setQueueSize(3);
  metrics->setQueueSize(3);
  metrics->setQueueSize(0);
  EXPECT_EQ(history("queueSize"), (std::vector<std::string>{"0", "3", "0"}));
}

TEST_F(MetricsTest, ShowsTheTransportsStatus) {
  metrics->updateTransportStatus("ONLINE");
  EXPECT_EQ(item("status"), "ONLINE");
  metrics->updateTransportStatus("FAILED");
  EXPECT_EQ(item("status"), "FAILED");
}

TEST_F(MetricsTest, RefusesANullStatus) {
  try {
    metrics->updateTransportStatus(nullptr);
    FAIL();
  } catch (const std::logic_error& error) {
    EXPECT_STREQ(error.what(), "basic_string::_M_construct null not valid");
  }
}

TEST_F(MetricsTest, ShowsHowEvenlyTheWorkersAreBusy) {
  metrics->addBusyTime(0, 0.030);
  metrics->addBusyTime(1, 0.010);
  metrics->updateConcurrencyUtilizationStatus();
  EXPECT_EQ(item("concurrencyUtilizationPercent"), "50");
}

// The total is read at another moment than its parts. Here it has wrapped, and is less than they
// are.
TEST_F(MetricsTest, ShowsNoUtilisationBelowZeroWhereTheTotalIsLessThanItsParts) {
  metrics->addBusyTime(0, 1.8e16);
  metrics->addBusyTime(1, 1.8e16);
  metrics->updateConcurrencyUtilizationStatus();
  EXPECT_EQ(item("concurrencyUtilizationPercent"), "0");
}

TEST_F(MetricsTest, ShowsAHundredForEvenWorkAndNoneForOneWorkerAlone) {
  metrics->addBusyTime(1, 0.010);
  metrics->updateConcurrencyUtilizationStatus();
  EXPECT_EQ(item("concurrencyUtilizationPercent"), "0");
  metrics->addBusyTime(0, 0.010);
  metrics->updateConcurrencyUtilizationStatus();
  EXPECT_EQ(item("concurrencyUtilizationPercent"), "100");
}

TEST_F(MetricsTest, RoundsHalfAPercentUp) {
  metrics->addBusyTime(0, 0.375);
  metrics->addBusyTime(1, 0.025);  // 12.5 percent
  metrics->updateConcurrencyUtilizationStatus();
  EXPECT_EQ(item("concurrencyUtilizationPercent"), "13");
}

TEST_F(MetricsTest, LeavesTheUtilisationAloneBeforeAnyWork) {
  metrics->updateConcurrencyUtilizationStatus();
  EXPECT_EQ(history("concurrencyUtilizationPercent"), (std::vector<std::string>{"100"}));
}

TEST_F(MetricsTest, RoundsBusyTimeUpToWholeMilliseconds) {
  metrics->addBusyTime(0, 0.0002);  // 1 ms
  metrics->addBusyTime(1, 0.003);   // 3 ms
  metrics->updateConcurrencyUtilizationStatus();
  EXPECT_EQ(item("concurrencyUtilizationPercent"), "50");
}

TEST_F(MetricsTest, NeverShowsTheUtilisationOfOneWorker) {
  metrics.reset();
  metrics = make(reporter, 1);
  metrics->addBusyTime(0, 1);
  metrics->updateConcurrencyUtilizationStatus();
  EXPECT_EQ(item("concurrencyUtilizationPercent"), "100");
  EXPECT_EQ(item("numClients"), "1");
}

}  // namespace
}  // namespace connectivity::plugins
