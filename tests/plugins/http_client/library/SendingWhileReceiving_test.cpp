// Sending and receiving go on at once: a server that answers as it reads never waits in vain, and
// a limit of the response does not end the request.
#include <cstddef>
#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "tests/plugins/http_client/Answering.hpp"
#include "tests/plugins/http_client/PlainOrTls.hpp"
#include "tests/support/Event.hpp"

namespace test_support {
namespace {

// Far beyond what the sockets on the way hold.
constexpr std::size_t largeBytes = 20'000'000;
constexpr const char* rejection =
    "Response exceeded maxResponseKB, with maxResponsePolicy set to REJECT";

const std::string& large() {
  static const std::string body = noise(largeBytes);
  return body;
}

Request upload(const std::string& body = large()) {
  return std::move(Request("POST", "/echo").body(body));
}

// Sends back what it reads, piece by piece as it comes, and keeps it.
class Echo {
 public:
  explicit Echo(bool inChunks) : _inChunks(inChunks) {}

  void operator()(Connection& connection) {
    while (const auto request = connection.readHead()) {
      if (request->method == "GET") {
        connection.sendResponse(200, {}, request->target);
      } else {
        sendBack(connection, std::stoul(*request->header("content-length")));
      }
    }
  }
  const std::string& received() const { return _received; }

 private:
  void sendBack(Connection& connection, std::size_t left) {
    connection.send(_inChunks ? chunked("")
                              : responseHead(200, {{"Content-Length", std::to_string(left)}}));
    while (left > 0) {
      const std::string piece = connection.readSome();
      if (piece.empty()) return;
      _received += piece;
      left -= piece.size();
      connection.send(_inChunks ? chunk(piece) : piece);
    }
    if (_inChunks) connection.send("0\r\n\r\n");
  }

