#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "host/status/MetricsText.hpp"

namespace host {
namespace {

using testing::HasSubstr;
using testing::Not;

TEST(MetricsText, TypesCountersAsCountersAndAllElseThatIsKnownAsGauges) {
  EXPECT_EQ(statusAsMetrics({{"shop.orders.errorsTowardsHost", "2"},
                             {"shop.orders.responsesTowardsHost", "9223372036854775807"},
                             {"shop.orders.serializedRequests", "0"},
                             {"shop.orders.queueSize", "3"},
                             {"shop.returns.queueSize", "-1"}}),
            "# HELP orrery_errors_towards_host_total Answers with a status outside 200 to 399.\n"
            "# TYPE orrery_errors_towards_host_total counter\n"
            "orrery_errors_towards_host_total{transport=\"shop.orders\"} 2\n"
            "# HELP orrery_queue_size Length of the queue.\n"
            "# TYPE orrery_queue_size gauge\n"
            "orrery_queue_size{transport=\"shop.orders\"} 3\n"
            "orrery_queue_size{transport=\"shop.returns\"} -1\n"
            "# HELP orrery_responses_towards_host_total Answers with a status of 200 to 399.\n"
            "# TYPE orrery_responses_towards_host_total counter\n"
            "orrery_responses_towards_host_total{transport=\"shop.orders\"} 9223372036854775807\n"
            "# HELP orrery_serialized_requests_total Requests that waited for all before them.\n"
            "# TYPE orrery_serialized_requests_total counter\n"
            "orrery_serialized_requests_total{transport=\"shop.orders\"} 0\n");
}

TEST(MetricsText, WritesBaseUnits) {
  const std::string text = statusAsMetrics({{"a.b.requestLatencyEWMAShortMillis", "1234"},
                                            {"a.b.requestLatencyEWMALongMillis", "7"},
                                            {"a.b.concurrencyUtilizationPercent", "7"},
                                            {"a.b.requestSizeEWMAShortBytes", "512"}});
  EXPECT_THAT(text, HasSubstr("\norrery_request_latency_ewma_short_seconds{transport=\"a.b\"} "
                              "1.234\n"));
  EXPECT_THAT(text, HasSubstr("\norrery_request_latency_ewma_long_seconds{transport=\"a.b\"} "
                              "0.007\n"));
  EXPECT_THAT(text, HasSubstr("\norrery_concurrency_utilization_ratio{transport=\"a.b\"} 0.07\n"));
  EXPECT_THAT(text, HasSubstr("\norrery_request_size_ewma_short_bytes{transport=\"a.b\"} 512\n"));
}

TEST(MetricsText, TellsByUpWhetherATransportIsOnline) {
  EXPECT_EQ(statusAsMetrics({{"a.1.status", "ONLINE"},
                             {"a.2.status", "FAILED"},
                             {"a.3.status", "STARTING"},
                             {"a.4.status", "1"}}),
            "# HELP orrery_up Whether the transport is ONLINE.\n"
            "# TYPE orrery_up gauge\n"
            "orrery_up{transport=\"a.1\"} 1\n"
            "orrery_up{transport=\"a.2\"} 0\n"
            "orrery_up{transport=\"a.3\"} 0\n"
            "orrery_up{transport=\"a.4\"} 0\n");
}

TEST(MetricsText, WritesNumbersThatItDoesNotKnowUntypedAndAsTheyStand) {
  EXPECT_EQ(statusAsMetrics({{"a.b.cacheHitsOfLRU", "7"}, {"a.b.odd-name", "2.5e3"}}),
            "# HELP orrery_cache_hits_of_lru A status item that the host knows by its name only.\n"
            "# TYPE orrery_cache_hits_of_lru untyped\n"
            "orrery_cache_hits_of_lru{transport=\"a.b\"} 7\n"
            "# HELP orrery_odd_name A status item that the host knows by its name only.\n"
            "# TYPE orrery_odd_name untyped\n"
            "orrery_odd_name{transport=\"a.b\"} 2.5e3\n");
}

TEST(MetricsText, LeavesOutWhatIsNoNumberAndWhatHasNoTransport) {
  EXPECT_EQ(statusAsMetrics({{"a.b.KPIs", "a.b.queueSize,a.b.x"},
                             {"a.b.empty", ""},
                             {"a.b.huge", "1e999"},
                             {"a.b.nan", "nan"},
                             {"a.b.queueSize", "3 messages"},
                             {"noPrefix", "1"}}),
            "");
}

TEST(MetricsText, EscapesTheLabel) {
  EXPECT_THAT(statusAsMetrics({{"a\"b\\c\nd.x", "1"}}),
              HasSubstr("{transport=\"a\\\"b\\\\c\\nd\"}"));
}

// Two samples of one name and label would make Prometheus refuse all of them.
TEST(MetricsText, WritesOneSampleWhereTwoItemsHaveOneName) {
  const std::string text = statusAsMetrics({{"a.b.cacheHits", "1"}, {"a.b.cache_hits", "2"}});
  EXPECT_THAT(text, HasSubstr("orrery_cache_hits{transport=\"a.b\"} 1\n"));
  EXPECT_THAT(text, Not(HasSubstr("} 2\n")));
}

}  // namespace
}  // namespace host
