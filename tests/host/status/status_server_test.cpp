#include <istream>
#include <string>
#include <vector>

#include <Poco/Net/HTTPClientSession.h>
#include <Poco/Net/HTTPRequest.h>
#include <Poco/Net/HTTPResponse.h>
#include <Poco/StreamCopier.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <openssl/sha.h>

#include "host/status/StatusJson.hpp"
#include "host/status/StatusServer.hpp"
#include "tests/support/ScriptedProxy.hpp"

namespace host {
namespace {

using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

TEST(StatusAsJson, WritesEveryItemAsTextUnderItsKey) {
  EXPECT_EQ(statusAsJson({}), "{}");
  EXPECT_EQ(statusAsJson({{"b", "1"}, {"a", "x \"y\""}}), "{\"a\":\"x \\\"y\\\"\",\"b\":\"1\"}");
}

TEST(AreAllOnline, NeedsTheStatusOfEveryChain) {
  const std::vector<std::string> chains{"a.1", "b.2"};
  EXPECT_TRUE(areAllOnline({{"a.1.status", "ONLINE"}, {"b.2.status", "ONLINE"}}, chains));
  EXPECT_FALSE(areAllOnline({{"a.1.status", "ONLINE"}, {"b.2.status", "FAILED"}}, chains));
  EXPECT_FALSE(areAllOnline({{"a.1.status", "ONLINE"}}, chains));
}

// What stands between two tags.
std::string element(const std::string& document, const std::string& begin, const std::string& end) {
  const auto from = document.find(begin) + begin.size();
  return document.substr(from, document.find(end, from) - from);
}

std::string hashOf(const std::string& text) {
  std::string digest(SHA256_DIGEST_LENGTH, '\0');
  SHA256(reinterpret_cast<const unsigned char*>(text.data()), text.size(),
         reinterpret_cast<unsigned char*>(digest.data()));
  return "'sha256-" + test_support::base64(digest) + "'";
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
    _headers = response;
    return {response.getStatus(), body};
  }

  StatusTable _table;
  StatusServer _server{{}, _table, {"shop.orders"}};
  void* const _item;
  Poco::Net::HTTPResponse _headers;  // the latest answer's
};

using Answer = std::pair<int, std::string>;

TEST_F(StatusServerTest, ServesTheItemsAsTheyAreNow) {
  EXPECT_EQ(ask("/status.json"), Answer(200, "{\"shop.orders.status\":\"STARTING\"}\n"));
  EXPECT_EQ(_headers.getContentType(), "application/json");
  qor_set_user_status_item(_item, "7");
  EXPECT_EQ(ask("/status.json?x=1"), Answer(200, "{\"shop.orders.status\":\"7\"}\n"));
  EXPECT_THAT(ask("/metrics").second, HasSubstr("orrery_up{transport=\"shop.orders\"} 0\n"));
  EXPECT_EQ(_headers.getContentType(), "text/plain; version=0.0.4; charset=utf-8");
}

TEST_F(StatusServerTest, StartsItsHistoryByItself) {
  std::string history;
  while (history.find("age") == std::string::npos) history = ask("/history.json").second;
  EXPECT_THAT(history, StartsWith("[{\"age\":"));
  EXPECT_EQ(_headers.getContentType(), "application/json");
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

TEST_F(StatusServerTest, AnswersEveryPathToHeadWithoutABody) {
  for (const char* path : {"/", "/status.json", "/history.json", "/metrics"}) {
    EXPECT_EQ(ask(path, "HEAD"), Answer(200, "")) << path;
    EXPECT_GT(_headers.getContentLength(), 0) << path;
  }
  EXPECT_EQ(ask("/healthz", "HEAD"), Answer(503, ""));
}

TEST_F(StatusServerTest, SaysWhichMethodsItKnows) {
  for (const char* method : {"POST", "PUT", "DELETE", "OPTIONS"}) {
    EXPECT_EQ(ask("/", method).first, 405) << method;
    EXPECT_EQ(_headers.get("Allow"), "GET, HEAD") << method;
  }
}

// Its threads are few, and each page that is open asks every second.
TEST_F(StatusServerTest, ClosesTheConnectionAfterEachAnswer) {
  for (const char* path :
       {"/", "/status.json", "/history.json", "/metrics", "/healthz", "/other"}) {
    ask(path);
    EXPECT_FALSE(_headers.getKeepAlive()) << path;
  }
}

TEST_F(StatusServerTest, AllowsThePageItsOwnStyleAndScriptAndNothingElse) {
  const auto [status, document] = ask("/");
  EXPECT_EQ(status, 200);
  EXPECT_EQ(_headers.getContentType(), "text/html; charset=utf-8");
  EXPECT_EQ(_headers.get("X-Content-Type-Options"), "nosniff");
  const std::string policy = _headers.get("Content-Security-Policy");
  EXPECT_THAT(policy, StartsWith("default-src 'none';"));
  EXPECT_THAT(policy, HasSubstr("connect-src 'self';"));
  EXPECT_THAT(policy, Not(HasSubstr("unsafe")));
  EXPECT_THAT(policy, HasSubstr("style-src " + hashOf(element(document, "<style>", "</style>"))));
  EXPECT_THAT(policy, HasSubstr("script-src " + hashOf(element(document, "<script type=\"module\">",
                                                               "</script>"))));
}

TEST_F(StatusServerTest, ThePageRefersToNoOtherHost) {
  std::string document = ask("/").second;
  const std::string svgNamespace = "http://www.w3.org/2000/svg";
  for (auto at = document.find(svgNamespace); at != std::string::npos;
       at = document.find(svgNamespace)) {
    document.erase(at, svgNamespace.size());
  }
  EXPECT_THAT(document, HasSubstr("</html>"));
  for (const char* reference : {"://", "src=", "url(", "@import", "\"//", "'//"}) {
    EXPECT_EQ(document.find(reference), std::string::npos) << reference;
  }
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
