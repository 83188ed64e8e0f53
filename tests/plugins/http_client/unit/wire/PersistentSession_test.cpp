#include "plugins/http_client/wire/PersistentSession.hpp"

#include <csignal>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include <Poco/Exception.h>
#include <Poco/Net/HTMLForm.h>
#include <Poco/Net/NetException.h>
#include <Poco/Timespan.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/plugins/http_client/SessionClient.hpp"
#include "tests/support/Descriptor.hpp"
#include "tests/support/Event.hpp"
#include "tests/support/ScriptedServer.hpp"

namespace connectivity::plugins {
namespace {

using Poco::Net::HTTPRequest;
using test_support::Event;
using test_support::ScriptedServer;
using testing::AllOf;
using testing::HasSubstr;
using testing::StartsWith;
using testing::Throws;
using testing::ThrowsMessage;
using Peer = test_support::Connection;
using Script = ScriptedServer::Script;

// Reads a request, then sends these bytes.
Script answerWith(std::vector<std::string> answers) {
  return [answers = std::move(answers)](Peer& peer) {
    for (const std::string& answer : answers) {
      if (!peer.readRequest()) return;
      peer.send(answer);
    }
    peer.awaitPeerClose();
  };
}

// One answer, then the end of the connection.
Script answerAndClose(std::string answer) {
  return [answer = std::move(answer)](Peer& peer) {
    peer.readRequest();
    peer.send(answer);
  };
}

struct Client : SessionClient {
  explicit Client(const ScriptedServer& server, const std::string& host = "127.0.0.1")
      : SessionClient(openSession(host, static_cast<std::uint16_t>(server.port()))) {}
};

TEST(PersistentSession, ConnectsWithItsFirstRequest) {
  ScriptedServer server;
  Client client(server);
  EXPECT_FALSE(client.session->poco().connected());
  client.get();
  EXPECT_TRUE(client.session->poco().connected());
  EXPECT_FALSE(client.session->secure());
}

TEST(PersistentSession, KeepsItsConnectionFromRequestToRequest) {
  ScriptedServer server;
  server.answer("/a", {200, {}, "first"});
  server.answer("/b", {404, {}, "second"});
  Client client(server);
  EXPECT_EQ(readAll(client.get("/a")), "first");
  EXPECT_EQ(readAll(client.get("/b")), "second");
  EXPECT_EQ(client.response.getStatus(), 404);
  EXPECT_EQ(readAll(client.get("/a")), "first");
  EXPECT_EQ(server.connectionCount(), 1U);
}

TEST(PersistentSession, IsUsableThroughItsPocoInterface) {
  ScriptedServer server;
  server.answer("/a", {200, {}, "first"});
  Client client(server);
  Poco::Net::HTTPClientSession& poco = client.session->poco();
  HTTPRequest request("GET", "/a", "HTTP/1.1");
  poco.sendRequest(request);
  EXPECT_EQ(readAll(poco.receiveResponse(client.response)), "first");
  EXPECT_EQ(client.response.getReason(), "OK");
}

TEST(PersistentSession, SendsTheHeadAsItStandsWithAHost) {
  ScriptedServer server;
  Client client(server);
  HTTPRequest request("DELETE", "/a%2Fb?c=d", "HTTP/1.1");
  request.set("X-Header", "caf\xE9");
  readAll(client.exchange(request));
  EXPECT_EQ(server.request(0).raw,
            "DELETE /a%2Fb?c=d HTTP/1.1\r\nHost: 127.0.0.1:" + std::to_string(server.port()) +
                "\r\nX-Header: caf\xE9\r\n\r\n");
  EXPECT_FALSE(request.has("Host"));
}

TEST(PersistentSession, SendsTheHostThatTheRequestNames) {
  ScriptedServer server;
  Client client(server);
  HTTPRequest request("GET", "/", "HTTP/1.1");
  request.set("host", "other.test");
  readAll(client.exchange(request));
  EXPECT_EQ(server.request(0).header("Host"), "other.test");
  EXPECT_EQ(server.request(0).headerCount("Host"), 1U);
}

TEST(PersistentSession, WithoutKeepAliveAsksForCloseAndConnectsAnew) {
  ScriptedServer server;
  Client client(server);
  client.session->poco().setKeepAlive(false);
  readAll(client.get());
  readAll(client.get());
  EXPECT_EQ(server.request(0).header("Connection"), "close");
  EXPECT_EQ(server.connectionCount(), 2U);
}

TEST(PersistentSession, SendsBodiesOfEverySizeWhole) {
  for (const std::size_t size : {1U, 100U, 16000U, 16384U, 20000U, 5000000U}) {
    ScriptedServer server;
    Client client(server);
    std::string body(size, 'x');
    body.back() = '!';
    readAll(client.post(body));
    EXPECT_EQ(server.request(0).body, body);
    EXPECT_EQ(server.request(0).header("Content-Length"), std::to_string(size));
  }
}

TEST(PersistentSession, SendsABodyThatIsWrittenInPieces) {
  ScriptedServer server;
  Client client(server);
  HTTPRequest request("POST", "/", "HTTP/1.1");
  request.setContentLength64(60013);
  std::ostream& stream = client.session->sendRequest(request);
  stream << 'a' << "bc" << 1 << std::string(30000, 'x') << "mid" << std::string(30000, 'y');
  stream.put('z').flush();
  stream << "last!";
  EXPECT_TRUE(stream.good());
  readAll(client.session->receiveResponse(client.response));
  EXPECT_EQ(server.request(0).body,
            "abc1" + std::string(30000, 'x') + "mid" + std::string(30000, 'y') + "zlast!");
}

TEST(PersistentSession, SendsAFormThatPocoWrites) {
  ScriptedServer server;
  Client client(server);
  HTTPRequest request("POST", "/", "HTTP/1.1");
  Poco::Net::HTMLForm form(Poco::Net::HTMLForm::ENCODING_MULTIPART);
  form.add("name", "value");
  form.prepareSubmit(request, Poco::Net::HTMLForm::OPT_USE_CONTENT_LENGTH);
  form.write(client.session->sendRequest(request));
  readAll(client.session->receiveResponse(client.response));
  EXPECT_THAT(server.request(0).body, HasSubstr("name=\"name\"\r\n\r\nvalue\r\n"));
}

TEST(PersistentSession, RefusesABodyThatDoesNotFitItsLength) {
  ScriptedServer server;
  Client client(server);
  HTTPRequest request("POST", "/", "HTTP/1.1");
  request.setContentLength64(3);
  EXPECT_THROW(client.session->sendRequest(request) << "four", std::logic_error);
  client.session->sendRequest(request) << "tw";
  EXPECT_THROW(client.session->receiveResponse(client.response), std::logic_error);
  readAll(client.get("/after"));
  EXPECT_EQ(server.request(0).target, "/after");
}

TEST(PersistentSession, RefusesARequestThatIsFramedByChunks) {
  ScriptedServer server;
  Client client(server);
  HTTPRequest request("POST", "/", "HTTP/1.1");
  request.setChunkedTransferEncoding(true);
  EXPECT_THROW(client.session->sendRequest(request), std::invalid_argument);
  EXPECT_EQ(server.connectionCount(), 0U);
}

TEST(PersistentSession, RefusesControlCharactersInTheHead) {
  ScriptedServer server;
  Client client(server);
  const auto refuses = [&](HTTPRequest request) {
    EXPECT_THROW(client.session->sendRequest(request), std::invalid_argument);
  };
  refuses(HTTPRequest("GET", "/ HTTP/1.1\r\nA: b", "HTTP/1.1"));
  refuses(HTTPRequest("GET /\n", "/", "HTTP/1.1"));
  HTTPRequest value("GET", "/", "HTTP/1.1");
  value.set("A", "b\r\nC: d");
  refuses(value);
  HTTPRequest name("GET", "/", "HTTP/1.1");
  name.set(std::string("A\0", 2), "b");
  refuses(name);
  EXPECT_EQ(server.connectionCount(), 0U);
}

TEST(PersistentSession, ExpectsARequestBeforeAResponse) {
  ScriptedServer server;
  Client client(server);
  EXPECT_THROW(client.session->receiveResponse(client.response), std::logic_error);
}

// --- responses

TEST(PersistentSession, ReadsPastInterimResponses) {
  ScriptedServer server(answerWith(
      {"HTTP/1.1 100 Continue\r\n\r\nHTTP/1.1 102 Processing\r\n\r\nHTTP/1.1 103 Early Hints\r\n"
       "Link: x\r\nContent-Length: 5\r\n\r\nHTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\nok",
       ok}));
  Client client(server);
  EXPECT_EQ(readAll(client.get()), "ok");
  EXPECT_EQ(client.response.getStatus(), 200);
  EXPECT_FALSE(client.response.has("Link"));
  EXPECT_EQ(readAll(client.get()), "ok");
  EXPECT_EQ(server.connectionCount(), 1U);
}

TEST(PersistentSession, GivesUpOnEndlessInterimResponses) {
  std::string flood;
  for (int i = 0; i < 200; ++i) flood += "HTTP/1.1 100 Continue\r\n\r\n";
  ScriptedServer server(answerWith({flood}));
  Client client(server);
  EXPECT_THROW(client.get(), Poco::Net::MessageException);
}

TEST(PersistentSession, TakesSwitchingProtocolsForTheLastResponseOfAConnection) {
  ScriptedServer server(
      {answerWith({"HTTP/1.1 101 Switching Protocols\r\n\r\n"}), answerWith({ok})});
  Client client(server);
  EXPECT_EQ(readAll(client.get()), "");
  EXPECT_EQ(client.response.getStatus(), 101);
  EXPECT_EQ(readAll(client.get()), "ok");
  EXPECT_EQ(server.connectionCount(), 2U);
}

TEST(PersistentSession, AResponseWithoutBodyLeavesTheConnectionUsable) {
  ScriptedServer server(answerWith({"HTTP/1.1 204 No Content\r\n\r\n",
                                    "HTTP/1.1 304 Not Modified\r\n"
                                    "Content-Length: 10\r\n\r\n",
                                    "HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n", ok}));
  Client client(server);
  for (int i = 0; i < 3; ++i) {
    ResponseBody& body = client.get();
    EXPECT_TRUE(body.announcedEmpty());
    EXPECT_TRUE(body.complete());
    EXPECT_EQ(readAll(body), "");
  }
  EXPECT_EQ(readAll(client.get()), "ok");
  EXPECT_EQ(server.connectionCount(), 1U);
}

TEST(PersistentSession, TheResponseToHeadHasNoBodyWhateverItAnnounces) {
  ScriptedServer server(answerWith({"HTTP/1.1 200 OK\r\nContent-Length: 10\r\n\r\n",
                                    "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n",
                                    "HTTP/1.1 200 OK\r\n\r\n", ok}));
  Client client(server);
  for (int i = 0; i < 3; ++i) {
    ResponseBody& body = client.get("/", "HEAD");
    EXPECT_TRUE(body.announcedEmpty());
    EXPECT_EQ(readAll(body), "");
  }
  EXPECT_EQ(readAll(client.get()), "ok");
  EXPECT_EQ(server.connectionCount(), 1U);
}

TEST(PersistentSession, ReadsChunkedBodiesWithTrailers) {
  ScriptedServer server([](Peer& peer) {
    while (peer.readRequest()) peer.sendChunked(200, {}, {"hello", " ", "world"}, {{"A", "b"}});
  });
  Client client(server);
  EXPECT_EQ(readAll(client.get()), "hello world");
  EXPECT_EQ(readAll(client.get()), "hello world");
  EXPECT_EQ(server.connectionCount(), 1U);
}

TEST(PersistentSession, ABodyWithoutLengthEndsWithItsConnection) {
  ScriptedServer server(answerAndClose("HTTP/1.1 200 OK\r\n\r\nuntil the end"));
  Client client(server);
  ResponseBody& body = client.get();
  EXPECT_EQ(readAll(body), "until the end");
  EXPECT_TRUE(body.complete());
  EXPECT_EQ(readAll(client.get()), "until the end");
  EXPECT_EQ(server.connectionCount(), 2U);
}

TEST(PersistentSession, TellsABodyThatWasCutShort) {
  ScriptedServer server(answerAndClose("HTTP/1.1 200 OK\r\nContent-Length: 10\r\n\r\nshort"));
  Client client(server);
  ResponseBody& body = client.get();
  EXPECT_EQ(readAll(body), "short");
  EXPECT_TRUE(body.cutShort());
}

TEST(PersistentSession, AResetWithinTheBodyMakesItBad) {
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
  char bytes[10];
  body.read(bytes, sizeof bytes);
  EXPECT_TRUE(body.bad());
  EXPECT_THAT(body.failure(), StartsWith("Connection reset by peer"));
}

TEST(PersistentSession, SilenceWithinTheBodyMakesItBadAfterTheTimeout) {
  ScriptedServer server(answerWith({"HTTP/1.1 200 OK\r\nContent-Length: 10\r\n\r\nshort"}));
  Client client(server);
  client.session->poco().setTimeout(Poco::Timespan(0, 100000));  // the time-out is the subject
  ResponseBody& body = client.get();
  char bytes[10];
  body.read(bytes, sizeof bytes);
  EXPECT_TRUE(body.bad());
  EXPECT_EQ(body.failure(), "Timeout: The server sent nothing within the time-out");
}

TEST(PersistentSession, SilenceAfterTheRequestIsATimeout) {
  ScriptedServer server([](Peer& peer) { peer.awaitPeerClose(); });
  Client client(server);
  client.session->poco().setTimeout(Poco::Timespan(0, 100000));  // the time-out is the subject
  EXPECT_THROW(client.get(), Poco::TimeoutException);
  EXPECT_FALSE(client.session->poco().connected());
}

TEST(PersistentSession, AServerThatTakesNoBodyIsATimeout) {
  Event done;
  ScriptedServer server([&](Peer&) { done.wait(); });
  Client client(server);
  client.session->poco().setTimeout(Poco::Timespan(0, 100000));  // the time-out is the subject
  EXPECT_THROW(client.post(std::string(50000000, 'x')), Poco::TimeoutException);
  done.set();
}

TEST(PersistentSession, AnAnswerThatNeverComesIsNoMessage) {
  ScriptedServer server(answerAndClose(""));
  Client client(server);
  EXPECT_THROW(client.get(), Poco::Net::NoMessageException);
  EXPECT_FALSE(client.session->poco().connected());
}

TEST(PersistentSession, AHeadThatEndsEarlyIsReported) {
  ScriptedServer server(answerAndClose("HTTP/1.1 200 OK\r\nContent-Le"));
  Client client(server);
  EXPECT_THAT(
      [&] { client.get(); },
      Throws<Poco::Net::MessageException>(testing::Property(
          &Poco::Exception::message, "The server closed the connection within the response head")));
}

TEST(PersistentSession, ReadsAHeadHoweverItIsCut) {
  ScriptedServer server([](Peer& peer) {
    test_support::Gate gate;
    gate.open(1000);
    const std::string answer = "HTTP/1.1 200 Fine by me\r\nA: b\r\nContent-Length: 2\r\n\r\nok";
    while (peer.readRequest()) peer.trickle(answer, answer.size(), gate);
  });
  Client client(server);
  EXPECT_EQ(readAll(client.get()), "ok");
  EXPECT_EQ(client.response.getReason(), "Fine by me");
  EXPECT_EQ(client.response.get("A"), "b");
}

TEST(PersistentSession, TakesBareLineFeedsAndBlankLinesInFrontOfAHead) {
  ScriptedServer server(answerWith({"\r\n\nHTTP/1.1 200 OK\nContent-Length: 2\n\nok"}));
  Client client(server);
  EXPECT_EQ(readAll(client.get()), "ok");
}

// A header line of this length ends the head early where heads are read in blocks of 4096.
TEST(PersistentSession, ReadsHeaderLinesOfEveryLength) {
  for (const std::size_t length : {4089U, 4090U, 4091U, 4092U, 4093U, 4094U, 4096U, 8000U}) {
    const std::string line = "A: " + std::string(length - 3, 'x');
    ScriptedServer server(
        answerWith({"HTTP/1.1 200 OK\r\n" + line + "\r\nContent-Length: 2\r\n\r\nok", ok}));
    Client client(server);
    EXPECT_EQ(readAll(client.get()), "ok");
    EXPECT_EQ(client.response.get("A").size(), length - 3);
    EXPECT_EQ(readAll(client.get()), "ok");
  }
}

TEST(PersistentSession, BoundsTheHead) {
  std::string tooMany = "HTTP/1.1 200 OK\r\n";
  for (int i = 0; i < 200; ++i) tooMany += "A: b\r\n";
  std::string tooLarge = "HTTP/1.1 200 OK\r\n";
  for (int i = 0; i < 90; ++i) tooLarge += "A: " + std::string(8000, 'x') + "\r\n";
  const std::string endless = "HTTP/1.1 200 OK\r\nA: " + std::string(1000000, 'x');
  for (const std::string& head : {tooMany + "\r\n", tooLarge + "\r\n", endless}) {
    ScriptedServer server(answerWith({head}));
    Client client(server);
    EXPECT_THROW(client.get(), Poco::Net::MessageException);
  }
}

TEST(PersistentSession, RefusesWhatIsNoResponseHead) {
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
    EXPECT_FALSE(client.session->poco().connected());
  }
}

TEST(PersistentSession, TakesEqualContentLengthsForOne) {
  ScriptedServer server(
      answerWith({"HTTP/1.1 200 OK\r\nContent-Length: 2\r\nContent-Length: 2, 2\r\n\r\nok", ok}));
  Client client(server);
  EXPECT_EQ(readAll(client.get()), "ok");
  EXPECT_EQ(readAll(client.get()), "ok");
  EXPECT_EQ(server.connectionCount(), 1U);
}

TEST(PersistentSession, ChunksWinOverALengthAndTheConnectionIsNotUsedAgain) {
  ScriptedServer server({answerWith({"HTTP/1.1 200 OK\r\nContent-Length: 3\r\n"
                                     "Transfer-Encoding: Chunked\r\n\r\n2\r\nok\r\n0\r\n\r\n"}),
                         answerWith({ok})});
  Client client(server);
  EXPECT_EQ(readAll(client.get()), "ok");
  EXPECT_EQ(readAll(client.get()), "ok");
  EXPECT_EQ(server.connectionCount(), 2U);
}

// --- which connections are used again

void expectNewConnectionAfter(const std::string& answer, const std::string& body) {
  ScriptedServer server({answerWith({answer}), answerWith({ok})});
  Client client(server);
  EXPECT_EQ(readAll(client.get()), body) << answer;
  EXPECT_EQ(readAll(client.get()), "ok") << answer;
  EXPECT_EQ(server.connectionCount(), 2U) << answer;
}

TEST(PersistentSession, ConnectsAnewWhereTheServerSaysClose) {
  expectNewConnectionAfter("HTTP/1.1 200 OK\r\nConnection: close\r\nContent-Length: 1\r\n\r\nx",
                           "x");
  expectNewConnectionAfter("HTTP/1.1 200 OK\r\nConnection: x, Close\r\nContent-Length: 1\r\n\r\nx",
                           "x");
  expectNewConnectionAfter("HTTP/1.0 200 OK\r\nContent-Length: 1\r\n\r\nx", "x");
}

TEST(PersistentSession, KeepsAConnectionThatHttp10Keeps) {
  ScriptedServer server(
      answerWith({"HTTP/1.0 200 OK\r\nConnection: keep-alive\r\nContent-Length: 1\r\n\r\nx", ok}));
  Client client(server);
  EXPECT_EQ(readAll(client.get()), "x");
  EXPECT_EQ(readAll(client.get()), "ok");
  EXPECT_EQ(server.connectionCount(), 1U);
}

TEST(PersistentSession, ConnectsAnewWhereStrayBytesFollowAResponse) {
  expectNewConnectionAfter(std::string(ok) + "HTTP/1.1 200 OK\r\nContent-Length: 4\r\n\r\nevil",
                           "ok");
}

TEST(PersistentSession, ConnectsAnewWhereStrayBytesCameLater) {
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
  EXPECT_EQ(readAll(client.get()), "ok");
  first.set();
  straySent.wait();
  EXPECT_EQ(readAll(client.get()), "ok");
  EXPECT_EQ(server.connectionCount(), 2U);
}

TEST(PersistentSession, ConnectsAnewWhereTheServerHasClosed) {
  ScriptedServer server(answerAndClose(ok));
  Client client(server);
  EXPECT_EQ(readAll(client.get()), "ok");
  server.waitForEndedConnections(1);
  EXPECT_EQ(readAll(client.get()), "ok");
  EXPECT_EQ(server.connectionCount(), 2U);
}

TEST(PersistentSession, ConnectsAnewWhereABodyWasLeftUnread) {
  const std::string body(100000, 'x');
  ScriptedServer server([&](Peer& peer) {
    while (peer.readRequest()) peer.sendResponse(200, {}, body);
  });
  Client client(server);
  client.get().get();
  EXPECT_EQ(readAll(client.get()), body);
  client.get();
  EXPECT_EQ(readAll(client.get()), body);
  EXPECT_EQ(server.connectionCount(), 3U);
}

TEST(PersistentSession, KeepsTheConnectionWhereTheRestOfABodyIsDrained) {
  const std::string body(100000, 'x');
  ScriptedServer server([&](Peer& peer) {
    while (peer.readRequest()) peer.sendResponse(200, {}, body);
  });
  Client client(server);
  ResponseBody& first = client.get();
  first.get();
  EXPECT_TRUE(first.drain(1000000));
  EXPECT_EQ(readAll(client.get()), body);
  EXPECT_EQ(server.connectionCount(), 1U);
}

TEST(PersistentSession, ConnectsAnewWhereTheLastChunkWasNotRead) {
  ScriptedServer server([](Peer& peer) {
    while (peer.readRequest()) peer.sendChunked(200, {}, {"hello"});
  });
  Client client(server);
  char bytes[5];
  client.get().read(bytes, sizeof bytes);
  EXPECT_EQ(readAll(client.get()), "hello");
  EXPECT_EQ(server.connectionCount(), 2U);
}

TEST(PersistentSession, ConnectsAnewAfterItsKeepAliveTimeout) {
  ScriptedServer server;
  Client client(server);
  client.session->poco().setKeepAliveTimeout(Poco::Timespan(0));
  readAll(client.get());
  readAll(client.get());
  EXPECT_EQ(server.connectionCount(), 2U);
}

TEST(PersistentSession, ConnectsAnewWhereNoResponseWasReceived) {
  ScriptedServer server;
  Client client(server);
  HTTPRequest request("GET", "/lost", "HTTP/1.1");
  client.session->sendRequest(request);
  server.answer("/found", {200, {}, "found"});
  EXPECT_EQ(readAll(client.get("/found")), "found");
  EXPECT_EQ(server.connectionCount(), 2U);
}

TEST(PersistentSession, ConnectsAnewAfterAReset) {
  ScriptedServer server;
  server.answer("/", {200, {}, "x"});
  Client client(server);
  EXPECT_EQ(readAll(client.get()), "x");
  client.session->reset();
  EXPECT_FALSE(client.session->poco().connected());
  EXPECT_EQ(readAll(client.get()), "x");
  client.session->poco().reset();  // Poco's own, which knows only the socket
  EXPECT_EQ(readAll(client.get()), "x");
  EXPECT_EQ(server.connectionCount(), 3U);
}

TEST(PersistentSession, NothingOfABodyIsReadableAfterAReset) {
  ScriptedServer server(answerWith({"HTTP/1.1 200 OK\r\nContent-Length: 10\r\n\r\n0123456789"}));
  Client client(server);
  ResponseBody& body = client.get();
  EXPECT_EQ(body.get(), '0');
  client.session->reset();
  EXPECT_EQ(readAll(body), "");
  EXPECT_FALSE(body.complete());
}

// --- connections that fail

// A retry would send the request twice without anybody knowing.
TEST(PersistentSession, NeverSendsARequestAgainByItself) {
  ScriptedServer server([](Peer& peer) {
    peer.readRequest();
    peer.send(ok);
    peer.readHead();  // the second request; its answer is a reset
    peer.reset();
  });
  Client client(server);
  EXPECT_EQ(readAll(client.get()), "ok");
  EXPECT_THROW(client.post(std::string(10000000, 'x')), Poco::IOException);
  EXPECT_EQ(server.connectionCount(), 1U);
  EXPECT_EQ(server.requestCount(), 2U);
}

TEST(PersistentSession, AFailureToSendIsThrownByTheBodyStream) {
  ScriptedServer server([](Peer& peer) { peer.reset(); });
  Client client(server);
  HTTPRequest request("POST", "/", "HTTP/1.1");
  const std::string piece(1000000, 'x');
  request.setContentLength64(100 * 1000000);
  std::ostream& stream = client.session->sendRequest(request);
  EXPECT_THROW(for (int i = 0; i < 100; ++i) stream.write(piece.data(), 1000000),
               Poco::IOException);
}

// As in a thread of the host that blocks no signals.
TEST(PersistentSession, AClosedConnectionRaisesNoSignal) {
  sigset_t pipeSignal;
  sigemptyset(&pipeSignal);
  sigaddset(&pipeSignal, SIGPIPE);
  pthread_sigmask(SIG_UNBLOCK, &pipeSignal, nullptr);
  Event done;
  ScriptedServer server([&](Peer& peer) {
    peer.readRequest();
    peer.send(ok);
    done.wait();
  });
  Client client(server);
  EXPECT_EQ(readAll(client.get()), "ok");
  client.session->poco().socket().shutdownSend();
  EXPECT_THAT([&] { client.get(); }, Throws<Poco::IOException>(testing::Property(
                                         &Poco::Exception::displayText, HasSubstr("Broken pipe"))));
  done.set();
}

TEST(PersistentSession, ReportsAPortWhereNobodyListens) {
  const int port = test_support::unusedPort();
  const auto session = openSession("127.0.0.1", static_cast<std::uint16_t>(port));
  HTTPRequest request("GET", "/", "HTTP/1.1");
  EXPECT_THAT([&] { session->sendRequest(request); },
              Throws<Poco::Net::ConnectionRefusedException>(testing::Property(
                  &Poco::Exception::message, "127.0.0.1:" + std::to_string(port))));
}

TEST(PersistentSession, ReportsAHostThatDoesNotExist) {
  const auto session = openSession("no-such-host.invalid", 80);
  HTTPRequest request("GET", "/", "HTTP/1.1");
  EXPECT_THROW(session->sendRequest(request), Poco::Net::NetException);
}

TEST(PersistentSession, ConnectsToANameAndNamesItAsTheHost) {
  ScriptedServer server;
  server.answer("/", {200, {}, "x"});
  Client client(server, "localhost");
  EXPECT_EQ(readAll(client.get()), "x");
  EXPECT_EQ(server.request(0).header("Host"), "localhost:" + std::to_string(server.port()));
}

}  // namespace
}  // namespace connectivity::plugins
