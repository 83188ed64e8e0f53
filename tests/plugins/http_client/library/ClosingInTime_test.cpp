// A connection that will not be used again is closed when its answer has been read, before the
// answer is handed over: some servers serve one connection at a time.
#include <functional>
#include <mutex>
#include <string>

#include <gtest/gtest.h>

#include "tests/plugins/http_client/Answering.hpp"
#include "tests/plugins/http_client/PlainOrTls.hpp"
#include "tests/support/Event.hpp"
#include "tests/support/ScriptedProxy.hpp"

namespace test_support {
namespace {

// How a server ends its answer; it stays itself until the peer has closed.
struct Ending {
  const char* name;
  std::string bytes;
  bool ends = false;  // the server ends its side behind them
  const char* method = "GET";
};

ScriptedServer::Script sending(const Ending& ending, Event& closed) {
  return [&](Connection& connection) {
    if (connection.number() > 1) return answerWithTarget(connection);
    connection.readRequest();
    connection.send(ending.bytes);
    if (ending.ends) connection.halfClose();
    connection.awaitPeerClose();
    closed.set();
  };
}

// The server's connection was closed when the answer came to the host.
void expectClosedAtDelivery(PluginUnderTest& plugin, const Event& closed, const Request& request,
                            bool isError) {
  bool closedBefore = false;
  plugin.onDelivery([&](const Answer& answer) {
    if (answer.id() == 1) closedBefore = closed.isSetWithin(patience);
  });
  const Answer answer = plugin.request(request);
  EXPECT_EQ(answer.isError(), isError) << answer.reason();
  EXPECT_TRUE(closedBefore) << "the connection was still open";
}

std::string ok(const std::string& fields, const std::string& body = "") {
  return "HTTP/1.1 200 OK\r\n" + fields + "\r\n" + body;
}

class LastAnswer : public PlainOrTls {};
INSTANTIATE_PLAIN_AND_TLS(LastAnswer);

TEST_P(LastAnswer, OfAConnectionIsDeliveredWhenThatIsClosed) {
  const std::string two = "Content-Length: 2\r\n";
  for (const Ending& ending : {
           Ending{"Connection: close", ok("Connection: close\r\n" + two, "ok")},
           Ending{"close in a list", ok("Connection: x, Close\r\n" + two, "ok")},
           Ending{"close beside chunks", ok("Connection: close\r\nTransfer-Encoding: chunked\r\n",
                                            "2\r\nok\r\n0\r\n\r\n")},
           Ending{"close to HEAD", ok("Connection: close\r\nContent-Length: 9\r\n"), false, "HEAD"},
           Ending{"HTTP/1.0", "HTTP/1.0 200 OK\r\n" + two + "\r\nok"},
           Ending{"HTTP/1.0 without a body", "HTTP/1.0 204 No Content\r\n\r\n"},
           Ending{"a body that ends with it", ok("", "ok"), true},
           Ending{"an old body that ends with it", "HTTP/1.0 200 OK\r\n\r\nok", true},
           Ending{"a body where none can be", "HTTP/1.1 204 X\r\n" + two + "\r\n"},
           Ending{"chunks beside a length",
                  ok("Transfer-Encoding: chunked\r\n" + two, "2\r\nok\r\n0\r\n\r\n")},
           Ending{"another protocol", "HTTP/1.1 101 X\r\nUpgrade: x\r\n\r\n"},
           Ending{"stray bytes behind it", ok(two, "ok") + forged},
           Ending{"a coding that nobody reads",
                  ok("Content-Encoding: br\r\nContent-Length: 9000\r\n", "some")},
       }) {
    if (HasFailure()) return;  // each takes its time
    SCOPED_TRACE(ending.name);
    Event closed;
    const auto server = serving(sending(ending, closed));
    PluginUnderTest plugin(to(*server));
    expectClosedAtDelivery(plugin, closed, Request(ending.method, "/x"), false);
    expectInStep(plugin, *server, 2);
  }
}

TEST_P(LastAnswer, ThatIsAnErrorIsDeliveredWhenTheConnectionIsClosed) {
  for (const Ending& ending : {
           Ending{"malformed", "HTTP/1.1 2000 OK\r\n\r\n"},
           Ending{"contradictory", ok("Content-Length: 2, 3\r\n", "ok")},
           Ending{"cut in the head", "HTTP/1.1 200 OK\r\nCont", true},
           Ending{"cut in the body", ok("Content-Length: 9\r\n", "short"), true},
           Ending{"broken chunks", chunked("zz\r\n")},
           Ending{"corrupt", ok("Content-Encoding: gzip\r\nContent-Length: 9\r\n", "no gzip..")},
       }) {
    if (HasFailure()) return;  // each takes its time
    SCOPED_TRACE(ending.name);
    Event closed;
    const auto server = serving(sending(ending, closed));
    PluginUnderTest plugin(to(*server));
    expectClosedAtDelivery(plugin, closed, Request("GET", "/x"), true);
    EXPECT_EQ(server->requestCount(), 1U);
    expectInStep(plugin, *server, 2);
  }
}

TEST_P(LastAnswer, ThatIsOverItsLimitIsDeliveredWhenTheConnectionIsClosed) {
  const Ending ending{"", ok("Content-Length: 90000000\r\n", noise(2000))};
  for (const char* const policy : {"REJECT", "TRUNCATE_END"}) {
    Event closed;
    const auto server = serving(sending(ending, closed));
    PluginUnderTest plugin(to(*server));
    Request request("GET", "/x");
    request.limit(1).policy(policy);
    expectClosedAtDelivery(plugin, closed, request, policy == std::string("REJECT"));
    expectInStep(plugin, *server, 2);
  }
}

TEST_P(LastAnswer, ThatComesEarlyIsDeliveredWhenTheConnectionIsClosed) {
  Event closed;
  const auto server = serving([&](Connection& connection) {
    connection.readHead();
    connection.sendResponse(413, {}, "too large");
    connection.awaitPeerClose();
    closed.set();
  });
  PluginUnderTest plugin(to(*server), terse());
  Request request("POST", "/x");
  request.body(std::string(20'000'000, 'x'));
  expectClosedAtDelivery(plugin, closed, request, false);
}

TEST_P(LastAnswer, ThatNeverComesIsDeliveredWhenTheConnectionIsClosed) {
  for (const bool deadline : {false, true}) {
    Event closed;
    const Ending ending{"", "HTTP/1.1 200 OK\r\n"};
    const auto server = serving(sending(ending, closed));
    Config config = to(*server);
    PluginUnderTest plugin(deadline ? config.set("deadlineSecs", 1) : config.timeoutSecs(1));
    expectClosedAtDelivery(plugin, closed, Request("GET", "/x"), true);
  }
}

// --- Other connections --------------------------------------------------------------------------

// The connection to where a redirect led serves that request only.
TEST(LastAnswerElsewhere, IsDeliveredWhenTheConnectionIsClosed) {
  Event closed;
  ScriptedServer elsewhere([&](Connection& connection) {
    answerWithTarget(connection);
    closed.set();
  });
  const std::string location = "http://127.0.0.1:" + std::to_string(elsewhere.port()) + "/moved";
  ScriptedServer server(
      firstGets("HTTP/1.1 308 X\r\nLocation: " + location + "\r\nContent-Length: 0\r\n\r\n"));
  PluginUnderTest plugin(oneClient(server.port()));
  expectClosedAtDelivery(plugin, closed, Request("GET", "/x"), false);
  expectInStep(plugin, server, 1);
}

TEST(LastAnswerThroughATunnel, IsDeliveredWhenTheConnectionIsClosed) {
  CertificateAuthority authority;
  Event closed;
  const Ending ending{"", ok("Connection: close\r\nContent-Length: 2\r\n", "ok")};
  ScriptedServer server(sending(ending, closed), TlsOptions{authority.issue()});
  ScriptedProxy proxy;
  PluginUnderTest plugin(oneClient(server.port()).tls(authority.caFile()).proxy(proxy.port()));
  expectClosedAtDelivery(plugin, closed, Request("GET", "/x"), false);
}

// --- What it is for -----------------------------------------------------------------------------

// While the first answer is being handed over, another worker's request is read.
TEST_P(LastAnswer, LeavesAServerOfOneConnectionAtATimeToOthers) {
  std::mutex served;
  Event second{"the second request"};
  const auto server = serving([&](Connection& connection) {
    const std::lock_guard oneAtATime(served);
    connection.readRequest();
    if (connection.number() == 2) second.set();
    connection.sendResponse(200, {{"Connection", "close"}}, "ok");
    connection.awaitPeerClose();
  });
  bool servedMeanwhile = false;
  PluginUnderTest plugin(to(*server).numClients(2));
  plugin.onDelivery([&](const Answer& answer) {
    if (answer.id() == 1) servedMeanwhile = second.isSetWithin(patience);
  });
  plugin.send(Request("GET", "/x").id(1));
  server->waitForRequests(1);
  plugin.send(Request("GET", "/x").id(2));
  for (const Answer& answer : plugin.waitForAnswers(2)) EXPECT_EQ(answer.status(), 200);
  EXPECT_TRUE(servedMeanwhile);
}

// --- And where it is used again -----------------------------------------------------------------

TEST_P(LastAnswer, IsNotTheOneOfAConnectionThatIsKept) {
  for (const std::string& whole :
       {ok("Content-Length: 2\r\n", "ok"),
        std::string("HTTP/1.0 200 OK\r\nConnection: Keep-Alive\r\nContent-Length: 2\r\n\r\nok")}) {
    const auto server = serving(firstGets(whole));
    PluginUnderTest plugin(to(*server));
    EXPECT_EQ(plugin.request(Request("GET", "/x")).body(), "ok");
    expectInStep(plugin, *server, 1);
  }
}

}  // namespace
}  // namespace test_support
