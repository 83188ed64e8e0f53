// Sessions over TLS: handshakes, the ways in which they fail, and connections that end.
#include <csignal>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include <Poco/Exception.h>
#include <Poco/Net/NetException.h>
#include <Poco/Net/SSLException.h>
#include <Poco/Timespan.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "plugins/http_client/wire/PersistentSession.hpp"
#include "plugins/http_client/wire/TlsContexts.hpp"
#include "tests/plugins/http_client/SessionClient.hpp"
#include "tests/support/Certificates.hpp"
#include "tests/support/Event.hpp"
#include "tests/support/ScriptedServer.hpp"

namespace connectivity::plugins {
namespace {

using Poco::Net::HTTPRequest;
using Poco::Net::SSLException;
using test_support::CertificateAuthority;
using test_support::Event;
using test_support::ScriptedServer;
using test_support::TlsOptions;
using test_support::TlsVersion;
using testing::HasSubstr;
using testing::StartsWith;
using testing::Throws;
using Peer = test_support::Connection;
using Script = ScriptedServer::Script;

auto failsWith(const testing::Matcher<std::string>& text) {
  return Throws<SSLException>(testing::Property(&Poco::Exception::message, text));
}

struct Client : SessionClient {
  Client(const ScriptedServer& server, TlsContexts& contexts, const std::string& host = "localhost")
      : SessionClient(openSession(host, static_cast<std::uint16_t>(server.port()),
                                  contexts.contextFor(host))) {}
};

class PersistentSessionTls : public testing::Test {
 protected:
  TlsOptions tls(TlsVersion version = TlsVersion::Any) {
    return {.certificate = authority.issue(), .version = version};
  }
  CertificateAuthority authority;
  TlsContexts contexts{{authority.caFile(), false}};
};

TEST_F(PersistentSessionTls, KeepsItsConnectionFromRequestToRequest) {
  for (const TlsVersion version : {TlsVersion::Only12, TlsVersion::Only13}) {
    ScriptedServer server(tls(version));
    server.answer("/a", {200, {}, "first"});
    server.answer("/b", {200, {}, std::string(100000, 'x')});
    Client client(server, contexts);
    EXPECT_TRUE(client.session->secure());
    EXPECT_EQ(readAll(client.get("/a")), "first");
    EXPECT_EQ(readAll(client.get("/b")), std::string(100000, 'x'));
    EXPECT_EQ(readAll(client.get("/a")), "first");
    EXPECT_EQ(server.connectionCount(), 1U);
  }
}

TEST_F(PersistentSessionTls, SendsBodiesOfEverySizeWhole) {
  ScriptedServer server(tls());
  Client client(server, contexts);
  std::size_t index = 0;
  for (const std::size_t size : {1U, 16000U, 20000U, 3000000U}) {
    std::string body(size, 'x');
    body.back() = '!';
    readAll(client.post(body));
    EXPECT_EQ(server.request(index++).body, body);
  }
  EXPECT_EQ(server.connectionCount(), 1U);
}

TEST_F(PersistentSessionTls, VerifiesAnAddressAsWellAsAName) {
  ScriptedServer server(tls());
  server.answer("/", {200, {}, "x"});
  Client client(server, contexts, "127.0.0.1");
  EXPECT_EQ(readAll(client.get()), "x");
}

TEST_F(PersistentSessionTls, ACertificateOfAnUnknownAuthorityIsRefusedWithTheReason) {
  ScriptedServer server(tls());
  CertificateAuthority other("Other Authority");
  TlsContexts contextsOfOther({other.caFile(), false});
  Client client(server, contextsOfOther);
  EXPECT_THAT([&] { client.get(); },
              failsWith("certificate verify failed: unable to get local issuer certificate"));
  EXPECT_EQ(server.requestCount(), 0U);
}

TEST_F(PersistentSessionTls, ASelfSignedCertificateIsRefusedWithTheReason) {
  ScriptedServer server(TlsOptions{authority.issueSelfSigned()});
  Client client(server, contexts);
  EXPECT_THAT([&] { client.get(); },
              failsWith("certificate verify failed: self-signed certificate"));
}

TEST_F(PersistentSessionTls, AnExpiredCertificateIsRefusedWithTheReason) {
  ScriptedServer server(TlsOptions{authority.issueExpired()});
  Client client(server, contexts);
  EXPECT_THAT([&] { client.get(); },
              failsWith("certificate verify failed: certificate has expired"));
}

TEST_F(PersistentSessionTls, ACertificateForAnotherHostIsRefusedWithTheReason) {
  ScriptedServer server(TlsOptions{authority.issueForOtherName()});
  Client byName(server, contexts);
  EXPECT_THAT([&] { byName.get(); }, failsWith("certificate verify failed: hostname mismatch"));
  Client byAddress(server, contexts, "127.0.0.1");
  EXPECT_THAT([&] { byAddress.get(); },
              failsWith("certificate verify failed: IP address mismatch"));
}

TEST_F(PersistentSessionTls, AcceptsEveryCertificateWhereItIsToldTo) {
  TlsContexts accepting({"", true});
  for (const auto& certificate : {authority.issueSelfSigned(), authority.issueExpired(),
                                  authority.issueForOtherName(), authority.issue()}) {
    ScriptedServer server(TlsOptions{certificate});
    server.answer("/", {200, {}, "x"});
    Client client(server, accepting);
    EXPECT_EQ(readAll(client.get()), "x");
  }
}

TEST_F(PersistentSessionTls, ASlowHandshakeTimesOutAndNeverPassesUnverified) {
  Event never;
  TlsOptions slow{authority.issueForOtherName()};
  slow.handshakeAfter = &never;
  ScriptedServer server([](Peer&) {}, slow);
  Client client(server, contexts);
  client.session->poco().setTimeout(Poco::Timespan(0, 100000));  // the time-out is the subject
  EXPECT_THAT([&] { client.get(); },
              Throws<Poco::TimeoutException>(
                  testing::Property(&Poco::Exception::message, "The TLS handshake timed out")));
  never.set();
}

TEST_F(PersistentSessionTls, AServerThatDoesNotSpeakTlsIsAnError) {
  ScriptedServer server([](Peer& peer) { peer.send("HTTP/1.1 400 Bad Request\r\n\r\n"); });
  Client client(server, contexts);
  EXPECT_THAT([&] { client.get(); }, failsWith(StartsWith("TLS handshake failed: ")));
}

TEST_F(PersistentSessionTls, AServerThatClosesWithinTheHandshakeIsAnError) {
  ScriptedServer server([](Peer& peer) { peer.readBytes(1); });
  Client client(server, contexts);
  EXPECT_THROW(client.get(), Poco::IOException);
}

TEST_F(PersistentSessionTls, ConnectsAnewWhereTheServerHasClosed) {
  const Script withNotice = [](Peer& peer) {
    peer.readRequest();
    peer.send(ok);
  };
  const Script withoutNotice = [](Peer& peer) {
    peer.readRequest();
    peer.send(ok);
    peer.closeWithoutNotify();
  };
  for (const Script& script : {withNotice, withoutNotice}) {
    ScriptedServer server(script, tls());
    Client client(server, contexts);
    EXPECT_EQ(readAll(client.get()), "ok");
    server.waitForEndedConnections(1);
    EXPECT_EQ(readAll(client.get()), "ok");
    EXPECT_EQ(server.connectionCount(), 2U);
  }
}

TEST_F(PersistentSessionTls, ConnectsAnewWhereStrayBytesFollowAResponse) {
  ScriptedServer server(
      [](Peer& peer) {
        while (peer.readRequest()) peer.send(std::string(ok) + "HTTP/1.1 200 OK\r\n\r\n");
      },
      tls());
  Client client(server, contexts);
  EXPECT_EQ(readAll(client.get()), "ok");
  EXPECT_EQ(readAll(client.get()), "ok");
  EXPECT_EQ(server.connectionCount(), 2U);
}

TEST_F(PersistentSessionTls, ConnectsAnewWhereStrayBytesCameLater) {
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
  EXPECT_EQ(readAll(client.get()), "ok");
  first.set();
  straySent.wait();
  EXPECT_EQ(readAll(client.get()), "ok");
  EXPECT_EQ(server.connectionCount(), 2U);
}

TEST_F(PersistentSessionTls, AnAnswerThatNeverComesIsAnIoFailure) {
  ScriptedServer withNotice([](Peer& peer) { peer.readRequest(); }, tls());
  Client first(withNotice, contexts);
  EXPECT_THROW(first.get(), Poco::Net::NoMessageException);
  ScriptedServer withoutNotice(
      [](Peer& peer) {
        peer.readRequest();
        peer.closeWithoutNotify();
      },
      tls());
  Client second(withoutNotice, contexts);
  EXPECT_THROW(second.get(), Poco::IOException);
}

TEST_F(PersistentSessionTls, AShortBodyIsCutShortWithAndWithoutNotice) {
  for (const bool notice : {true, false}) {
    ScriptedServer server(
        [notice](Peer& peer) {
          peer.readRequest();
          peer.send("HTTP/1.1 200 OK\r\nContent-Length: 10\r\n\r\nshort");
          if (!notice) peer.closeWithoutNotify();
        },
        tls());
    Client client(server, contexts);
    ResponseBody& body = client.get();
    EXPECT_EQ(readAll(body), "short");
    EXPECT_TRUE(body.cutShort());
    EXPECT_FALSE(body.bad());
  }
}

TEST_F(PersistentSessionTls, ABodyWithoutLengthMustEndWithANotice) {
  const std::string answer = "HTTP/1.1 200 OK\r\n\r\nuntil the end";
  ScriptedServer honest(
      [&](Peer& peer) {
        peer.readRequest();
        peer.send(answer);
      },
      tls());
  Client first(honest, contexts);
  EXPECT_EQ(readAll(first.get()), "until the end");
  ScriptedServer cut(
      [&](Peer& peer) {
        peer.readRequest();
        peer.send(answer);
        peer.closeWithoutNotify();
      },
      tls());
  Client second(cut, contexts);
  ResponseBody& body = second.get();
  char bytes[100];
  body.read(bytes, sizeof bytes);
  EXPECT_TRUE(body.bad());
  EXPECT_FALSE(body.complete());
}

TEST_F(PersistentSessionTls, SilenceIsATimeout) {
  ScriptedServer server(
      [](Peer& peer) {
        peer.readRequest();
        peer.awaitPeerClose();
      },
      tls());
  Client client(server, contexts);
  client.session->poco().setTimeout(Poco::Timespan(0, 500000));  // the time-out is the subject
  EXPECT_THROW(client.get(), Poco::TimeoutException);
}

// As in a thread of the host that blocks no signals.
TEST_F(PersistentSessionTls, AClosedConnectionRaisesNoSignal) {
  sigset_t pipeSignal;
  sigemptyset(&pipeSignal);
  sigaddset(&pipeSignal, SIGPIPE);
  pthread_sigmask(SIG_UNBLOCK, &pipeSignal, nullptr);
  Event done;
  ScriptedServer server(
      [&](Peer& peer) {
        peer.readRequest();
        peer.send(ok);
        done.wait();
      },
      tls());
  Client client(server, contexts);
  EXPECT_EQ(readAll(client.get()), "ok");
  client.session->poco().socket().shutdownSend();
  EXPECT_THAT([&] { client.get(); }, Throws<Poco::IOException>(testing::Property(
                                         &Poco::Exception::displayText, HasSubstr("Broken pipe"))));
  client.session.reset();  // says goodbye to a peer that no longer listens
  done.set();
}

TEST_F(PersistentSessionTls, SaysGoodbyeWhenItEnds) {
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
    EXPECT_EQ(readAll(client.get()), "ok");
  }
  ended.wait();
}

}  // namespace
}  // namespace connectivity::plugins
