// Requests that are still being sent while their answer comes, and deadlines.
#include <chrono>
#include <string>
#include <vector>

#include <Poco/Exception.h>
#include <Poco/Net/NetException.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "plugins/http_client/wire/HttpSession.hpp"
#include "tests/plugins/http_client/SessionClient.hpp"
#include "tests/support/Event.hpp"
#include "tests/support/ScriptedServer.hpp"

namespace connectivity::plugins {
namespace {

using std::chrono::milliseconds;
using test_support::Event;
using test_support::ScriptedServer;
using Client = SessionClient;
using Clock = HttpSession::Clock;
using Peer = test_support::Connection;

// Not all of it leaves as long as the server does not read.
const std::string& largeBody() {
  static const std::string body(beyondBuffers, 'x');
  return body;
}

std::string lengthOf(std::size_t size) {
  return "Content-Length: " + std::to_string(size) + "\r\n\r\n";
}

class HttpSessionSending : public testing::Test {
 protected:
  // Sends this before it reads the request's body; then reads that when it is told to.
  ScriptedServer::Script answeringEarly(const std::string& answer) {
    return [this, answer](Peer& peer) {
      if (peer.number() == 1) {
        peer.readHead();
        if (peer.send(answer)) answerTaken.set();
        mayRead.wait();
        if (peer.readBytes(beyondBuffers)) bodyArrived.set();
      }
      while (peer.readRequest()) peer.send(ok);
    };
  }

