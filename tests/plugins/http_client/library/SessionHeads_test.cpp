// Response heads as servers send them, well-formed or not.
#include <string>

#include <gtest/gtest.h>

#include "tests/support/PluginUnderTest.hpp"
#include "tests/support/ScriptedServer.hpp"

namespace test_support {
namespace {

// Sends this to every request of a connection.
ScriptedServer::Script always(const std::string& response) {
  return [response](Connection& connection) {
    while (connection.readRequest()) connection.send(response);
  };
}

Answer answerTo(const std::string& response) {
  ScriptedServer server(always(response));
  PluginUnderTest plugin(Config(server.port()));
  return plugin.request(Request("GET", "/x"));
}

TEST(ResponseHead, HeaderLinesOfEveryLengthNearTheTrapArrive) {
  // A line of exactly 4092 characters is where a header block read in pieces can end early.
  for (int length = 4088; length <= 4100; ++length) {
    const std::string value(static_cast<std::size_t>(length) - 6, 'v');
    const Answer answer = answerTo("HTTP/1.1 200 OK\r\nX-Lo: " + value +
                                   "\r\nX-After: there\r\nContent-Length: 4\r\n\r\nbody");
    EXPECT_EQ(answer.status(), 200) << length;
    EXPECT_EQ(answer.header("x-lo"), value) << length;
    EXPECT_EQ(answer.header("x-after"), "there") << length;
    EXPECT_EQ(answer.body(), "body") << length;
  }
}

// A head has one limit, that of its bytes.
TEST(ResponseHead, HeaderWithALongNameAndALongValueArrives) {
  const std::string name(100'000, 'n');
  const std::string value(160'000, 'v');
  const Answer answer =
      answerTo("HTTP/1.1 200 OK\r\n" + name + ": " + value + "\r\nContent-Length: 2\r\n\r\nok");
  EXPECT_EQ(answer.status(), 200) << answer.reason();
  EXPECT_EQ(answer.header(name), value);
  EXPECT_EQ(answer.body(), "ok");
}

TEST(ResponseHead, HeaderBeyondTheBytesOfAHeadIsAFailure) {
  for (const std::string& field :
       {"X: " + std::string(262'144, 'v'), std::string(262'144, 'n') + ": v"}) {
    const Answer answer =
        answerTo("HTTP/1.1 200 OK\r\n" + field + "\r\nContent-Length: 2\r\n\r\nok");
    EXPECT_EQ(answer.status(), 400);
    EXPECT_EQ(answer.reason(), "Malformed message: The response head is too large");
  }
}

std::string headWithFields(int count) {
  std::string head = "HTTP/1.1 200 OK\r\nContent-Length: 2\r\n";
  for (int field = 1; field < count; ++field) {
    head += "X-" + std::to_string(field) + ": " + std::to_string(field) + "\r\n";
  }
  return head + "\r\nok";
}

TEST(ResponseHead, AnyNumberOfFieldsArrives) {
  for (const int count : {100, 101, 10'000}) {
    const Answer answer = answerTo(headWithFields(count));
    EXPECT_EQ(answer.status(), 200) << answer.reason();
    const std::string last = std::to_string(count - 1);
    EXPECT_EQ(answer.header("x-" + last), last);
    EXPECT_EQ(answer.body(), "ok");
  }
}

TEST(ResponseHead, FieldsBeyondTheBytesOfAHeadAreAFailure) {
  const Answer answer = answerTo(headWithFields(30'000));
  EXPECT_EQ(answer.status(), 400);
  EXPECT_EQ(answer.reason(), "Malformed message: The response head is too large");
}

TEST(ResponseHead, EndlessHeadIsAFailure) {
  ScriptedServer server([](Connection& connection) {
    connection.readRequest();
    connection.send("HTTP/1.1 200 OK\r\n");
    connection.send("X: " + std::string(5'000'000, 'x'));
    connection.awaitPeerClose();
  });
  PluginUnderTest plugin(Config(server.port()));
  const Answer answer = plugin.request(Request("GET", "/x"));
  EXPECT_EQ(answer.status(), 400);
  EXPECT_NE(answer.reason().find("too large"), std::string::npos) << answer.reason();
}

TEST(ResponseHead, EndlessInterimResponsesAreAFailure) {
  ScriptedServer server([](Connection& connection) {
    connection.readRequest();
    for (int time = 0; time < 200; ++time) connection.send("HTTP/1.1 100 Continue\r\n\r\n");
    connection.awaitPeerClose();
  });
  PluginUnderTest plugin(Config(server.port()));
  EXPECT_EQ(plugin.request(Request("GET", "/x")).status(), 400);
}

struct Malformed {
  const char* name;
  const char* response;
  const char* text;
};

std::string nameOf(const ::testing::TestParamInfo<Malformed>& info) { return info.param.name; }

class MalformedHead : public ::testing::TestWithParam<Malformed> {};

// Once an answer has begun, its request is not sent again, whatever becomes of that answer.
TEST_P(MalformedHead, IsAnErrorAndNotAskedForAgainAndTheNextRequestIsServed) {
  ScriptedServer server(
      {always(GetParam().response), always("HTTP/1.1 200 OK\r\nContent-Length: 4\r\n\r\ngood")});
  PluginUnderTest plugin(Config(server.port()));
  const Answer answer = plugin.request(Request("GET", "/x"));
  EXPECT_EQ(answer.status(), 400);
  EXPECT_TRUE(answer.isError());
  EXPECT_EQ(answer.reason(), std::string("Malformed message: ") + GetParam().text);
  EXPECT_EQ(server.requestCount(), 1U);
  EXPECT_EQ(plugin.request(Request("GET", "/next")).body(), "good");
  EXPECT_EQ(server.requestCount(), 2U);
}

INSTANTIATE_TEST_SUITE_P(
    All, MalformedHead,
    ::testing::Values(
        Malformed{"WithoutStatus", "HTTP/1.1\r\n\r\n",
                  "Malformed status line in the response: HTTP/1.1"},
        Malformed{"WithAStatusThatIsNoNumber", "HTTP/1.1 abc OK\r\n\r\n",
                  "Malformed status line in the response: HTTP/1.1 abc OK"},
        Malformed{"ThatIsNotHttp", "SSH-2.0-OpenSSH\r\n\r\n", "The response is not HTTP"},
        Malformed{"WithALengthThatIsNoNumber", "HTTP/1.1 200 OK\r\nContent-Length: abc\r\n\r\n",
                  "Malformed Content-Length in the response: abc"},
        Malformed{"WithANegativeLength", "HTTP/1.1 200 OK\r\nContent-Length: -1\r\n\r\n",
                  "Malformed Content-Length in the response: -1"},
        Malformed{"WithALengthBeyondCounting",
                  "HTTP/1.1 200 OK\r\nContent-Length: 99999999999999999999\r\n\r\n",
                  "Malformed Content-Length in the response: 99999999999999999999"},
        Malformed{"WithTwoLengthsThatDiffer",
                  "HTTP/1.1 200 OK\r\nContent-Length: 1\r\nContent-Length: 2\r\n\r\nab",
                  "Contradictory Content-Length in the response: 1, 2"},
        Malformed{"WithAnUnknownTransferCoding",
                  "HTTP/1.1 200 OK\r\nTransfer-Encoding: gzip\r\n\r\n",
                  "Unsupported Transfer-Encoding in the response: gzip"}),
    nameOf);

TEST(ResponseHead, EqualLengthsAreOne) {
  const Answer answer =
      answerTo("HTTP/1.1 200 OK\r\nContent-Length: 2\r\nContent-Length: 2\r\n\r\nab");
  EXPECT_EQ(answer.status(), 200);
  EXPECT_EQ(answer.body(), "ab");
}

TEST(ResponseHead, LinesThatEndInALineFeedAloneAreUnderstood) {
  const Answer answer = answerTo("HTTP/1.1 200 OK\nX-A: b\nContent-Length: 2\n\nab");
  EXPECT_EQ(answer.status(), 200);
  EXPECT_EQ(answer.header("x-a"), "b");
  EXPECT_EQ(answer.body(), "ab");
}

TEST(ResponseHead, BlankLinesBeforeItAreSkipped) {
  const Answer answer = answerTo("\r\n\r\nHTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\nab");
  EXPECT_EQ(answer.status(), 200);
  EXPECT_EQ(answer.body(), "ab");
}

TEST(ResponseHead, ConnectionClosedWithinIt) {
  ScriptedServer server([](Connection& connection) {
    connection.readRequest();
    connection.send("HTTP/1.1 200 OK\r\nContent-Le");
  });
  PluginUnderTest plugin(Config(server.port()));
  const Answer answer = plugin.request(Request("GET", "/x"));
  EXPECT_EQ(answer.status(), 400);
  EXPECT_NE(answer.reason().find("within the response head"), std::string::npos) << answer.reason();
}

TEST(ResponseHead, ControlCharactersInItAreEscapedInTheLog) {
  ScriptedServer server(
      always("HTTP/1.1 200 O\x1B[31mK\r\nX-A: b\x07\r\nContent-Length: 0\r\n\r\n"));
  PluginUnderTest plugin(Config(server.port()));
  plugin.request(Request("GET", "/x"));
  for (const auto& line : plugin.log().lines()) {
    EXPECT_EQ(line.text.find('\x1B'), std::string::npos) << line.text;
    EXPECT_EQ(line.text.find('\x07'), std::string::npos) << line.text;
  }
}

}  // namespace
}  // namespace test_support
