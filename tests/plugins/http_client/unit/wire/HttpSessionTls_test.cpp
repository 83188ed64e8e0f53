// Sessions over TLS: what they send and receive, and connections that end.
#include <memory>
#include <string>
#include <utility>

#include <Poco/Exception.h>
#include <Poco/Net/NetException.h>
#include <Poco/Net/SSLException.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "plugins/http_client/wire/HttpSession.hpp"
#include "plugins/http_client/wire/TlsContexts.hpp"
#include "tests/plugins/http_client/SecureSessionClient.hpp"
#include "tests/support/Certificates.hpp"
#include "tests/support/Event.hpp"
#include "tests/support/ScriptedServer.hpp"

namespace connectivity::plugins {
namespace {

using std::chrono::milliseconds;
using test_support::CertificateAuthority;
using test_support::Event;
using test_support::ScriptedServer;
using test_support::TlsOptions;
using test_support::TlsVersion;
using testing::Throws;
using Peer = test_support::Connection;
using Script = ScriptedServer::Script;

using Client = SecureSessionClient;

class HttpSessionTls : public testing::Test {
 protected:
  TlsOptions tls(TlsVersion version = TlsVersion::Any) {
    return {.certificate = authority.issue(), .version = version};
  }
  // Where the time-out is the subject; the handshake must be done within it.
  Route impatientRouteTo(const ScriptedServer& server) {
    Route route = secureRouteTo(server, contexts);
    route.timeout = milliseconds(2000);
    return route;
  }

