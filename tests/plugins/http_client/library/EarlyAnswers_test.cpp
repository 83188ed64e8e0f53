// An answer that comes before the request is out counts, whatever becomes of the connection then;
// nothing is sent twice.
#include <algorithm>
#include <atomic>
#include <cstddef>
#include <functional>
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

const std::string& large() {
  static const std::string body = noise(largeBytes);
  return body;
}

Request upload(const std::string& body = large()) {
  return std::move(Request("POST", "/upload").body(body));
}

// So long that nothing which waits for the time-out passes.
constexpr int endlessSecs = 1000;

using After = std::function<void(Connection&)>;

void closes(Connection& connection) { connection.close(); }
void resets(Connection& connection) { connection.reset(); }

// The first connection gets this to the head of its request, then `after`; the others are answered
// with their target.
ScriptedServer::Script early(std::string response, After after) {
  return [response = std::move(response), after = std::move(after)](Connection& connection) {
    if (connection.number() > 1) return answerWithTarget(connection);
    connection.readHead();
    connection.send(response);
    after(connection);
  };
}

std::string response(int status, const std::string& body) {
  return responseHead(status, {{"Content-Length", std::to_string(body.size())}}) + body;
}

class EarlyAnswer : public PlainOrTls {
 protected:
  // The one answer to an upload is this; the server has seen one request, and the next one goes
  // over a connection of its own.
  void expectTheAnswer(const ScriptedServer& server, int status, const std::string& body) {
    PluginUnderTest plugin(to(server), terse());
    expectTheAnswer(plugin, server, status, body);
  }
  static void expectTheAnswer(PluginUnderTest& plugin, const ScriptedServer& server, int status,
                              const std::string& body) {
    const Answer answer = plugin.request(upload());
    EXPECT_EQ(answer.status(), status) << answer.reason();
    EXPECT_EQ(answer.body(), body);
    EXPECT_FALSE(answer.isError());
    EXPECT_EQ(plugin.statusItem(".status"), "ONLINE");
    EXPECT_EQ(server.requestCount(), 1U);
    expectInStep(plugin, server, 2);
    plugin.shutdown();
    EXPECT_EQ(server.requestCount(), 2U);
    EXPECT_EQ(plugin.answerCount(), 2U);
  }
};
INSTANTIATE_PLAIN_AND_TLS(EarlyAnswer);

// --- From 300 on --------------------------------------------------------------------------------

TEST_P(EarlyAnswer, OnAConnectionThatStaysOpenEndsTheSending) {
  for (const int status : {413, 401, 300, 503}) {
    Event answered;
    std::atomic<std::size_t> taken{0};
    const auto server = serving(early(response(status, "no"), [&](Connection& connection) {
      // Nothing of the body is read before the answer stands.
      connection.stallUntil(answered);
      for (std::string piece; !(piece = connection.readSome()).empty();) taken += piece.size();
    }));
    {
      PluginUnderTest plugin(to(*server).timeoutSecs(endlessSecs), terse());
      plugin.onDelivery([&](const Answer&) { answered.set(); });
      expectTheAnswer(plugin, *server, status, "no");
    }
    server->waitForEndedConnections(1);
    EXPECT_LT(taken.load(), largeBytes) << "the sending went on";
  }
}

TEST_P(EarlyAnswer, InChunksIsReadToItsEnd) {
  Event answered;
  const std::string head = "HTTP/1.1 403 No\r\nTransfer-Encoding: chunked\r\n\r\n";
  const auto server =
      serving(early(head + chunk("not ") + chunk("here") + "0\r\n\r\n",
                    [&](Connection& connection) { connection.stallUntil(answered); }));
  PluginUnderTest plugin(to(*server).timeoutSecs(endlessSecs), terse());
  plugin.onDelivery([&](const Answer&) { answered.set(); });
  expectTheAnswer(plugin, *server, 403, "not here");
}

TEST_P(EarlyAnswer, BehindWhichTheServerClosesIsTheAnswer) {
  for (const int status : {413, 401, 500}) {
    const auto server = serving(early(response(status, "no"), closes));
    expectTheAnswer(*server, status, "no");
  }
}

TEST_P(EarlyAnswer, BehindWhichTheServerResetsIsTheAnswer) {
  for (const int status : {413, 401, 500}) {
    const auto server = serving(early(response(status, "no"), resets));
    expectTheAnswer(*server, status, "no");
  }
}

TEST_P(EarlyAnswer, ThatRedirectsIsFollowedOverANewConnection) {
  Event followed;
  const auto server =
      serving(early("HTTP/1.1 303 See Other\r\nLocation: /elsewhere\r\nContent-Length: 0\r\n\r\n",
                    [&](Connection& connection) { connection.stallUntil(followed); }));
  PluginUnderTest plugin(to(*server).timeoutSecs(endlessSecs), terse());
  plugin.onDelivery([&](const Answer&) { followed.set(); });
  EXPECT_EQ(plugin.request(upload()).body(), "/elsewhere");
  EXPECT_EQ(server->request(1).method, "GET");
  EXPECT_EQ(server->requestCount(), 2U);
  EXPECT_EQ(server->connectionCount(), 2U);
}

// --- Below 300 ----------------------------------------------------------------------------------

// Reads the rest of the upload; whether it is what was to be sent.
bool isLarge(Connection& connection) { return connection.readExactly(largeBytes) == large(); }

