// Failures of the connection: which are tried once more, which are not, and what the answer says.
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/PluginUnderTest.hpp"
#include "tests/support/ScriptedServer.hpp"

namespace test_support {
namespace {

constexpr const char* retryLine = "processing a request, will retry once: ";
// Whole seconds is what the configuration takes. Few tests wait for a time-out; each says so.
constexpr int shortestTimeoutSecs = 1;

void answerAndKeep(Connection& connection) {
  if (connection.readRequest()) connection.sendResponse(200, {}, "answered");
}
// Says that it closes, so that no request is sent while the connection goes.
void answerOnce(Connection& connection) {
  if (connection.readRequest()) {
    connection.sendResponse(200, {{"Connection", "close"}}, "answered");
  }
}
void readAndClose(Connection& connection) { connection.readRequest(); }
void readAndReset(Connection& connection) {
  connection.readRequest();
  connection.reset();
}

TEST(SessionRetry, RequestIsSentASecondTimeWhereTheServerClosesWithoutAnAnswer) {
  ScriptedServer server({readAndClose, answerOnce});
  PluginUnderTest plugin(Config(server.port()).basicAuthentication("user", "pass"));
  const Answer answer = plugin.request(Request("POST", "/x").body("once more"));
  EXPECT_EQ(answer.status(), 200);
  EXPECT_EQ(answer.body(), "answered");
  ASSERT_EQ(server.requestCount(), 2U);
  EXPECT_EQ(server.request(0).raw, server.request(1).raw);
  EXPECT_EQ(server.request(1).header("authorization"), "Basic dXNlcjpwYXNz");
  const auto line = plugin.log().find(
      "Caught a Poco::Net::NoMessageException processing a request, will retry "
      "once: ");
  ASSERT_TRUE(line.has_value());
  EXPECT_EQ(line->level, QOR_LOG_DEBUG);
  EXPECT_EQ(plugin.log().count(retryLine), 1U);
}

TEST(SessionRetry, RequestIsSentASecondTimeWhereTheConnectionIsReset) {
  ScriptedServer server({readAndReset, answerOnce});
  PluginUnderTest plugin(Config(server.port()));
  EXPECT_EQ(plugin.request(Request("GET", "/x")).body(), "answered");
  EXPECT_TRUE(
      plugin.log().contains("Caught a Poco::IOException processing a request, will retry once: "));
  EXPECT_EQ(plugin.log().count(retryLine), 1U);
}

TEST(SessionRetry, SecondFailureIsReportedWithStatus400AndNotRetried) {
  ScriptedServer server(readAndClose);
  PluginUnderTest plugin(Config(server.port()));
  const Answer answer = plugin.request(Request("GET", "/x"));
  EXPECT_EQ(answer.status(), 400);
  EXPECT_TRUE(answer.reason().starts_with("No message received")) << answer.reason();
  EXPECT_TRUE(answer.isError());
  EXPECT_EQ(server.requestCount(), 2U);
  EXPECT_EQ(plugin.log().count(retryLine), 1U);
  EXPECT_EQ(plugin.statusItem(".status"), "FAILED");
}

TEST(SessionRetry, RequestOnAKeptConnectionIsSentASecondTimeOnANewOne) {
  for (const auto& failure : {&readAndClose, &readAndReset}) {
    const auto answerThenFail = [failure](Connection& connection) {
      answerAndKeep(connection);
      failure(connection);
    };
    ScriptedServer server({answerThenFail, answerOnce});
    PluginUnderTest plugin(Config(server.port()));
    EXPECT_EQ(plugin.request(Request("GET", "/first")).status(), 200);
    EXPECT_EQ(plugin.request(Request("POST", "/second").body("again")).body(), "answered");
    ASSERT_EQ(server.requestCount(), 3U);
    EXPECT_EQ(server.request(1).raw, server.request(2).raw);
    EXPECT_EQ(server.connectionCount(), 2U);
    EXPECT_EQ(plugin.log().count(retryLine), 1U);
  }
}

TEST(SessionRetry, SecondFailureAfterAKeptConnectionIsReportedWithStatus400) {
  const auto answerThenClose = [](Connection& connection) {
    answerAndKeep(connection);
    readAndClose(connection);
  };
  ScriptedServer server({answerThenClose, readAndClose});
  PluginUnderTest plugin(Config(server.port()));
  EXPECT_EQ(plugin.request(Request("GET", "/first")).status(), 200);
  const Answer answer = plugin.request(Request("GET", "/second"));
  EXPECT_EQ(answer.status(), 400);
  EXPECT_TRUE(answer.reason().starts_with("No message received")) << answer.reason();
  EXPECT_EQ(server.requestCount(), 3U);
  EXPECT_EQ(plugin.log().count(retryLine), 1U);
}

TEST(SessionRetry, EachRequestHasARetryOfItsOwn) {
  ScriptedServer server({readAndClose, answerOnce, readAndReset, answerOnce});
  PluginUnderTest plugin(Config(server.port()));
  EXPECT_EQ(plugin.request(Request("GET", "/x")).status(), 200);
  EXPECT_EQ(plugin.request(Request("GET", "/x")).status(), 200);
  EXPECT_EQ(server.requestCount(), 4U);
}

TEST(SessionRetry, FollowUpOfARedirectHasARetryOfItsOwn) {
  const auto redirect = [](Connection& connection) {
    connection.readRequest();
    connection.sendResponse(302, {{"Location", "/there"}, {"Connection", "close"}});
  };
  ScriptedServer server({readAndClose, redirect, readAndClose, answerOnce});
  PluginUnderTest plugin(Config(server.port()));
  EXPECT_EQ(plugin.request(Request("GET", "/x")).body(), "answered");
  EXPECT_EQ(plugin.log().count(retryLine), 2U);
}

TEST(SessionRetry, RefusedConnectionIsTriedTwiceAndNamesTheServer) {
  const int port = unusedPort();
  PluginUnderTest plugin{Config(port)};
  const Answer answer = plugin.request(Request("GET", "/x"));
  EXPECT_EQ(answer.status(), 400);
  EXPECT_EQ(answer.reason(), "Connection refused: 127.0.0.1:" + std::to_string(port));
  EXPECT_EQ(plugin.log().count(retryLine), 1U);
}

TEST(SessionRetry, FormIsSentWholeTheSecondTime) {
  ScriptedServer server({readAndClose, answerOnce});
  PluginUnderTest plugin(Config(server.port()));
  const Request form = Request("POST", "/x")
                           .field("name", "value")
                           .file("data", "bytes")
                           .form("filename", "data.bin");
  EXPECT_EQ(plugin.request(form).status(), 200);
  ASSERT_EQ(server.requestCount(), 2U);
  const auto second = server.request(1);
  EXPECT_NE(second.body.find("value"), std::string::npos);
  EXPECT_NE(second.body.find("bytes"), std::string::npos);
  EXPECT_EQ(second.body.size(), server.request(0).body.size());
}

TEST(SessionRetry, CompressedBodyIsSentWholeTheSecondTime) {
  ScriptedServer server({readAndClose, answerOnce});
  PluginUnderTest plugin(Config(server.port()));
  const Request coded =
      Request("POST", "/x").body(std::string(5000, 'x')).header("Content-Encoding", "gzip");
  EXPECT_EQ(plugin.request(coded).status(), 200);
  EXPECT_EQ(server.request(0).body, server.request(1).body);
  EXPECT_FALSE(server.request(1).body.empty());
}

TEST(SessionRetry, WritingToAClosedConnectionIsAFailureAndNoSignal) {
  // SIGPIPE keeps its default here: were it raised, this process would end.
  const auto readHeadAndReset = [](Connection& connection) {
    connection.readHead();
    connection.reset();
  };
  ScriptedServer server({readHeadAndReset, answerOnce});
  PluginOptions options;
  options.logLevel = QOR_LOG_INFO;
  PluginUnderTest plugin(Config(server.port()), options);
  const Answer answer = plugin.request(Request("POST", "/x").body(std::string(5'000'000, 'x')));
  EXPECT_EQ(answer.status(), 200);
  EXPECT_EQ(server.requests().back().body.size(), 5'000'000U);
}

TEST(SessionRetry, TimeOutIsNotRetried) {
  ScriptedServer server([&](Connection& connection) {
    connection.readRequest();
    connection.awaitPeerClose();
  });
  PluginUnderTest plugin(Config(server.port()).timeoutSecs(shortestTimeoutSecs));
  const Answer answer = plugin.request(Request("GET", "/x"));
  EXPECT_EQ(answer.status(), 400);
  EXPECT_TRUE(answer.reason().starts_with("Timeout")) << answer.reason();
  EXPECT_EQ(server.requestCount(), 1U);
  EXPECT_FALSE(plugin.log().contains(retryLine));
}

TEST(SessionRetry, TimeOutWithinABodyIsASeriousErrorAndNotRetried) {
  ScriptedServer server([](Connection& connection) {
    connection.readRequest();
    connection.send("HTTP/1.1 200 OK\r\nContent-Length: 9\r\n\r\nshort");
    connection.awaitPeerClose();
  });
  PluginUnderTest plugin(Config(server.port()).timeoutSecs(shortestTimeoutSecs));
  const Answer answer = plugin.request(Request("GET", "/x"));
  EXPECT_EQ(answer.reason(), "Error processing response stream: Serious I/O error");
  EXPECT_EQ(server.requestCount(), 1U);
}

TEST(SessionRetry, HugeTimeOutsSaturate) {
  ScriptedServer server(answerOnce);
  PluginUnderTest plugin(Config(server.port()).timeoutSecs(9'223'372'036'854'775'807LL));
  EXPECT_EQ(plugin.request(Request("GET", "/x")).status(), 200);
}

TEST(SessionRetry, UnknownHostIsAnErrorThatNamesIt) {
  // No resolver is asked: a label of more than 63 characters is no host name.
  const std::string name = std::string(70, 'x') + ".invalid";
  PluginUnderTest plugin(Config().host(name).port(80));
  const Answer answer = plugin.request(Request("GET", "/x"));
  EXPECT_EQ(answer.status(), 400);
  EXPECT_NE(answer.reason().find(name), std::string::npos) << answer.reason();
}

TEST(SessionAddresses, EveryAddressOfANameIsTried) {
  // The name also stands for ::1, where nobody listens.
  ScriptedServer server(answerOnce);
  PluginUnderTest plugin(Config().host("localhost").port(server.port()));
  const Answer answer = plugin.request(Request("GET", "/x"));
  EXPECT_EQ(answer.status(), 200) << answer.reason();
  EXPECT_EQ(server.request(0).header("host"), "localhost:" + std::to_string(server.port()));
}

TEST(SessionSetUp, LogsItsTarget) {
  ScriptedServer server;
  PluginUnderTest plugin(Config(server.port()).set("basePath", "/base"));
  const auto line = plugin.log().find(
      "Connecting to http://127.0.0.1:" + std::to_string(server.port()) + "/base");
  ASSERT_TRUE(line.has_value());
  EXPECT_EQ(line->level, QOR_LOG_INFO);
}

}  // namespace
}  // namespace test_support
