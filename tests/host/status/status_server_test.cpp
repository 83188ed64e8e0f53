#include <istream>
#include <string>
#include <vector>

#include <Poco/Net/HTTPClientSession.h>
#include <Poco/Net/HTTPRequest.h>
#include <Poco/Net/HTTPResponse.h>
#include <Poco/StreamCopier.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "host/status/StatusServer.hpp"

namespace host {
namespace {

using testing::HasSubstr;

TEST(StatusAsJson, WritesEveryItemAsTextUnderItsKey) {
  EXPECT_EQ(statusAsJson({}), "{}\n");
  EXPECT_EQ(statusAsJson({{"b", "1"}, {"a", "x \"y\""}}), "{\"a\":\"x \\\"y\\\"\",\"b\":\"1\"}\n");
}

TEST(StatusAsMetrics, WritesTheNumbersByMetricAndLabelsThemWithTheTransport) {
  EXPECT_EQ(statusAsMetrics({{"shop.orders.queueSize", "3"},
                             {"shop.returns.queueSize", "-1"},
                             {"shop.orders.requestLatencyEWMAShortMillis", "12"},
                             {"shop.orders.status", "ONLINE"},
                             {"noPrefix", "1"}}),
            "# TYPE orrery_queue_size gauge\n"
            "orrery_queue_size{transport=\"shop.orders\"} 3\n"
            "orrery_queue_size{transport=\"shop.returns\"} -1\n"
            "# TYPE orrery_request_latency_ewma_short_millis gauge\n"
            "orrery_request_latency_ewma_short_millis{transport=\"shop.orders\"} 12\n");
}

TEST(StatusAsMetrics, EscapesTheLabel) {
  EXPECT_THAT(statusAsMetrics({{"a\"b\\c\nd.x", "1"}}),
              HasSubstr("{transport=\"a\\\"b\\\\c\\nd\"}"));
}

TEST(AreAllOnline, NeedsTheStatusOfEveryChain) {
  const std::vector<std::string> chains{"a.1", "b.2"};
  EXPECT_TRUE(areAllOnline({{"a.1.status", "ONLINE"}, {"b.2.status", "ONLINE"}}, chains));
  EXPECT_FALSE(areAllOnline({{"a.1.status", "ONLINE"}, {"b.2.status", "FAILED"}}, chains));
  EXPECT_FALSE(areAllOnline({{"a.1.status", "ONLINE"}}, chains));
}

class StatusServerTest : public testing::Test {
 protected:
  StatusServerTest()
      : _item(qor_create_user_status_item(_table.handle(), "shop.orders.status", "STARTING")) {}
  ~StatusServerTest() override { qor_delete_user_status_item(_item); }

  // The status and the body.
  std::pair<int, std::string> ask(const std::string& path, const std::string& method = "GET") {
    Poco::Net::HTTPClientSession session("127.0.0.1", static_cast<Poco::UInt16>(_server.port()));
    Poco::Net::HTTPRequest request(method, path, "HTTP/1.1");
    session.sendRequest(request);
    Poco::Net::HTTPResponse response;
    std::string body;
    Poco::StreamCopier::copyToString(session.receiveResponse(response), body);
    _contentType = response.getContentType();
    return {response.getStatus(), body};
  }

  StatusTable _table;
  StatusServer _server{{}, _table, {"shop.orders"}};
  void* const _item;
  std::string _contentType;
};

using Answer = std::pair<int, std::string>;

TEST_F(StatusServerTest, ServesTheItemsAsTheyAreNow) {
  EXPECT_EQ(ask("/status.json"), Answer(200, "{\"shop.orders.status\":\"STARTING\"}\n"));
  EXPECT_EQ(_contentType, "application/json");
  qor_set_user_status_item(_item, "7");
  EXPECT_EQ(ask("/status.json?x=1"), Answer(200, "{\"shop.orders.status\":\"7\"}\n"));
  EXPECT_THAT(ask("/metrics").second, HasSubstr("orrery_status{transport=\"shop.orders\"} 7\n"));
  EXPECT_THAT(_contentType, HasSubstr("version=0.0.4"));
}

TEST_F(StatusServerTest, HealthIs200OnlyWhileEveryChainIsOnline) {
  EXPECT_EQ(ask("/healthz").first, 503);
  qor_set_user_status_item(_item, "ONLINE");
  EXPECT_EQ(ask("/healthz").first, 200);
  qor_set_user_status_item(_item, "FAILED");
  EXPECT_EQ(ask("/healthz").first, 503);
}

TEST_F(StatusServerTest, RefusesOtherPathsAndMethods) {
  EXPECT_EQ(ask("/other").first, 404);
  EXPECT_EQ(ask("/status.json", "POST").first, 405);
  EXPECT_EQ(ask("/status.json", "HEAD"), Answer(200, ""));
}

TEST_F(StatusServerTest, APortThatIsTakenIsAnErrorThatNamesIt) {
  StatusDefinition taken;
  taken.port = _server.port();
  try {
    const StatusServer second(taken, _table, {});
    FAIL();
  } catch (const std::runtime_error& error) {
    EXPECT_THAT(error.what(),
                HasSubstr("cannot listen on 127.0.0.1:" + std::to_string(taken.port)));
  }
}

}  // namespace
}  // namespace host