TEST_P(EarlyAnswer, BelowThreeHundredLetsTheRestOfTheRequestGoOut) {
  for (const std::string& whole :
       {response(200, "early"), chunked(chunk("ear") + chunk("ly") + "0\r\n\r\n")}) {
    bool cameWhole = false;
    const auto server = serving(early(whole, [&](Connection& connection) {
      cameWhole = isLarge(connection);
      answerWithTarget(connection);
    }));
    PluginUnderTest plugin(to(*server), terse());
    EXPECT_EQ(plugin.request(upload()).body(), "early");
    EXPECT_EQ(server->requestCount(), 1U);
    expectInStep(plugin, *server, 1);
    EXPECT_TRUE(cameWhole);
  }
}

TEST_P(EarlyAnswer, WithoutABodyLetsTheRestOfTheRequestGoOut) {
  bool cameWhole = false;
  const auto server = serving(early("HTTP/1.1 204 No Content\r\n\r\n", [&](Connection& connection) {
    cameWhole = isLarge(connection);
    answerWithTarget(connection);
  }));
  PluginUnderTest plugin(to(*server), terse());
  EXPECT_EQ(plugin.request(upload()).status(), 204);
  expectInStep(plugin, *server, 1);
  EXPECT_TRUE(cameWhole);
}

TEST_P(EarlyAnswer, BelowThreeHundredIsTheAnswerWhereTheSendingFailsThen) {
  for (const After& after : {After(closes), After(resets)}) {
    const auto server = serving(early(response(200, "done already"), after));
    expectTheAnswer(*server, 200, "done already");
  }
}

TEST_P(EarlyAnswer, OfWhichThePeerEndsItsSideLetsTheRestOfTheRequestGoOut) {
  bool cameWhole = false;
  const auto server = serving(early(response(200, "early"), [&](Connection& connection) {
    connection.halfClose();
    cameWhole = isLarge(connection);
  }));
  PluginUnderTest plugin(to(*server), terse());
  EXPECT_EQ(plugin.request(upload()).body(), "early");
  server->waitForEndedConnections(1);
  EXPECT_TRUE(cameWhole);
  expectInStep(plugin, *server, 2);
}

// A server that says no more and reads no more is waited for as long as for every other.
TEST_P(EarlyAnswer, OfWhichThePeerEndsItsSideAndReadsNoMoreIsDeliveredAfterTheTimeOut) {
  Event answered;
  const auto server = serving(early(response(200, "early"), [&](Connection& connection) {
    connection.halfClose();
    connection.stallUntil(answered);
  }));
  PluginUnderTest plugin(to(*server).timeoutSecs(1), terse());
  plugin.onDelivery([&](const Answer&) { answered.set(); });
  expectTheAnswer(plugin, *server, 200, "early");
}

// --- Interim responses --------------------------------------------------------------------------

TEST_P(EarlyAnswer, ThatIsInterimIsNone) {
  bool cameWhole = false;
  const auto server =
      serving(early("HTTP/1.1 100 Continue\r\n\r\nHTTP/1.1 103 Early Hints\r\nLink: </a>\r\n\r\n",
                    [&](Connection& connection) {
                      cameWhole = isLarge(connection);
                      connection.sendResponse(201, {}, "stored");
                      answerWithTarget(connection);
                    }));
  PluginUnderTest plugin(to(*server), terse());
  const Answer answer = plugin.request(upload());
  EXPECT_EQ(answer.status(), 201);
  EXPECT_EQ(answer.body(), "stored");
  EXPECT_TRUE(cameWhole);
  expectInStep(plugin, *server, 1);
}

// --- Answers that are not whole -----------------------------------------------------------------

TEST_P(EarlyAnswer, ThatIsCutIsAnErrorAndTheRequestIsNotSentAgain) {
  const std::string cut = "HTTP/1.1 413 No\r\nContent-Length: 9\r\n\r\nshort";
  for (const After& after : {After(closes), After(resets)}) {
    const auto server = serving(early(cut, after));
    PluginUnderTest plugin(to(*server), terse());
    // Whether the end or the reset is seen first is the system's choice: both are errors.
    expectError(plugin.request(upload()), "Error processing response stream: ");
    EXPECT_EQ(server->requestCount(), 1U);
    expectInStep(plugin, *server, 2);
  }
}

TEST_P(EarlyAnswer, WhoseHeadIsCutIsAnErrorAndTheRequestIsNotSentAgain) {
  for (const After& after : {After(closes), After(resets)}) {
    const auto server = serving(early("HTTP/1.1 413 No\r\nContent-Le", after));
    PluginUnderTest plugin(to(*server), terse());
    expectError(plugin.request(upload()), "");
    EXPECT_EQ(plugin.statusItem(".status"), "FAILED");
    EXPECT_EQ(server->requestCount(), 1U);
    expectInStep(plugin, *server, 2);
  }
}

TEST_P(EarlyAnswer, ThatIsMalformedEndsTheSending) {
  Event answered;
  const auto server = serving(early(
      "SSH-2.0-OpenSSH\r\n\r\n", [&](Connection& connection) { connection.stallUntil(answered); }));
  PluginUnderTest plugin(to(*server).timeoutSecs(endlessSecs), terse());
  plugin.onDelivery([&](const Answer&) { answered.set(); });
  EXPECT_EQ(plugin.request(upload()).reason(), "Malformed message: The response is not HTTP");
  EXPECT_EQ(server->requestCount(), 1U);
}

// Only where nothing came has the connection failed.
TEST_P(EarlyAnswer, ThatDoesNotComeLetsTheRequestBeSentAgain) {
  for (const After& after : {After(closes), After(resets)}) {
    const auto server = serving(early("", after));
    PluginUnderTest plugin(to(*server), terse());
    EXPECT_EQ(plugin.request(upload()).body(), "/upload");
    EXPECT_EQ(plugin.log().count(retryLine), 1U);
    EXPECT_EQ(server->requestCount(), 2U);
    EXPECT_TRUE(server->request(1).body == large());
  }
}

}  // namespace
}  // namespace test_support