  Event mayRead{"the server to be allowed to read"};
  Event bodyArrived{"the request's body"};
  Event answerTaken{"the server to get rid of its answer"};
};

TEST_F(HttpSessionSending, AServerThatAnswersAsItReadsDoesNotStall) {
  ScriptedServer server([](Peer& peer) {
    peer.readHead();
    peer.send("HTTP/1.1 200 OK\r\n" + lengthOf(beyondBuffers));
    for (std::size_t echoed = 0; echoed < beyondBuffers;) {
      const std::string piece = peer.readSome();
      if (piece.empty()) return;
      peer.send(piece);
      echoed += piece.size();
    }
    while (peer.readRequest()) peer.send(ok);
  });
  Client client(server);
  std::string body = largeBody();
  for (std::size_t at = 0; at < body.size(); at += 1000) body[at] = static_cast<char>(at / 1000);
  client.post(body);
  EXPECT_TRUE(client.rest() == body);
  EXPECT_EQ(client.fetch(), "ok");
  EXPECT_EQ(server.connectionCount(), 1U);
}

TEST_F(HttpSessionSending, AnEarlyStatusFrom300OnEndsTheSending) {
  for (const int status : {300, 413, 500}) {
    Event read;
    ScriptedServer server({[&](Peer& peer) {
                             peer.readHead();
                             peer.sendResponse(status, {}, "enough");
                             read.wait();
                             EXPECT_FALSE(peer.readBytes(beyondBuffers));
                           },
                           answerWith({ok})});
    Client client(server);
    client.post(largeBody());
    EXPECT_EQ(client.status(), status);
    EXPECT_EQ(client.rest(), "enough");
    read.set();
    server.waitForEndedConnections(1);  // closed at once, not at the next request
    EXPECT_EQ(client.fetch(), "ok");
  }
}

TEST_F(HttpSessionSending, BelowAnEarlyStatusOf300TheRestIsSentAndTheConnectionKept) {
  ScriptedServer server(answeringEarly("HTTP/1.1 299 OK\r\n" + lengthOf(4) + "well"));
  Client client(server);
  client.post(largeBody());
  EXPECT_FALSE(bodyArrived.isSet());
  mayRead.set();
  EXPECT_EQ(client.rest(), "well");
  bodyArrived.wait();
  EXPECT_EQ(client.fetch(), "ok");
  EXPECT_EQ(server.connectionCount(), 1U);
}

TEST_F(HttpSessionSending, AnInterimResponseDoesNotEndTheSending) {
  ScriptedServer server([this](Peer& peer) {
    peer.readHead();
    peer.send("HTTP/1.1 100 Continue\r\n\r\n");
    if (peer.readBytes(beyondBuffers)) bodyArrived.set();
    peer.send("HTTP/1.1 500 Late\r\n" + lengthOf(4) + "late");
    while (peer.readRequest()) peer.send(ok);
  });
  Client client(server);
  client.post(largeBody());
  EXPECT_EQ(client.rest(), "late");
  bodyArrived.wait();
  EXPECT_EQ(client.fetch(), "ok");
  EXPECT_EQ(server.connectionCount(), 1U);
}

TEST_F(HttpSessionSending, BytesBehindAnEarlyAnswerCloseTheConnection) {
  ScriptedServer server({[this](Peer& peer) {
                           peer.readHead();
                           peer.send(ok);
                           mayRead.wait();
                           peer.send("HTTP/1.1 200 OK\r\nContent-Length: 4\r\n\r\nevil");
                           if (peer.readBytes(beyondBuffers)) bodyArrived.set();
                           peer.awaitPeerClose();
                         },
                         answerWith({ok})});
  Client client(server);
  client.post(largeBody());
  mayRead.set();
  EXPECT_EQ(client.rest(), "ok");
  bodyArrived.wait();
  EXPECT_EQ(client.fetch(), "ok");
  EXPECT_EQ(server.connectionCount(), 2U);
}

TEST_F(HttpSessionSending, AnEarlyAnswerWithAResetIsTheAnswer) {
  for (const char* status : {"200 OK", "413 Too Large"}) {
    ScriptedServer server({[&](Peer& peer) {
                             peer.readHead();
                             peer.send("HTTP/1.1 " + std::string(status) + "\r\n" + lengthOf(6) +
                                       "answer");
                             peer.reset();
                           },
                           answerWith({ok})});
    Client client(server);
    client.send("POST", "/", largeBody());
    server.waitForEndedConnections(1);
    client.receive();
    EXPECT_TRUE(client.session.answerBegun());
    EXPECT_EQ(client.rest(), "answer");
    EXPECT_TRUE(client.session.body().complete());
    EXPECT_EQ(client.fetch(), "ok");
    EXPECT_EQ(server.connectionCount(), 2U);
  }
}

TEST_F(HttpSessionSending, AnEarlyAnswerIsTheAnswerWhereSendingFailsLater) {
  ScriptedServer server({[this](Peer& peer) {
                           peer.readHead();
                           peer.send(ok);
                           mayRead.wait();
                           peer.reset();
                         },
                         answerWith({ok})});
  Client client(server);
  client.post(largeBody());
  mayRead.set();
  server.waitForEndedConnections(1);
  EXPECT_EQ(client.rest(), "ok");
  EXPECT_TRUE(client.session.body().complete());
  EXPECT_EQ(client.fetch(), "ok");
  EXPECT_EQ(server.connectionCount(), 2U);
}

TEST_F(HttpSessionSending, WhereNothingCameTheFailureToSendIsTheFailure) {
  ScriptedServer server([](Peer& peer) {
    peer.readHead();
    peer.reset();
  });
  Client client(server);
  client.send("POST", "/", largeBody());
  server.waitForEndedConnections(1);
  EXPECT_THROW(client.receive(), Poco::IOException);
  EXPECT_TRUE(client.session.connected());
  EXPECT_FALSE(client.session.answerBegun());
}

TEST_F(HttpSessionSending, AnEarlyAnswerThatIsCutByAResetIsNoOtherAnswer) {
  ScriptedServer server([](Peer& peer) {
    peer.readHead();
    peer.send("HTTP/1.1 413 Too Lar");
    peer.reset();
  });
  Client client(server);
  client.send("POST", "/", largeBody());
  server.waitForEndedConnections(1);
  // What is wrong is the answer, not the sending.
  EXPECT_THAT([&] { client.receive(); },
              testing::Throws<Poco::IOException>(testing::Property(
                  &Poco::Exception::message, testing::Not(testing::HasSubstr("sending")))));
  EXPECT_TRUE(client.session.answerBegun());
}

// --- what is read past while the request goes out

// The server reads on when all of its answer is gone, which is more than sockets hold. What of the
// request is still on its way when the rest of the answer is given up, nobody knows.
TEST_F(HttpSessionSending, ALimitThatIsExceededMeanwhileDoesNotEndTheSending) {
  constexpr std::size_t size = beyondBuffers + HttpSession::drainBytes;
  mayRead.set();
  ScriptedServer server(
      answeringEarly("HTTP/1.1 200 OK\r\n" + lengthOf(size) + std::string(size, 'x')));
  Client client(server);
  client.post(largeBody()).get();
  client.session.finish(Leftover::OverLimit);
  answerTaken.wait();
  EXPECT_EQ(client.fetch(), "ok");
}

TEST_F(HttpSessionSending, TheTimeForReadingPastCountsFromWhenTheRequestIsOut) {
  ScriptedServer server([this](Peer& peer) {
    peer.readHead();
    peer.send(ok);
    mayRead.wait();
    peer.linger(HttpSession::drainTime + milliseconds(500));
    peer.readBytes(beyondBuffers);
    while (peer.readRequest()) peer.send(ok);
  });
  Client client(server);
  client.post(largeBody()).get();
  mayRead.set();
  client.session.finish(Leftover::OverLimit);
  EXPECT_EQ(client.fetch(), "ok");
  EXPECT_EQ(server.connectionCount(), 1U);
}

TEST_F(HttpSessionSending, ABodyThatNobodyWantsIsReadPastUntilTheRequestIsOut) {
  constexpr std::size_t size = beyondBuffers;
  mayRead.set();
  ScriptedServer server(
      answeringEarly("HTTP/1.1 200 OK\r\n" + lengthOf(size) + std::string(size, 'x')));
  Client client(server);
  client.post(largeBody());
  client.session.finish(Leftover::None);
  answerTaken.wait();
}

// --- the end of the answer, before that of the request

// Half a connection: the server has ended its answer, and takes the request all the same.
TEST_F(HttpSessionSending, BehindAnAnswerThatEndsWithTheConnectionTheRestIsSent) {
  ScriptedServer server([this](Peer& peer) {
    peer.readHead();
    peer.send("HTTP/1.1 200 OK\r\n\r\nall");
    peer.halfClose();
    mayRead.wait();
    if (peer.readBytes(beyondBuffers)) bodyArrived.set();
    peer.awaitPeerClose();
  });
  Client client(server);
  client.post(largeBody());
  EXPECT_EQ(readAll(client.session.body()), "all");
  mayRead.set();
  client.session.finish(Leftover::Little);
  bodyArrived.wait();
  server.waitForEndedConnections(1);
}

TEST_F(HttpSessionSending, AServerThatHasEndedItsAnswerAndDoesNotReadIsATimeoutThatChangesNothing) {
  ScriptedServer server([this](Peer& peer) {
    peer.readHead();
    peer.send("HTTP/1.1 200 OK\r\n\r\nall");
    peer.halfClose();
    mayRead.wait();
  });
  Route route = routeTo(server);
  route.timeout = milliseconds(200);
  Client client(route);
  client.post(largeBody());
  EXPECT_EQ(client.rest(), "all");  // does not wait for ever
  EXPECT_TRUE(client.session.body().complete());
  mayRead.set();
}

// --- deadlines

Clock::time_point soon() { return Clock::now() + milliseconds(200); }

TEST(HttpSessionDeadline, ThatHasPassedSendsNothing) {
  ScriptedServer server;
  Client client(server);
  client.session.setDeadline(Clock::now());
  EXPECT_THROW(client.send("GET"), DeadlineExceeded);
  EXPECT_FALSE(client.session.connected());
  EXPECT_EQ(server.connectionCount(), 0U);
}

TEST(HttpSessionDeadline, EndsTheWaitForAnAnswer) {
  ScriptedServer server([](Peer& peer) { peer.awaitPeerClose(); });
  Client client(server);
  client.session.setDeadline(soon());
  EXPECT_THROW(client.get(), DeadlineExceeded);
  server.waitForEndedConnections(1);
}

TEST(HttpSessionDeadline, EndsABodyAndMakesItBad) {
  ScriptedServer server(answerWith({"HTTP/1.1 200 OK\r\nContent-Length: 10\r\n\r\nshort"}));
  Client client(server);
  ResponseBody& body = client.get();
  client.session.setDeadline(soon());
  readLarge(body, 10);
  EXPECT_TRUE(body.bad());
  EXPECT_EQ(body.failure(), "Deadline exceeded");
}

TEST(HttpSessionDeadline, EndsASendingThatTheServerDoesNotTake) {
  Event done;
  ScriptedServer server([&](Peer&) { done.wait(); });
  Client client(server);
  client.session.setDeadline(soon());
  EXPECT_THROW(client.post(largeBody()), DeadlineExceeded);
  done.set();
}

// A server that never stops sending must not keep it from counting.
TEST(HttpSessionDeadline, CountsWhereBytesHaveComeToo) {
  Event sent;
  Event done;
  ScriptedServer server([&](Peer& peer) {
    peer.readHead();
    peer.send(ok);
    sent.set();
    done.wait();
  });
  Client client(server);
  client.send("POST", "/", largeBody());
  sent.wait();
  client.session.setDeadline(Clock::now());
  EXPECT_THROW(client.receive(), DeadlineExceeded);
  done.set();
}

TEST(HttpSessionDeadline, OfOneRequestIsNotTheNextOnes) {
  ScriptedServer server(answerWith({ok, ok}));
  Client client(server);
  client.session.setDeadline(Clock::now() + std::chrono::hours(1));
  EXPECT_EQ(client.fetch(), "ok");
  client.session.setDeadline(std::nullopt);
  EXPECT_EQ(client.fetch(), "ok");
  EXPECT_EQ(server.connectionCount(), 1U);
}

}  // namespace
}  // namespace connectivity::plugins
