// Exchanges over plain connections: requests, responses, and the ways in which they fail.
#include "plugins/http_client/wire/HttpSession.hpp"

#include <stdexcept>
#include <string>
#include <sys/socket.h>
#include <vector>

#include <Poco/Exception.h>
#include <Poco/Net/HTTPClientSession.h>
#include <Poco/Net/NetException.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/plugins/http_client/SessionClient.hpp"
#include "tests/support/Descriptor.hpp"
#include "tests/support/Event.hpp"
#include "tests/support/ScriptedServer.hpp"

namespace connectivity::plugins {
namespace {

using std::chrono::milliseconds;
using test_support::Event;
using test_support::ScriptedServer;
using testing::StartsWith;
using testing::Throws;
using testing::ThrowsMessage;
using Client = SessionClient;
using Peer = test_support::Connection;

template <typename Exception>
auto failsWith(const testing::Matcher<std::string>& message) {
  return Throws<Exception>(testing::Property(&Poco::Exception::message, message));
}

// Where the time-out is the subject.
Route impatientRouteTo(const ScriptedServer& server) {
  Route route = routeTo(server);
  route.timeout = milliseconds(200);
  return route;
}

TEST(HttpSession, ConnectsWithItsFirstRequest) {
  ScriptedServer server;
  Client client(server);
  EXPECT_EQ(server.connectionCount(), 0U);
  EXPECT_FALSE(client.session.connected());
  client.get();
  EXPECT_EQ(server.connectionCount(), 1U);
  EXPECT_TRUE(client.session.connected());
  EXPECT_EQ(client.session.route().port, server.port());
}

TEST(HttpSession, KeepsItsConnectionFromRequestToRequest) {
  ScriptedServer server;
  server.answer("/a", {200, {}, "first"});
  server.answer("/b", {404, {}, "second"});
  Client client(server);
  EXPECT_EQ(client.fetch("/a"), "first");
  EXPECT_EQ(client.fetch("/b"), "second");
  EXPECT_EQ(client.status(), 404);
  EXPECT_EQ(client.fetch("/a"), "first");
  EXPECT_EQ(server.connectionCount(), 1U);
}

TEST(HttpSession, SendsTheHeadAsItStands) {
  ScriptedServer server;
  Client client(server);
  const std::string head =
      "DELETE /a%2Fb?c=d HTTP/1.1\r\nHost: other.test\r\nX-Header: caf\xE9\r\n\r\n";
  client.session.send({.head = head, .body = {}, .isHead = false, .tunnelAuthorization = {}});
  client.receive();
  EXPECT_EQ(server.request(0).raw, head);
}

TEST(HttpSession, SendsBodiesOfEverySizeWhole) {
  ScriptedServer server;
  Client client(server);
  std::size_t index = 0;
  for (const std::size_t size : {1U, 100U, 16000U, 16384U, 20000U, 5000000U}) {
    std::string body(size, 'x');
    body.back() = '!';
    client.post(body);
    client.rest();
    EXPECT_EQ(server.request(index++).body, body);
  }
  EXPECT_EQ(server.connectionCount(), 1U);
}

TEST(HttpSession, SendsABodyOfManyPieces) {
  ScriptedServer server;
  Client client(server);
  std::vector<std::string> texts;
  for (int i = 0; i < 1000; ++i) texts.emplace_back(i % 3 == 0 ? i : i % 7, 'x');
  const std::vector<std::string_view> pieces(texts.begin(), texts.end());
  std::string whole;
  for (const std::string& text : texts) whole += text;
  const std::string head =
      "POST / HTTP/1.1\r\nContent-Length: " + std::to_string(whole.size()) + "\r\n\r\n";
  client.session.send({.head = head, .body = pieces, .isHead = false, .tunnelAuthorization = {}});
  client.receive();
  EXPECT_EQ(server.request(0).raw, head + whole);
}

TEST(HttpSession, ExpectsARequestBeforeAResponse) {
  ScriptedServer server;
  Client client(server);
  EXPECT_THROW(client.session.receive(), std::logic_error);
  client.get();
  EXPECT_THROW(client.session.receive(), std::logic_error);
}

TEST(HttpSession, ConnectsToANameToo) {
  ScriptedServer server;
  server.answer("/", {200, {}, "x"});
  Client client(routeTo(server, "localhost"));
  EXPECT_EQ(client.fetch(), "x");
}

TEST(HttpSession, TheProcessWideProxyOfPocoIsNotUsed) {
  Poco::Net::HTTPClientSession::ProxyConfig proxy;
  proxy.host = "127.0.0.1";
  proxy.port = 1;
  Poco::Net::HTTPClientSession::setGlobalProxyConfig(proxy);
  ScriptedServer server;
  server.answer("/", {200, {}, "direct"});
  Client client(server);
  EXPECT_EQ(client.fetch(), "direct");
  Poco::Net::HTTPClientSession::setGlobalProxyConfig({});
}

// --- responses

TEST(HttpSession, GivesTheHeadAsItWasSent) {
  ScriptedServer server(
      answerWith({"HTTP/1.0 299 Fine by me\r\nA: =?utf-8?q?=41?=\r\na: caf\xE9\r\n\r\n"}));
  Client client(server);
  client.get();
  const ResponseHead& head = client.session.head();
  EXPECT_EQ(head.status(), 299);
  EXPECT_EQ(head.minorVersion(), 0);
  EXPECT_EQ(head.reason(), "Fine by me");
  EXPECT_EQ(head.findAll("a"), (std::vector<std::string_view>{"=?utf-8?q?=41?=", "caf\xE9"}));
}

TEST(HttpSession, ReadsPastInterimResponses) {
  ScriptedServer server(answerWith(
      {"HTTP/1.1 100 Continue\r\n\r\nHTTP/1.1 102 Processing\r\n\r\nHTTP/1.1 103 Early Hints\r\n"
       "Link: x\r\n\r\nHTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\nok",
       ok}));
  Client client(server);
  EXPECT_EQ(client.fetch(), "ok");
  EXPECT_EQ(client.status(), 200);
  EXPECT_FALSE(client.session.head().find("Link"));
  EXPECT_EQ(client.fetch(), "ok");
  EXPECT_EQ(server.connectionCount(), 1U);
}

TEST(HttpSession, GivesUpOnEndlessInterimResponses) {
  std::string flood;
  for (int i = 0; i < 200; ++i) flood += "HTTP/1.1 100 Continue\r\n\r\n";
  ScriptedServer server(answerWith({flood}));
  Client client(server);
  EXPECT_THAT([&] { client.get(); },
              failsWith<Poco::Net::MessageException>("The server sent too many interim responses"));
}

TEST(HttpSession, ReadsChunkedBodiesWithTrailers) {
  ScriptedServer server([](Peer& peer) {
    while (peer.readRequest()) peer.sendChunked(200, {}, {"hello", " ", "world"}, {{"A", "b"}});
  });
  Client client(server);
  EXPECT_EQ(client.fetch(), "hello world");
  EXPECT_EQ(client.fetch(), "hello world");
  EXPECT_EQ(server.connectionCount(), 1U);
}

TEST(HttpSession, TellsABodyThatWasCutShort) {
  ScriptedServer server(answerAndClose("HTTP/1.1 200 OK\r\nContent-Length: 10\r\n\r\nshort"));
  Client client(server);
  ResponseBody& body = client.get();
  EXPECT_EQ(readAll(body), "short");
  EXPECT_TRUE(body.cutShort());
}

TEST(HttpSession, AResetWithinTheBodyMakesItBad) {
  Event headReceived;
  ScriptedServer server([&](Peer& peer) {
    peer.readRequest();
    peer.send("HTTP/1.1 200 OK\r\nContent-Length: 10\r\n\r\n");
    headReceived.wait();
    peer.reset();
  });
  Client client(server);
  ResponseBody& body = client.get();
  headReceived.set();
  readLarge(body, 10);
  EXPECT_TRUE(body.bad());
  EXPECT_EQ(body.failure(), "Connection reset by peer: receiving from the server");
}

TEST(HttpSession, SilenceWithinTheBodyMakesItBadAfterTheTimeout) {
  ScriptedServer server(answerWith({"HTTP/1.1 200 OK\r\nContent-Length: 10\r\n\r\nshort"}));
  Client client(impatientRouteTo(server));
  ResponseBody& body = client.get();
  readLarge(body, 10);
  EXPECT_TRUE(body.bad());
  EXPECT_EQ(body.failure(), "Timeout: The server sent nothing within the time-out");
}

TEST(HttpSession, ReadsAHeadHoweverItIsCut) {
  ScriptedServer server([](Peer& peer) {
    test_support::Gate gate;
    gate.open(1000);
    const std::string answer = "HTTP/1.1 200 Fine by me\r\nA: b\r\nContent-Length: 2\r\n\r\nok";
    while (peer.readRequest()) peer.trickle(answer, answer.size(), gate);
  });
  Client client(server);
  EXPECT_EQ(client.fetch(), "ok");
  EXPECT_EQ(client.session.head().reason(), "Fine by me");
  EXPECT_EQ(client.session.head().find("A"), "b");
}

TEST(HttpSession, TakesBareLineFeedsAndBlankLinesInFrontOfAHead) {
  ScriptedServer server(answerWith({"\r\n\nHTTP/1.1 200 OK\nContent-Length: 2\n\nok"}));
  Client client(server);
  EXPECT_EQ(client.fetch(), "ok");
}

// Around the sizes of the blocks in which heads are read.
TEST(HttpSession, ReadsHeaderLinesOfEveryLength) {
  for (const std::size_t length : {4093U, 4096U, 8000U, 16320U, 16384U, 16400U, 100000U}) {
    const std::string line = "A: " + std::string(length - 3, 'x');
    ScriptedServer server(
        answerWith({"HTTP/1.1 200 OK\r\n" + line + "\r\nContent-Length: 2\r\n\r\nok", ok}));
    Client client(server);
    EXPECT_EQ(client.fetch(), "ok");
    EXPECT_EQ(client.session.head().find("A").value_or("").size(), length - 3);
    EXPECT_EQ(client.fetch(), "ok");
    EXPECT_EQ(server.connectionCount(), 1U);
  }
}

TEST(HttpSession, BoundsTheHeadByItsBytesAlone) {
  std::string many = "HTTP/1.1 200 OK\r\nContent-Length: 2\r\n";
  for (int i = 0; i < 5000; ++i) many += "A: b\r\n";
  ScriptedServer manyFields(answerWith({many + "\r\nok"}));
  Client taker(manyFields);
  EXPECT_EQ(taker.fetch(), "ok");
  std::string tooLarge = "HTTP/1.1 200 OK\r\n";
  for (int i = 0; i < 40; ++i) tooLarge += "A: " + std::string(8000, 'x') + "\r\n";
  const std::string endless = "HTTP/1.1 200 OK\r\nA: " + std::string(1000000, 'x');
  for (const std::string& head : {tooLarge + "\r\n", endless}) {
    ScriptedServer server(answerWith({head}));
    Client client(server);
    EXPECT_THAT([&] { client.get(); },
                failsWith<Poco::Net::MessageException>("The response head is too large"));
  }
}

TEST(HttpSession, RefusesWhatIsNoResponseHeadAndClosesTheConnection) {
  for (const char* head :
       {"SSH-2.0-OpenSSH_9.2\r\n\r\n", "HTTP/1.1 abc OK\r\n\r\n", "HTTP/1.1\r\n\r\n",
        "HTTP/1.1 20x OK\r\n\r\n", "<html></html>\n\n",
        "HTTP/1.1 200 OK\r\nContent-Length: abc\r\n\r\n",
        "HTTP/1.1 200 OK\r\nContent-Length: -1\r\n\r\n",
        "HTTP/1.1 200 OK\r\nContent-Length: +1\r\n\r\n",
        "HTTP/1.1 200 OK\r\nContent-Length:\r\n\r\n",
        "HTTP/1.1 200 OK\r\nContent-Length: 1 2\r\n\r\n",
        "HTTP/1.1 200 OK\r\nContent-Length: 99999999999999999999\r\n\r\n",
        "HTTP/1.1 200 OK\r\nContent-Length: 1\r\nContent-Length: 2\r\n\r\n",
        "HTTP/1.1 200 OK\r\nContent-Length: 1, 2\r\n\r\n",
        "HTTP/1.1 200 OK\r\nTransfer-Encoding: gzip, chunked\r\n\r\n",
        "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\nTransfer-Encoding: chunked\r\n\r\n"}) {
    ScriptedServer server(answerWith({head}));
    Client client(server);
    EXPECT_THROW(client.get(), Poco::Net::MessageException) << head;
    EXPECT_TRUE(client.session.answerBegun());
    server.waitForEndedConnections(1);
  }
}

// --- connections that fail

TEST(HttpSession, SilenceAfterTheRequestIsATimeout) {
  ScriptedServer server([](Peer& peer) { peer.awaitPeerClose(); });
  Client client(impatientRouteTo(server));
  EXPECT_THAT([&] { client.get(); },
              failsWith<Poco::TimeoutException>("The server sent nothing within the time-out"));
  EXPECT_TRUE(client.session.connected());
  EXPECT_FALSE(client.session.answerBegun());
  server.waitForEndedConnections(1);
}

TEST(HttpSession, AServerThatTakesNoBodyIsATimeout) {
  Event done;
  ScriptedServer server([&](Peer&) { done.wait(); });
  Client client(impatientRouteTo(server));
  const std::string body(beyondBuffers, 'x');
  EXPECT_THAT([&] { client.post(body); },
              failsWith<Poco::TimeoutException>("The server took no data within the time-out"));
  done.set();
}

TEST(HttpSession, ReportsAConnectionThatEndsWithoutAnAnswer) {
  ScriptedServer server([](Peer& peer) { peer.readRequest(); });
  Client client(server);
  EXPECT_THAT([&] { client.get(); }, failsWith<Poco::Net::NoMessageException>(
                                         "The server closed the connection without an answer"));
  EXPECT_TRUE(client.session.connected());
  EXPECT_FALSE(client.session.answerBegun());
}

TEST(HttpSession, ReportsAConnectionThatEndsWithinTheHead) {
  ScriptedServer server(answerAndClose("HTTP/1.1 200 OK\r\nContent-Le"));
  Client client(server);
  EXPECT_THAT([&] { client.get(); },
              failsWith<Poco::Net::MessageException>(
                  "The server closed the connection within the response head"));
  EXPECT_TRUE(client.session.answerBegun());
}

TEST(HttpSession, TakesAnInterimResponseForTheBeginningOfTheAnswer) {
  ScriptedServer server(answerAndClose("HTTP/1.1 100 Continue\r\n\r\n"));
  Client client(server);
  EXPECT_THROW(client.get(), Poco::Net::MessageException);
  EXPECT_TRUE(client.session.answerBegun());
}

// A retry would send the request twice without anybody knowing.
TEST(HttpSession, NeverSendsARequestAgainByItself) {
  ScriptedServer server([](Peer& peer) {
    peer.readRequest();
    peer.send(ok);
    peer.readHead();  // the second request; its answer is a reset
    peer.reset();
  });
  Client client(server);
  EXPECT_EQ(client.fetch(), "ok");
  const std::string body(10000000, 'x');
  EXPECT_THROW(client.post(body), Poco::IOException);
  EXPECT_FALSE(client.session.answerBegun());
  EXPECT_EQ(server.connectionCount(), 1U);
  EXPECT_EQ(server.requestCount(), 2U);
}

// As in a thread of the host that blocks no signals.
TEST(HttpSession, AClosedConnectionRaisesNoSignal) {
  unblockSigpipe();
  Event done;
  ScriptedServer server([&](Peer& peer) {
    peer.readRequest();
    peer.send(ok);
    done.wait();
  });
  Client client(impatientRouteTo(server));
  EXPECT_EQ(client.fetch(), "ok");
  ASSERT_EQ(::shutdown(descriptorOfConnectionTo(server.port()), SHUT_WR), 0);
  EXPECT_THAT([&] { client.get(); },
              failsWith<Poco::IOException>("sending to the server: broken pipe"));
  EXPECT_EQ(server.connectionCount(), 1U);
  done.set();
}

TEST(HttpSession, ReportsAPortWhereNobodyListens) {
  const int port = test_support::unusedPort();
  Client client(routeTo(port));
  EXPECT_THAT([&] { client.send("GET"); }, failsWith<Poco::Net::ConnectionRefusedException>(
                                               "127.0.0.1:" + std::to_string(port)));
  EXPECT_FALSE(client.session.connected());
}

TEST(HttpSession, ReportsAHostThatDoesNotExist) {
  Client client(routeTo(80, "no-such-host.invalid"));
  EXPECT_THROW(client.send("GET"), Poco::Net::NetException);
  EXPECT_FALSE(client.session.connected());
}

}  // namespace
}  // namespace connectivity::plugins
