// Bodies on the wire: framing and codings, of requests and of responses.
#include <sstream>
#include <string>

#include <gtest/gtest.h>

#include "tests/support/Coders.hpp"
#include "tests/support/Messages.hpp"
#include "tests/support/PluginUnderTest.hpp"
#include "tests/support/ScriptedServer.hpp"

namespace {

using test_support::Answer;
using test_support::Config;
using test_support::Connection;
using test_support::gunzip;
using test_support::gzip;
using test_support::PluginUnderTest;
using test_support::RecordedRequest;
using test_support::Request;
using test_support::ScriptedServer;
using test_support::unzlib;

constexpr const char* ioError = "Error processing response stream: I/O error";

std::string textOf(std::size_t size) {
  std::string text(size, '\0');
  for (std::size_t i = 0; i < size; ++i) text[i] = static_cast<char>('a' + i * i % 26);
  return text;
}

class Coding : public testing::Test {
 protected:
  Coding() { _server.answer("/x", {200, {}, "done"}); }

  RecordedRequest sent(const Request& request) {
    const Answer answer = _plugin.request(request);
    EXPECT_EQ(answer.status(), 200) << answer.reason();
    return _server.requests().back();
  }
  // Each response has a path of its own.
  Answer received(test_support::CannedResponse response, const char* method = "GET",
                  const char* policy = nullptr) {
    const std::string path = "/response" + std::to_string(++_responses);
    _server.answer(path, std::move(response));
    Request request(method, path.c_str());
    if (policy != nullptr) request.limit(1).policy(policy);
    return _plugin.request(request);
  }
  ScriptedServer& server() { return _server; }
  PluginUnderTest& plugin() { return _plugin; }

