// What is sent again, in a second attempt or after a redirect, is the very body that was sent
// first.
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/plugins/http_client/Expectations.hpp"
#include "tests/support/PluginUnderTest.hpp"
#include "tests/support/ScriptedServer.hpp"

namespace test_support {
namespace {

struct Body {
  const char* name;
  Request request;
};

std::string nameOf(const ::testing::TestParamInfo<Body>& info) { return info.param.name; }

Request post() { return {"POST", "/x"}; }

std::string numbers() {
  std::string text;
  for (int number = 0; number < 20'000; ++number) text += std::to_string(number) + " ";
  return text;
}

void readAndClose(Connection& connection) { connection.readRequest(); }

void redirect(Connection& connection, int status, const std::string& to) {
  connection.readRequest();
  connection.sendResponse(status, {{"Location", to}});
}

class BodyMadeOnce : public ::testing::TestWithParam<Body> {
 protected:
  static PluginOptions withoutDumps() {
    PluginOptions options;
    options.logLevel = QOR_LOG_DEBUG;
    return options;
  }
  static void expectSame(const RecordedRequest& first, const RecordedRequest& again) {
    EXPECT_FALSE(first.body.empty());
    EXPECT_EQ(again.method, first.method);
    EXPECT_EQ(again.header("content-type"), first.header("content-type"));
    EXPECT_EQ(again.header("content-encoding"), first.header("content-encoding"));
    EXPECT_EQ(again.header("content-length"), first.header("content-length"));
    EXPECT_TRUE(again.body == first.body) << "the bodies differ";
  }
};

INSTANTIATE_TEST_SUITE_P(
    Of, BodyMadeOnce,
    ::testing::Values(
        Body{"AMultipartForm", post().field("title", "a").file("data", std::string(5000, 'x'))},
        Body{"AUrlEncodedForm", post().field("title", "a").field("more", "b c")},
        Body{"AGzippedPayload", post().body(numbers()).header("Content-Encoding", "gzip")},
        Body{"ADeflatedPayload", post().body(numbers()).header("Content-Encoding", "deflate")},
        Body{"APayload", post().body("just bytes")}),
    nameOf);

TEST_P(BodyMadeOnce, IsSentAgainInTheSecondAttempt) {
  ScriptedServer server({readAndClose, answerWithTarget});
  PluginUnderTest plugin(Config(server.port()), withoutDumps());
  EXPECT_EQ(plugin.request(GetParam().request).body(), "/x");
  ASSERT_EQ(server.requestCount(), 2U);
  expectSame(server.request(0), server.request(1));
  EXPECT_TRUE(server.request(1).raw == server.request(0).raw);
}

TEST_P(BodyMadeOnce, IsSentAgainAfterARedirect) {
  for (const int status : {307, 308}) {
    ScriptedServer server([status](Connection& connection) {
      redirect(connection, status, "/next");
      answerWithTarget(connection);
    });
    PluginUnderTest plugin(Config(server.port()), withoutDumps());
    EXPECT_EQ(plugin.request(GetParam().request).body(), "/next");
    ASSERT_EQ(server.requestCount(), 2U);
    expectSame(server.request(0), server.request(1));
  }
}

TEST_P(BodyMadeOnce, IsSentAgainInTheSecondAttemptAfterARedirectElsewhere) {
  ScriptedServer elsewhere({readAndClose, answerWithTarget});
  const std::string far = "http://127.0.0.1:" + std::to_string(elsewhere.port()) + "/far";
  ScriptedServer home([far](Connection& connection) { redirect(connection, 308, far); });
  PluginUnderTest plugin(Config(home.port()), withoutDumps());
  EXPECT_EQ(plugin.request(GetParam().request).body(), "/far");
  ASSERT_EQ(elsewhere.requestCount(), 2U);
  expectSame(home.request(0), elsewhere.request(0));
  expectSame(home.request(0), elsewhere.request(1));
}

// Two requests are two bodies: a boundary that was used before could stand in the next form.
TEST(BodyMadeOnceForEachRequest, HasABoundaryOfItsOwn) {
  ScriptedServer server(answerWithTarget);
  PluginUnderTest plugin(Config(server.port()).numClients(1));
  const Request form = post().field("title", "a").file("data", "bytes");
  plugin.request(form);
  plugin.request(form);
  EXPECT_NE(server.request(0).header("content-type"), server.request(1).header("content-type"));
  plugin.request(post().body("bytes"));
  EXPECT_EQ(server.request(2).body, "bytes");
}

}  // namespace
}  // namespace test_support