  const bool _inChunks;
  std::string _received;  // read by the test once the answer is there
};

class EchoedUpload : public PlainOrTls {};
INSTANTIATE_PLAIN_AND_TLS(EchoedUpload);

TEST_P(EchoedUpload, ComesBackWhole) {
  for (const bool inChunks : {false, true}) {
    Echo echo(inChunks);
    const auto server = serving(std::ref(echo));
    PluginUnderTest plugin(to(*server), terse());
    const Answer answer = plugin.request(upload());
    EXPECT_EQ(answer.status(), 200) << answer.reason();
    EXPECT_TRUE(answer.body() == large());
    EXPECT_EQ(server->requestCount(), 1U);
    expectInStep(plugin, *server, 1);
  }
}

// A body of more pieces than one call of the system takes.
TEST_P(EchoedUpload, OfManyPiecesComesBackWhole) {
  Echo echo(false);
  const auto server = serving(std::ref(echo));
  PluginUnderTest plugin(to(*server), terse());
  Request form("POST", "/echo");
  form.form();
  const std::string file = noise(100'000);
  for (int number = 0; number < 150; ++number) form.file("file" + std::to_string(number), file);
  const Answer answer = plugin.request(form);
  EXPECT_EQ(answer.status(), 200) << answer.reason();
  EXPECT_GT(answer.body().size(), 15'000'000U);
  EXPECT_TRUE(answer.body() == echo.received());
  EXPECT_TRUE(answer.body().find("name=\"file149\"") != std::string::npos);
  expectInStep(plugin, *server, 1);
}

// What is left of the response when the request is out may be more than is read past: then the next
// request goes over another connection.
TEST_P(EchoedUpload, ThatIsTooLargeIsRejectedAndNeitherSideWaits) {
  for (const bool inChunks : {false, true}) {
    Echo echo(inChunks);
    const auto server = serving(std::ref(echo));
    PluginUnderTest plugin(to(*server), terse());
    const Answer answer = plugin.request(upload().limit(1));
    EXPECT_EQ(answer.status(), 413);
    EXPECT_EQ(answer.body(), rejection);
    EXPECT_EQ(plugin.request(Request("GET", "/next").id(2)).body(), "/next");
    EXPECT_FALSE(plugin.log().contains(retryLine));
    EXPECT_EQ(server->requestCount(), 2U);
  }
}

TEST_P(EchoedUpload, ThatIsTooLargeIsCutAtItsEndAndNeitherSideWaits) {
  Echo echo(false);
  const auto server = serving(std::ref(echo));
  PluginUnderTest plugin(to(*server), terse());
  const Answer answer = plugin.request(upload().limit(1).policy("TRUNCATE_END"));
  EXPECT_EQ(answer.status(), 200);
  EXPECT_EQ(answer.body(), large().substr(0, 1000) + "[TRUNCATED]");
  EXPECT_EQ(plugin.request(Request("GET", "/next").id(2)).body(), "/next");
  EXPECT_EQ(server->requestCount(), 2U);
}

TEST_P(EchoedUpload, ThatIsCutAtItsStartComesBackAsItsEnd) {
  Echo echo(true);
  const auto server = serving(std::ref(echo));
  PluginUnderTest plugin(to(*server), terse());
  const Answer answer = plugin.request(upload().limit(100).policy("TRUNCATE_START"));
  EXPECT_EQ(answer.status(), 200);
  EXPECT_TRUE(answer.body() == "[TRUNCATED]" + large().substr(largeBytes - 100'000));
  expectInStep(plugin, *server, 1);
}

// --- A limit that is exceeded before the request is out ------------------------------------------

constexpr std::size_t answerBytes = 30'000'000;  // more than sockets hold

class LongEarlyAnswer : public PlainOrTls {
 protected:
  static void expectTooLarge(PluginUnderTest& plugin) {
    const Answer answer = plugin.request(upload().limit(1));
    EXPECT_EQ(answer.status(), 413);
    EXPECT_EQ(answer.body(), rejection);
  }
};
INSTANTIATE_PLAIN_AND_TLS(LongEarlyAnswer);

// Else the server, which does not read before all of it is gone, would wait for ever.
TEST_P(LongEarlyAnswer, IsReadPastWithoutBoundUntilTheRequestIsOut) {
  Event taken;
  const auto server = serving([&](Connection& connection) {
    if (connection.number() > 1 || !connection.readHead()) return answerWithTarget(connection);
    connection.send(responseHead(200, {{"Content-Length", std::to_string(answerBytes)}}));
    if (connection.send(std::string(answerBytes, 'x'))) taken.set();
    connection.readBytes(largeBytes);
    answerWithTarget(connection);
  });
  PluginUnderTest plugin(to(*server), terse());
  expectTooLarge(plugin);
  taken.wait();
  EXPECT_EQ(plugin.request(Request("GET", "/next").id(2)).body(), "/next");
  EXPECT_FALSE(plugin.log().contains(retryLine));
}

TEST_P(LongEarlyAnswer, OfWhichLittleIsLeftThenIsReadToItsEnd) {
  constexpr std::size_t before = 2000;
  constexpr std::size_t behind = 500'000;
  const auto server = serving([&](Connection& connection) {
    if (connection.number() > 1 || !connection.readHead()) return answerWithTarget(connection);
    connection.send(responseHead(200, {{"Content-Length", std::to_string(before + behind)}}));
    connection.send(std::string(before, 'x'));
    if (!connection.readBytes(largeBytes)) return;
    connection.send(std::string(behind, 'x'));
    answerWithTarget(connection);
  });
  PluginUnderTest plugin(to(*server), terse());
  expectTooLarge(plugin);
  expectInStep(plugin, *server, 1);
}

TEST_P(LongEarlyAnswer, OfWhichMuchIsLeftThenIsGivenUp) {
  Event closed;
  const auto server = serving([&](Connection& connection) {
    if (connection.number() > 1 || !connection.readHead()) return answerWithTarget(connection);
    connection.send(responseHead(200, {{"Content-Length", std::to_string(answerBytes)}}));
    connection.send(std::string(2000, 'x'));
    if (!connection.readBytes(largeBytes)) return;
    connection.awaitPeerClose();
    closed.set();
  });
  PluginUnderTest plugin(to(*server), terse());
  expectTooLarge(plugin);
  closed.wait();
  expectInStep(plugin, *server, 2);
}

// --- A server that neither reads nor ends --------------------------------------------------------

TEST_P(EchoedUpload, ThatTheServerDoesNotReadEndsInATimeOut) {
  Event answered;
  const auto server = serving([&](Connection& connection) {
    connection.readHead();
    connection.stallUntil(answered);
  });
  PluginUnderTest plugin(to(*server).timeoutSecs(1), terse());
  plugin.onDelivery([&](const Answer&) { answered.set(); });
  EXPECT_EQ(plugin.request(upload()).reason(),
            "Timeout: The server took no data within the time-out");
  EXPECT_EQ(server->requestCount(), 1U);
}

}  // namespace
}  // namespace test_support