 private:
  ScriptedServer _server;
  PluginUnderTest _plugin{Config(_server.port()).numClients(1)};
  int _responses = 0;
};

// --- requests: framing --------------------------------------------------------------------------

TEST_F(Coding, BodyIsFramedByItsLengthAlone) {
  for (const char* method : {"POST", "PUT", "GET"}) {
    for (const std::size_t size : {1U, 5000U, 16384U, 1000000U}) {
      const RecordedRequest request = sent(Request(method, "/x").body(textOf(size)));
      EXPECT_EQ(request.header("Content-Length"), std::to_string(size));
      EXPECT_EQ(request.headerCount("Transfer-Encoding"), 0U);
      EXPECT_TRUE(request.body == textOf(size)) << method << " " << size;
    }
  }
}

TEST_F(Coding, EmptyBodyOfPostAndPutHasALengthOfZero) {
  for (const char* method : {"POST", "PUT"}) {
    EXPECT_EQ(sent(Request(method, "/x")).header("Content-Length"), "0") << method;
    EXPECT_EQ(sent(Request(method, "/x").body("")).header("Content-Length"), "0") << method;
  }
}

TEST_F(Coding, RequestWithoutBodyHasNoFraming) {
  for (const char* method : {"GET", "DELETE", "HEAD", "TRACE"}) {
    const RecordedRequest request = sent(Request(method, "/x"));
    EXPECT_EQ(request.headerCount("Content-Length"), 0U) << method;
    EXPECT_EQ(request.headerCount("Transfer-Encoding"), 0U) << method;
  }
  EXPECT_FALSE(plugin().log().contains("Ignoring specified payload"));
}

TEST_F(Coding, PayloadOfAMethodWithoutBodyIsDroppedAndReported) {
  for (const char* method : {"DELETE", "HEAD", "TRACE"}) {
    const RecordedRequest request = sent(Request(method, "/x").body("payload"));
    EXPECT_EQ(request.body, "") << method;
    EXPECT_EQ(request.headerCount("Content-Length"), 0U) << method;
    const std::string line =
        std::string("Ignoring specified payload for ") + method + " request method";
    EXPECT_EQ(plugin().log().waitForLine(line).level, QOR_LOG_WARN);
  }
}

TEST_F(Coding, PayloadThatIsDroppedIsReportedOnceHoweverOftenTheRequestIsSent) {
  server().answer("/moved", {307, {{"Location", "/x"}}, ""});
  ScriptedServer closing({[](Connection& connection) { connection.readRequest(); },
                          [&](Connection& connection) { server().answerByPath(connection); }});
  PluginUnderTest plugin(Config(closing.port()).numClients(1));
  EXPECT_EQ(plugin.request(Request("DELETE", "/moved").body("payload")).status(), 200);
  EXPECT_EQ(closing.requestCount(), 3U);
  EXPECT_EQ(plugin.log().count("Ignoring specified payload for DELETE request method"), 1U);
}

// --- requests: codings --------------------------------------------------------------------------

TEST_F(Coding, RequestBodyIsCompressed) {
  const std::string text = textOf(300000);
  const RecordedRequest gzipped =
      sent(Request("POST", "/x").body(text).header("Content-Encoding", "gzip"));
  EXPECT_TRUE(gunzip(gzipped.body) == text);
  EXPECT_EQ(gzipped.header("Content-Encoding"), "gzip");
  EXPECT_EQ(gzipped.header("Content-Length"), std::to_string(gzipped.body.size()));
  EXPECT_EQ(gzipped.headerCount("Transfer-Encoding"), 0U);
  EXPECT_LT(gzipped.body.size(), text.size());

  const RecordedRequest deflated =
      sent(Request("PUT", "/x").body(text).header("Content-Encoding", "deflate"));
  EXPECT_TRUE(unzlib(deflated.body) == text);
}

TEST_F(Coding, RequestBodyUnderIdentityIsSentAsItIs) {
  EXPECT_EQ(sent(Request("POST", "/x").body("text").header("Content-Encoding", "identity")).body,
            "text");
}

TEST_F(Coding, EmptyRequestBodyUnderGzipIsAValidEmptyStream) {
  const RecordedRequest request =
      sent(Request("POST", "/x").body("").header("Content-Encoding", "gzip"));
  EXPECT_EQ(request.body.size(), 20U);
  EXPECT_EQ(gunzip(request.body), "");
}

TEST_F(Coding, SizeOfTheRequestIsTheCompressedOne) {
  const RecordedRequest request =
      sent(Request("POST", "/x").body(textOf(50000)).header("Content-Encoding", "gzip"));
  plugin().status().waitFor("plugin.chain.requestSizeMaxInLastHourBytes",
                            std::to_string(request.body.size()));
}

TEST_F(Coding, UnsupportedCodingOfARequestIsRefusedAndLogged) {
  constexpr const char* text = "Unsupported Content-Encoding, dropping HTTP request.";
  std::size_t refused = 0;
  for (const char* coding : {"br", "GZIP", "gzip, deflate", "x-gzip"}) {
    for (const char* method : {"POST", "GET", "DELETE"}) {
      const Answer answer =
          plugin().request(Request(method, "/x").body("text").header("Content-Encoding", coding));
      EXPECT_EQ(answer.status(), 400) << coding;
      EXPECT_EQ(answer.reason(), text) << coding;
      EXPECT_EQ(answer.body(), text) << coding;
      ++refused;
    }
  }
  EXPECT_EQ(server().connectionCount(), 0U);
  EXPECT_GE(plugin().log().count(text), refused);
  EXPECT_EQ(plugin().log().find(text)->level, QOR_LOG_WARN);
  EXPECT_NE(plugin().statusItem(".status"), "FAILED");
}

TEST_F(Coding, UnsupportedCodingOfARequestResetsTheSession) {
  plugin().request(Request("GET", "/x"));
  plugin().request(Request("POST", "/x").body("text").header("Content-Encoding", "br"));
  plugin().request(Request("GET", "/x"));
  EXPECT_EQ(server().connectionCount(), 2U);
}

TEST_F(Coding, RetryCompressesTheBodyAgain) {
  ScriptedServer closing({[](Connection& connection) { connection.readRequest(); },
                          [](Connection& connection) {
                            connection.readRequest();
                            connection.sendResponse(200, {}, "done");
                          }});
  PluginUnderTest plugin(Config(closing.port()).numClients(1));
  const Answer answer =
      plugin.request(Request("POST", "/x").body("text").header("Content-Encoding", "gzip"));
  EXPECT_EQ(answer.status(), 200) << answer.reason();
  ASSERT_EQ(closing.requestCount(), 2U);
  EXPECT_EQ(closing.request(0).body, closing.request(1).body);
  EXPECT_EQ(gunzip(closing.request(1).body), "text");
}

// --- responses ----------------------------------------------------------------------------------

TEST_F(Coding, ResponseIsDecoded) {
  const std::string text = textOf(300000);
  const Answer answer = received({200, {{"Content-Encoding", "gzip"}}, gzip(text)});
  EXPECT_EQ(answer.status(), 200);
  EXPECT_TRUE(answer.body() == text);
}

TEST_F(Coding, ResponseOfAnUnsupportedCodingIsAnsweredWithItsText) {
  const Answer answer = received({200, {{"Content-Encoding", "br"}}, textOf(5000)});
  EXPECT_EQ(answer.status(), 200);
  EXPECT_EQ(answer.body(), "Unsupported Media Type: br");
  EXPECT_EQ(plugin().log().find("Unsupported Media Type: br")->level, QOR_LOG_WARN);
}

TEST_F(Coding, UnreadBodyOfAnUnsupportedCodingNeverReachesTheNextAnswer) {
  received(
      {200, {{"Content-Encoding", "br"}}, "HTTP/1.1 200 OK\r\nContent-Length: 5\r\n\r\nwrong"});
  EXPECT_EQ(plugin().request(Request("GET", "/x")).body(), "done");
  EXPECT_EQ(plugin().request(Request("GET", "/x")).body(), "done");
}

TEST_F(Coding, BytesBehindACodedResponseNeverReachTheNextAnswer) {
  const Answer answer = received({200,
                                  {{"Content-Encoding", "gzip"}},
                                  gzip("text") + "HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n"});
  EXPECT_EQ(answer.body(), "text");
  EXPECT_EQ(plugin().request(Request("GET", "/x")).body(), "done");
  EXPECT_EQ(server().connectionCount(), 1U) << "few bytes are read past";
}

TEST_F(Coding, ResponseWithoutBodyIsNotDecoded) {
  EXPECT_EQ(received({204, {{"Content-Encoding", "gzip"}}, ""}).body(), "");
  const Answer head = received({200, {{"Content-Encoding", "gzip"}}, gzip("text")}, "HEAD");
  EXPECT_EQ(head.status(), 200);
  EXPECT_EQ(head.body(), "");
}

TEST_F(Coding, CorruptResponseIsAnError) {
  const Answer answer = received({200, {{"Content-Encoding", "gzip"}}, "this is no gzip"});
  EXPECT_EQ(answer.status(), 400);
  EXPECT_EQ(answer.reason(), "Error processing response stream: Serious I/O error");
  EXPECT_EQ(plugin().request(Request("GET", "/x")).body(), "done");
}

TEST_F(Coding, CodedResponseThatBreaksOffIsAnError) {
  const Answer answer = received({200, {{"Content-Encoding", "gzip"}}, gzip("text").substr(0, 9)});
  EXPECT_EQ(answer.status(), 400);
  EXPECT_EQ(answer.reason(), ioError);
}

TEST(ResponseOnTheWire, ShorterThanAnnouncedIsAnErrorAndNeverAShortSuccess) {
  for (const char* response :
       {"HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\nshort",
        "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n5\r\nshort\r\n",
        "HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\n"}) {
    ScriptedServer server([response](Connection& connection) {
      connection.readRequest();
      connection.send(response);
    });
    PluginUnderTest plugin(Config(server.port()).numClients(1));
    const Answer answer = plugin.request(Request("GET", "/x"));
    EXPECT_EQ(answer.status(), 400) << response;
    EXPECT_EQ(answer.reason(), ioError) << response;
  }
}

TEST_F(Coding, LimitAndPolicyOfTheRequestHold) {
  const std::string text = textOf(5000);
  const Answer rejected = received({200, {}, text}, "GET", "REJECT");
  EXPECT_EQ(rejected.status(), 413);
  EXPECT_EQ(rejected.reason(),
            "Response exceeded maxResponseKB, with maxResponsePolicy set to REJECT");
  const Answer cut = received({200, {}, text}, "GET", "TRUNCATE_END");
  EXPECT_EQ(cut.status(), 200);
  EXPECT_EQ(cut.body(), text.substr(0, 1000) + "[TRUNCATED]");
  const Answer tail = received({200, {}, text}, "GET", "TRUNCATE_START");
  EXPECT_TRUE(tail.body().starts_with("[TRUNCATED]" + text.substr(4000)));
  EXPECT_EQ(server().connectionCount(), 1U) << "a drained connection is kept";
}

// A truncated answer is padded with zero bytes, never with what came before.
TEST_F(Coding, NothingOfAnEarlierResponseIsEverDelivered) {
  received({200, {}, std::string(300000, 'S')});
  const Answer answer = received({200, {}, std::string(5000, 'x')}, "GET", "TRUNCATE_START");
  ASSERT_EQ(answer.body().size(), 4011U);
  EXPECT_EQ(answer.body(), "[TRUNCATED]" + std::string(1000, 'x') + std::string(3000, '\0'));
}

}  // namespace