  CertificateAuthority authority;
  TlsContexts contexts{{authority.caFile(), false}};
};

TEST_F(HttpSessionTls, KeepsItsConnectionFromRequestToRequest) {
  for (const TlsVersion version : {TlsVersion::Only12, TlsVersion::Only13}) {
    ScriptedServer server(tls(version));
    server.answer("/a", {200, {}, "first"});
    server.answer("/b", {200, {}, std::string(100000, 'x')});
    Client client(server, contexts);
    EXPECT_EQ(client.fetch("/a"), "first");
    EXPECT_EQ(client.fetch("/b"), std::string(100000, 'x'));
    EXPECT_EQ(client.fetch("/a"), "first");
    EXPECT_EQ(server.connectionCount(), 1U);
  }
}

TEST_F(HttpSessionTls, SendsBodiesOfEverySizeWhole) {
  ScriptedServer server(tls());
  Client client(server, contexts);
  std::size_t index = 0;
  for (const std::size_t size : {1U, 16000U, 20000U, 3000000U}) {
    std::string body(size, 'x');
    body.back() = '!';
    client.post(body);
    client.rest();
    EXPECT_EQ(server.request(index++).body, body);
  }
  EXPECT_EQ(server.connectionCount(), 1U);
}

// --- connections that end

Script answerAndEnd(const std::string& answer, bool notice) {
  return [=](Peer& peer) {
    peer.readRequest();
    peer.send(answer);
    if (!notice) peer.closeWithoutNotify();
  };
}

TEST_F(HttpSessionTls, ConnectsAnewWhereTheServerHasClosed) {
  for (const bool notice : {true, false}) {
    ScriptedServer server(answerAndEnd(ok, notice), tls());
    Client client(server, contexts);
    EXPECT_EQ(client.fetch(), "ok");
    server.waitForEndedConnections(1);
    EXPECT_EQ(client.fetch(), "ok");
    EXPECT_EQ(server.connectionCount(), 2U);
  }
}

TEST_F(HttpSessionTls, ClosesTheConnectionWhereStrayBytesFollowAResponse) {
  ScriptedServer server(answerWith({std::string(ok) + "HTTP/1.1 200 OK\r\n\r\n"}), tls());
  Client client(server, contexts);
  EXPECT_EQ(client.fetch(), "ok");
  server.waitForEndedConnections(1);
  EXPECT_EQ(client.fetch(), "ok");
  EXPECT_EQ(server.connectionCount(), 2U);
}

TEST_F(HttpSessionTls, ConnectsAnewWhereStrayBytesCameLater) {
  Event first;
  Event straySent;
  ScriptedServer server(
      [&](Peer& peer) {
        while (peer.readRequest()) {
          peer.send(ok);
          first.wait();
          peer.send("HTTP/1.1 200 OK\r\nContent-Length: 4\r\n\r\nevil");
          straySent.set();
        }
      },
      tls());
  Client client(server, contexts);
  EXPECT_EQ(client.fetch(), "ok");
  first.set();
  straySent.wait();
  EXPECT_EQ(client.fetch(), "ok");
  EXPECT_EQ(server.connectionCount(), 2U);
}

TEST_F(HttpSessionTls, AnAnswerThatNeverComesIsAnIoFailure) {
  ScriptedServer withNotice(answerAndEnd("", true), tls());
  Client first(withNotice, contexts);
  EXPECT_THROW(first.get(), Poco::Net::NoMessageException);
  ScriptedServer withoutNotice(answerAndEnd("", false), tls());
  Client second(withoutNotice, contexts);
  EXPECT_THROW(second.get(), Poco::Net::SSLConnectionUnexpectedlyClosedException);
  EXPECT_FALSE(second.session.answerBegun());
}

TEST_F(HttpSessionTls, ABodyWhoseEndIsAnnouncedNeedsNoNotice) {
  for (const char* framed : {"Content-Length: 5\r\n\r\nwhole",
                             "Transfer-Encoding: chunked\r\n\r\n5\r\nwhole\r\n0\r\n\r\n"}) {
    ScriptedServer server(answerAndEnd("HTTP/1.1 200 OK\r\n" + std::string(framed), false), tls());
    Client client(server, contexts);
    ResponseBody& body = client.get();
    server.waitForEndedConnections(1);
    EXPECT_EQ(readLarge(body, 100), "whole");
    EXPECT_TRUE(body.complete());
    EXPECT_FALSE(body.bad());
  }
}

TEST_F(HttpSessionTls, AShortBodyIsCutShortWithAndWithoutNotice) {
  for (const char* framed :
       {"Content-Length: 10\r\n\r\nshort", "Transfer-Encoding: chunked\r\n\r\n5\r\nshort\r\n"}) {
    for (const bool notice : {true, false}) {
      ScriptedServer server(answerAndEnd("HTTP/1.1 200 OK\r\n" + std::string(framed), notice),
                            tls());
      Client client(server, contexts);
      ResponseBody& body = client.get();
      EXPECT_EQ(readLarge(body, 100), "short");
      EXPECT_TRUE(body.cutShort());
      EXPECT_FALSE(body.bad());
    }
  }
}

TEST_F(HttpSessionTls, ABodyWithoutLengthMustEndWithANotice) {
  const std::string answer = "HTTP/1.1 200 OK\r\n\r\nuntil the end";
  ScriptedServer honest(answerAndEnd(answer, true), tls());
  Client first(honest, contexts);
  EXPECT_EQ(readAll(first.get()), "until the end");
  EXPECT_TRUE(first.session.body().complete());
  ScriptedServer cut(answerAndEnd(answer, false), tls());
  Client second(cut, contexts);
  ResponseBody& body = second.get();
  readLarge(body, 100);
  EXPECT_TRUE(body.bad());
  EXPECT_FALSE(body.complete());
  EXPECT_THAT(body.failure(),
              testing::EndsWith("The server closed the connection without ending TLS"));
}

TEST_F(HttpSessionTls, SilenceIsATimeout) {
  ScriptedServer server(answerWith({""}), tls());
  SessionClient client(impatientRouteTo(server));
  EXPECT_THAT([&] { client.get(); },
              Throws<Poco::TimeoutException>(testing::Property(
                  &Poco::Exception::message, "The server sent nothing within the time-out")));
}

TEST_F(HttpSessionTls, SaysGoodbyeWhenItEnds) {
  Event ended;
  ScriptedServer server(
      [&](Peer& peer) {
        peer.readRequest();
        peer.send(ok);
        peer.awaitPeerClose();
        ended.set();
      },
      tls());
  {
    Client client(server, contexts);
    EXPECT_EQ(client.fetch(), "ok");
  }
  ended.wait();
}

TEST_F(HttpSessionTls, AClosedConnectionRaisesNoSignal) {
  unblockSigpipe();
  Event done;
  ScriptedServer server(
      [&](Peer& peer) {
        peer.readRequest();
        peer.send(ok);
        done.wait();
      },
      tls());
  {
    SessionClient client(impatientRouteTo(server));
    EXPECT_EQ(client.fetch(), "ok");
    ASSERT_EQ(::shutdown(descriptorOfConnectionTo(server.port()), SHUT_WR), 0);
    client.send("GET");
    EXPECT_THAT([&] { client.receive(); },
                Throws<Poco::IOException>(testing::Property(&Poco::Exception::message,
                                                            "sending to the server: broken pipe")));
    EXPECT_EQ(server.connectionCount(), 1U);
  }
  {
    Client client(server, contexts);
    EXPECT_EQ(client.fetch(), "ok");
    ASSERT_EQ(::shutdown(descriptorOfConnectionTo(server.port()), SHUT_WR), 0);
  }  // says goodbye to a peer that it can no longer reach
  done.set();
}

// --- sending and receiving at once

TEST_F(HttpSessionTls, AServerThatAnswersAsItReadsDoesNotStall) {
  for (const TlsVersion version : {TlsVersion::Only12, TlsVersion::Only13}) {
    ScriptedServer server(
        [](Peer& peer) {
          peer.readHead();
          peer.send("HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string(beyondBuffers) +
                    "\r\n\r\n");
          for (std::size_t echoed = 0; echoed < beyondBuffers;) {
            const std::string piece = peer.readSome();
            if (piece.empty()) return;
            peer.send(piece);
            echoed += piece.size();
          }
          while (peer.readRequest()) peer.send(ok);
        },
        tls(version));
    Client client(server, contexts);
    std::string body(beyondBuffers, 'x');
    for (std::size_t at = 0; at < body.size(); at += 1000) body[at] = static_cast<char>(at / 1000);
    client.post(body);
    EXPECT_TRUE(client.rest() == body);
    EXPECT_EQ(client.fetch(), "ok");
    EXPECT_EQ(server.connectionCount(), 1U);
  }
}

TEST_F(HttpSessionTls, AnEarlyAnswerWithAResetIsTheAnswer) {
  ScriptedServer server(
      [](Peer& peer) {
        peer.readHead();
        peer.sendResponse(413, {}, "answer");
        peer.reset();
      },
      tls());
  Client client(server, contexts);
  const std::string body(beyondBuffers, 'x');
  client.send("POST", "/", body);
  server.waitForEndedConnections(1);
  client.receive();
  EXPECT_EQ(client.status(), 413);
  EXPECT_EQ(client.rest(), "answer");
  EXPECT_TRUE(client.session.body().complete());
}

}  // namespace
}  // namespace connectivity::plugins
