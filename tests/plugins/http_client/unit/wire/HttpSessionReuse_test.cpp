// Which connections serve another request, when the others are closed, and what is read past.
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "plugins/http_client/wire/HttpSession.hpp"
#include "tests/plugins/http_client/SessionClient.hpp"
#include "tests/support/Event.hpp"
#include "tests/support/ScriptedServer.hpp"

namespace connectivity::plugins {
namespace {

using test_support::Event;
using test_support::ScriptedServer;
using Client = SessionClient;
using Clock = std::chrono::steady_clock;
using Peer = test_support::Connection;

// The connection is closed as soon as the answer has been read, not at the next request; and that
// one gets its own answer over a new one.
void expectClosedAfter(const std::string& answer, const std::string& body) {
  ScriptedServer server({answerWith({answer}), answerWith({ok})});
  Client client(server);
  EXPECT_EQ(client.fetch(), body) << answer;
  server.waitForEndedConnections(1);
  EXPECT_EQ(client.fetch(), "ok") << answer;
  EXPECT_EQ(server.connectionCount(), 2U) << answer;
}

void expectKeptAfter(const std::string& answer, const std::string& body) {
  ScriptedServer server(answerWith({answer, ok}));
  Client client(server);
  EXPECT_EQ(client.fetch(), body) << answer;
  EXPECT_EQ(client.fetch(), "ok") << answer;
  EXPECT_EQ(server.connectionCount(), 1U) << answer;
}

TEST(HttpSessionReuse, ClosesAtOnceWhereTheServerSaysClose) {
  expectClosedAfter("HTTP/1.1 200 OK\r\nConnection: close\r\nContent-Length: 1\r\n\r\nx", "x");
  expectClosedAfter("HTTP/1.1 200 OK\r\nConnection: x, Close\r\nContent-Length: 1\r\n\r\nx", "x");
  expectClosedAfter("HTTP/1.0 200 OK\r\nContent-Length: 1\r\n\r\nx", "x");
}

TEST(HttpSessionReuse, KeepsAConnectionThatHttp10Keeps) {
  expectKeptAfter("HTTP/1.0 200 OK\r\nConnection: keep-alive\r\nContent-Length: 1\r\n\r\nx", "x");
}

TEST(HttpSessionReuse, TakesEqualContentLengthsForOne) {
  expectKeptAfter("HTTP/1.1 200 OK\r\nContent-Length: 2\r\nContent-Length: 2, 2\r\n\r\nok", "ok");
}

TEST(HttpSessionReuse, ChunksWinOverALengthAndTheConnectionIsClosed) {
  expectClosedAfter(
      "HTTP/1.1 200 OK\r\nContent-Length: 3\r\n"
      "Transfer-Encoding: Chunked\r\n\r\n2\r\nok\r\n0\r\n\r\n",
      "ok");
}

TEST(HttpSessionReuse, TakesSwitchingProtocolsForTheLastResponseOfAConnection) {
  expectClosedAfter("HTTP/1.1 101 Switching Protocols\r\n\r\n", "");
}

TEST(HttpSessionReuse, ABodyThatIsAnnouncedWhereThereIsNoneClosesTheConnection) {
  expectClosedAfter("HTTP/1.1 204 No Content\r\nContent-Length: 4\r\n\r\n", "");
  expectClosedAfter("HTTP/1.1 204 No Content\r\nTransfer-Encoding: chunked\r\n\r\n", "");
  expectClosedAfter("HTTP/1.1 103 Early Hints\r\nContent-Length: 5\r\n\r\n" + std::string(ok),
                    "ok");
  expectKeptAfter("HTTP/1.1 204 No Content\r\nContent-Length: 0\r\n\r\n", "");
}

TEST(HttpSessionReuse, StrayBytesBehindAResponseCloseTheConnection) {
  expectClosedAfter(std::string(ok) + "HTTP/1.1 200 OK\r\nContent-Length: 4\r\n\r\nevil", "ok");
  expectClosedAfter("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n0\r\n\r\nevil", "");
}

TEST(HttpSessionReuse, AResponseWithoutBodyLeavesTheConnectionUsable) {
  ScriptedServer server(answerWith({"HTTP/1.1 204 No Content\r\n\r\n",
                                    "HTTP/1.1 304 Not Modified\r\n"
                                    "Content-Length: 10\r\n\r\n",
                                    "HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n", ok}));
  Client client(server);
  for (int i = 0; i < 3; ++i) {
    ResponseBody& body = client.get();
    EXPECT_TRUE(body.announcedEmpty());
    EXPECT_TRUE(body.complete());
    EXPECT_EQ(client.rest(), "");
  }
  EXPECT_EQ(client.fetch(), "ok");
  EXPECT_EQ(server.connectionCount(), 1U);
}

TEST(HttpSessionReuse, TheResponseToHeadHasNoBodyWhateverItAnnounces) {
  ScriptedServer server(answerWith({"HTTP/1.1 200 OK\r\nContent-Length: 10\r\n\r\n",
                                    "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n",
                                    "HTTP/1.1 200 OK\r\n\r\n", ok}));
  Client client(server);
  for (int i = 0; i < 3; ++i) {
    client.send("HEAD");
    EXPECT_TRUE(client.receive().announcedEmpty());
    EXPECT_EQ(client.rest(), "");
  }
  EXPECT_EQ(client.fetch(), "ok");
  EXPECT_EQ(server.connectionCount(), 1U);
}

TEST(HttpSessionReuse, ABodyWithoutLengthEndsWithItsConnection) {
  ScriptedServer server(answerAndClose("HTTP/1.1 200 OK\r\n\r\nuntil the end"));
  Client client(server);
  ResponseBody& body = client.get();
  EXPECT_EQ(readAll(body), "until the end");
  EXPECT_TRUE(body.complete());
  EXPECT_EQ(client.fetch(), "until the end");
  EXPECT_EQ(server.connectionCount(), 2U);
}

TEST(HttpSessionReuse, ConnectsAnewWhereStrayBytesCameLater) {
  Event first;
  Event straySent;
  ScriptedServer server({[&](Peer& peer) {
                           peer.readRequest();
                           peer.send(ok);
                           first.wait();
                           peer.send("HTTP/1.1 200 OK\r\nContent-Length: 4\r\n\r\nevil");
                           straySent.set();
                           peer.awaitPeerClose();
                         },
                         answerWith({ok})});
  Client client(server);
  EXPECT_EQ(client.fetch(), "ok");
  first.set();
  straySent.wait();
  EXPECT_EQ(client.fetch(), "ok");
  EXPECT_EQ(server.connectionCount(), 2U);
}

TEST(HttpSessionReuse, ConnectsAnewWhereTheServerHasClosed) {
  ScriptedServer server(answerAndClose(ok));
  Client client(server);
  EXPECT_EQ(client.fetch(), "ok");
  server.waitForEndedConnections(1);
  EXPECT_EQ(client.fetch(), "ok");
  EXPECT_EQ(server.connectionCount(), 2U);
}

TEST(HttpSessionReuse, ConnectsAnewWhereItWasIdleTooLong) {
  ScriptedServer server(answerWith({ok, ok}));
  Client client(server);
  EXPECT_EQ(client.fetch(), "ok");
  std::this_thread::sleep_for(HttpSession::keepAlive);  // the time is the subject
  EXPECT_EQ(client.fetch(), "ok");
  EXPECT_EQ(server.connectionCount(), 2U);
}

TEST(HttpSessionReuse, ConnectsAnewWhereAnExchangeWasNotFinished) {
  ScriptedServer server;
  server.answer("/found", {200, {}, "found"});
  Client client(server);
  client.send("GET", "/lost");
  EXPECT_EQ(client.fetch("/found"), "found");
  EXPECT_EQ(server.connectionCount(), 2U);
  EXPECT_EQ(readAll(client.get("/found")), "found");  // and not finished
  EXPECT_EQ(client.fetch("/found"), "found");
  EXPECT_EQ(server.connectionCount(), 3U);
}

TEST(HttpSessionReuse, ConnectsAnewAfterAReset) {
  ScriptedServer server;
  server.answer("/", {200, {}, "x"});
  Client client(server);
  EXPECT_EQ(client.fetch(), "x");
  client.session.reset();
  server.waitForEndedConnections(1);
  EXPECT_EQ(client.fetch(), "x");
  EXPECT_EQ(server.connectionCount(), 2U);
}

TEST(HttpSessionReuse, NothingOfABodyIsReadableAfterAReset) {
  ScriptedServer server(answerWith({"HTTP/1.1 200 OK\r\nContent-Length: 10\r\n\r\n0123456789"}));
  Client client(server);
  ResponseBody& body = client.get();
  EXPECT_EQ(body.get(), '0');
  client.session.reset();
  EXPECT_EQ(readAll(body), "");
  EXPECT_FALSE(body.complete());
}

TEST(HttpSessionReuse, ClosesTheConnectionWithItself) {
  ScriptedServer server(answerWith({ok}));
  {
    Client client(server);
    EXPECT_EQ(client.fetch(), "ok");
  }
  server.waitForEndedConnections(1);
}

// --- what is left of a body

// Answers each request with this head and body.
ScriptedServer::Script repeating(std::string answer) {
  return [answer = std::move(answer)](Peer& peer) {
    while (peer.readRequest()) peer.send(answer);
  };
}
std::string withLength(std::size_t size) {
  return "HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string(size) + "\r\n\r\n" +
         std::string(size, 'x');
}
std::string withChunksOf(std::vector<std::size_t> sizes) {
  std::string text = "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n";
  for (const std::size_t size : sizes) {
    char line[32];
    std::snprintf(line, sizeof line, "%zx\r\n", size);
    text += line + std::string(size, 'x') + "\r\n";
  }
  return text + "0\r\n\r\n";
}

// Whether a connection serves a further request when this many bytes of a body have been read.
bool isKept(const std::string& answer, std::size_t read, Leftover leftover) {
  ScriptedServer server(repeating(answer));
  Client client(server);
  ResponseBody& body = client.get();
  EXPECT_EQ(readLarge(body, read).size(), read);
  client.session.finish(leftover);
  client.get();
  return server.connectionCount() == 1;
}

// Where reading past has a second only: a busy machine may need longer, but not every time.
bool isKeptInOneOfSeveral(const std::string& answer, std::size_t read, Leftover leftover) {
  for (int attempt = 0; attempt < 10; ++attempt) {
    if (isKept(answer, read, leftover)) return true;
  }
  return false;
}

TEST(HttpSessionLeftover, NoneClosesUnlessTheWholeMessageWasRead) {
  EXPECT_TRUE(isKept(withLength(10), 10, Leftover::None));
  EXPECT_FALSE(isKept(withLength(10), 9, Leftover::None));
  EXPECT_FALSE(isKept(withChunksOf({10}), 10, Leftover::None)) << "the last chunk was not read";
}

TEST(HttpSessionLeftover, LittleReadsPastALastChunkAndSomeBytes) {
  EXPECT_TRUE(isKeptInOneOfSeveral(withChunksOf({10}), 10, Leftover::Little));
  EXPECT_TRUE(isKeptInOneOfSeveral(withLength(4100), 4, Leftover::Little));
  EXPECT_FALSE(isKept(withLength(4101), 4, Leftover::Little));
  EXPECT_FALSE(isKept(withChunksOf({10, 4096, 100}), 10, Leftover::Little));
}

TEST(HttpSessionLeftover, OverLimitReadsPastOneMebibyte) {
  constexpr std::size_t bound = HttpSession::drainBytes;
  EXPECT_EQ(bound, 1048576U);
  EXPECT_TRUE(isKeptInOneOfSeveral(withLength(bound + 10), 10, Leftover::OverLimit));
  EXPECT_FALSE(isKept(withLength(bound + 11), 10, Leftover::OverLimit));
  EXPECT_TRUE(isKeptInOneOfSeveral(withChunksOf({10, 500000, 500000}), 10, Leftover::OverLimit));
  EXPECT_FALSE(isKept(withChunksOf({10, 500000, 500000, 500000}), 10, Leftover::OverLimit));
}

// Sends the beginning of a body and no more, and waits for the client to close.
ScriptedServer::Script stopping(const std::string& beginning) {
  return [=](Peer& peer) {
    peer.readRequest();
    peer.send(beginning);
    peer.awaitPeerClose();
  };
}

Clock::duration timeToFinish(const std::string& beginning) {
  ScriptedServer server(stopping(beginning));
  Client client(server);
  client.get().get();
  const auto start = Clock::now();
  client.session.finish(Leftover::OverLimit);
  const auto end = Clock::now();
  server.waitForEndedConnections(1);
  return end - start;
}

TEST(HttpSessionLeftover, OverLimitWaitsOneSecondForTheRest) {
  for (const std::string& beginning :
       {std::string("HTTP/1.1 200 OK\r\nContent-Length: 1000\r\n\r\nx"),
        std::string("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n1\r\nx\r\n")}) {
    const auto time = timeToFinish(beginning);
    EXPECT_GE(time, HttpSession::drainTime);
    EXPECT_LT(time, std::chrono::seconds(30)) << "the time-out is twice as long";
  }
}

// A busy machine may take a second for it, but not every time.
TEST(HttpSessionLeftover, OverLimitWaitsForNothingWhereTooMuchIsAnnounced) {
  bool atOnce = false;
  for (int attempt = 0; attempt < 10 && !atOnce; ++attempt) {
    atOnce = timeToFinish("HTTP/1.1 200 OK\r\nContent-Length: 1048578\r\n\r\nx") <
             HttpSession::drainTime;
  }
  EXPECT_TRUE(atOnce);
}

TEST(HttpSessionLeftover, WhatIsBrokenBehindTheLimitClosesTheConnectionAlone) {
  ScriptedServer server(
      {answerAndClose("HTTP/1.1 200 OK\r\nContent-Length: 1000\r\n\r\nshort"),
       answerWith({"HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n1\r\nx\r\nbroken"}),
       answerWith({ok})});
  Client client(server);
  client.get().get();
  client.session.finish(Leftover::OverLimit);
  client.get().get();
  client.session.finish(Leftover::OverLimit);
  server.waitForEndedConnections(2);
  EXPECT_EQ(client.fetch(), "ok");
}

}  // namespace
}  // namespace connectivity::plugins
