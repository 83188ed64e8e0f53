// A request's way to its server and back: attempts, failures by their kinds, redirects.
#include "plugins/http_client/exchange/Exchange.hpp"

#include <chrono>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "connectivity/value_access.hpp"
#include "tests/plugins/http_client/unit/exchange/ExchangeParts.hpp"
#include "tests/support/Coders.hpp"
#include "tests/support/Descriptor.hpp"
#include "tests/support/Event.hpp"
#include "tests/support/ScriptedProxy.hpp"
#include "tests/support/ScriptedServer.hpp"

namespace connectivity::plugins {
namespace {

using test_support::CertificateAuthority;
using test_support::Config;
using test_support::Connection;
using test_support::gzip;
using test_support::Request;
using test_support::ScriptedProxy;
using test_support::ScriptedServer;

constexpr const char* retried = "will retry once: ";

// Answers every request with its target and its body.
void echo(Connection& connection) {
  while (const auto request = connection.readRequest()) {
    connection.sendResponse(200, {}, request->target + request->body);
  }
}

// Takes the first request, and closes.
void closeUnanswered(Connection& connection) { connection.readRequest(); }

// Sends this to the first request, and goes on as a server that echoes.
ScriptedServer::Script first(std::string response) {
  return [response = std::move(response)](Connection& connection) {
    connection.readRequest();
    connection.send(response);
    echo(connection);
  };
}

// --- An exchange --------------------------------------------------------------------------------

TEST(Exchange, GivesTheResponseAndTheSizeOfWhatWasSent) {
  ScriptedServer server(echo);
  ExchangeClient client{Config(server.port())};
  const Outcome& outcome = client.perform(Request("POST", "/x").body("12345"));
  ASSERT_TRUE(outcome.response) << outcome.failure.text();
  EXPECT_EQ(outcome.response->head->status(), 200);
  EXPECT_EQ(outcome.response->payload.view(), "/x12345");
  EXPECT_TRUE(outcome.response->fromConfiguredServer);
  EXPECT_EQ(outcome.requestBytes, 5U);
}

TEST(Exchange, CountsTheBytesThatLeaveAfterCompression) {
  ScriptedServer server(echo);
  ExchangeClient client{Config(server.port())};
  const Outcome& outcome = client.perform(
      Request("POST", "/x").header("Content-Encoding", "gzip").body(std::string(100000, 'x')));
  EXPECT_EQ(outcome.requestBytes, server.request(0).body.size());
  EXPECT_LT(outcome.requestBytes, 1000U);
}

TEST(Exchange, AsksBelowTheBasePathWithTheQuery) {
  ScriptedServer server(echo);
  ExchangeClient client{Config(server.port()).set("basePath", "/base")};
  client.perform(Request("GET", "/x?a").query("b", "c d"));
  EXPECT_EQ(server.request(0).target, "/base/x?a&b=c%20d");
  EXPECT_TRUE(client.parts.logged(Level::Debug, "Handling a request for GET path /x?a"));
  EXPECT_TRUE(client.parts.logged(Level::Trace, "   request query b = c d"));
}

TEST(Exchange, KeepsItsConnection) {
  ScriptedServer server(echo);
  ExchangeClient client{Config(server.port())};
  EXPECT_EQ(client.bodyOf(Request("GET", "/1")), "/1");
  EXPECT_EQ(client.bodyOf(Request("GET", "/2")), "/2");
  EXPECT_EQ(server.connectionCount(), 1U);
}

// --- The second attempt -------------------------------------------------------------------------

TEST(SecondAttempt, FollowsWhereNoAnswerCame) {
  ScriptedServer server({closeUnanswered, echo});
  ExchangeClient client{Config(server.port())};
  const Outcome& outcome = client.perform(Request("POST", "/x").body("bytes"));
  ASSERT_TRUE(outcome.response) << outcome.failure.text();
  EXPECT_EQ(outcome.response->payload.view(), "/xbytes");
  EXPECT_EQ(outcome.requestBytes, 5U);
  EXPECT_EQ(server.request(0).raw, server.request(1).raw);
  EXPECT_TRUE(client.parts.logged(
      Level::Debug,
      "Caught a Poco::Net::NoMessageException processing a request, will retry once: No message "
      "received (The server closed the connection without an answer)"));
}

TEST(SecondAttempt, IsTheLast) {
  ScriptedServer server({closeUnanswered, closeUnanswered, echo});
  ExchangeClient client{Config(server.port())};
  const Outcome& outcome = client.perform(Request("GET", "/x"));
  ASSERT_FALSE(outcome.response);
  EXPECT_EQ(outcome.failure.kind, FailureKind::NoAnswer);
  EXPECT_EQ(server.requestCount(), 2U);
  EXPECT_EQ(client.parts.lines.count(retried), 1U);
  EXPECT_EQ(client.bodyOf(Request("GET", "/next")), "/next");
}

TEST(SecondAttempt, FollowsOnceForEachRequestOfARedirect) {
  ScriptedServer server({closeUnanswered,
                         first("HTTP/1.1 302 Found\r\nLocation: /next\r\n"
                               "Connection: close\r\nContent-Length: 0\r\n\r\n"),
                         closeUnanswered, echo});
  ExchangeClient client{Config(server.port())};
  EXPECT_EQ(client.bodyOf(Request("GET", "/x")), "/next");
  EXPECT_EQ(client.parts.lines.count(retried), 2U);
}

TEST(SecondAttempt, FollowsWhereNobodyListens) {
  ExchangeClient client{Config(test_support::unusedPort())};
  EXPECT_EQ(client.perform(Request("GET", "/x")).failure.kind, FailureKind::Unreachable);
  EXPECT_EQ(client.parts.lines.count(retried), 1U);
}

TEST(SecondAttempt, NeverFollowsOnceAnAnswerHasBegun) {
  for (const char* answer : {"H", "HTTP/1.1 200 OK\r\nX-A: b", "nonsense\r\n\r\n",
                             "HTTP/1.1 200 OK\r\nContent-Length: 9\r\n\r\nshort",
                             "HTTP/1.1 100 Continue\r\n\r\n", "\r\n"}) {
    ScriptedServer server({[&](Connection& connection) {
                             connection.readRequest();
                             connection.send(answer);
                           },
                           echo});
    ExchangeClient client{Config(server.port())};
    const Outcome& outcome = client.perform(Request("GET", "/x"));
    EXPECT_FALSE(outcome.response) << answer;
    EXPECT_EQ(outcome.failure.kind, FailureKind::BadAnswer) << answer;
    EXPECT_EQ(server.requestCount(), 1U) << answer;
    EXPECT_FALSE(client.parts.lines.contains(retried)) << answer;
    EXPECT_EQ(client.bodyOf(Request("GET", "/next")), "/next") << answer;
  }
}

TEST(SecondAttempt, NeverFollowsATimeOut) {
  ScriptedServer server([](Connection& connection) {
    connection.readRequest();
    connection.awaitPeerClose();
  });
  ExchangeClient client{Config(server.port()).timeoutSecs(1)};
  const Outcome& outcome = client.perform(Request("GET", "/x"));
  EXPECT_EQ(outcome.failure.kind, FailureKind::NoAnswer);
  EXPECT_EQ(outcome.failure.text(), "Timeout: The server sent nothing within the time-out");
  EXPECT_EQ(server.requestCount(), 1U);
}

TEST(SecondAttempt, NeverFollowsARefusedTunnel) {
  CertificateAuthority authority;
  test_support::ProxyOptions options;
  options.refuseConnect = 503;
  ScriptedProxy proxy(options);
  ExchangeClient client{Config(443).tls(authority.caFile()).proxy(proxy.port())};
  const Outcome& outcome = client.perform(Request("GET", "/x"));
  EXPECT_EQ(outcome.failure.kind, FailureKind::TunnelRefused);
  EXPECT_EQ(outcome.failure.text(),
            "HTTP Exception: The proxy 127.0.0.1:" + std::to_string(proxy.port()) +
                " refused a tunnel to 127.0.0.1:443: 503 Service Unavailable");
  EXPECT_EQ(proxy.requests().size(), 1U);
  EXPECT_FALSE(client.parts.lines.contains(retried));
}

// --- Failures by their kinds --------------------------------------------------------------------

TEST(FailedExchange, IsUnreachableWhereNoConnectionIsMade) {
  const int port = test_support::unusedPort();
  ExchangeClient client{Config(port)};
  const Outcome& outcome = client.perform(Request("POST", "/x").body("123"));
  EXPECT_EQ(outcome.failure.kind, FailureKind::Unreachable);
  EXPECT_EQ(outcome.failure.text(), "Connection refused: 127.0.0.1:" + std::to_string(port));
  EXPECT_EQ(outcome.requestBytes, 3U) << "it is a sample with its whole body";
}

TEST(FailedExchange, IsUnreachableWhereTheCertificateIsNotAccepted) {
  CertificateAuthority authority;
  CertificateAuthority other;
  ScriptedServer server(echo, test_support::TlsOptions{authority.issue()});
  ExchangeClient client{Config(server.port()).tls(other.caFile())};
  EXPECT_EQ(client.perform(Request("GET", "/x")).failure.kind, FailureKind::Unreachable);
  EXPECT_EQ(server.requestCount(), 0U);
}

TEST(FailedExchange, IsRefusedWhereNothingCanBeSent) {
  ScriptedServer server(echo);
  ExchangeClient client{Config(server.port())};
  EXPECT_EQ(client.bodyOf(Request("GET", "/before")), "/before");
  const Outcome& target = client.perform(Request("POST", "/%zz").body("x"));
  EXPECT_EQ(target.failure.kind, FailureKind::Refused);
  EXPECT_EQ(target.failure.text(), "Invalid percent-encoding in http.path: /%zz");
  const Outcome& form = client.perform(Request("POST", "/").payload(data_t(map_t())));
  EXPECT_EQ(form.failure.kind, FailureKind::Refused);
  EXPECT_EQ(form.failure.text(), payloadRefusal);
  EXPECT_EQ(client.bodyOf(Request("GET", "/after")), "/after");
  EXPECT_EQ(server.connectionCount(), 1U) << "the connection was not touched";
}

TEST(FailedExchange, WithAnUnsupportedCodingEndsTheConnection) {
  ScriptedServer server(echo);
  ExchangeClient client{Config(server.port())};
  EXPECT_EQ(client.bodyOf(Request("GET", "/before")), "/before");
  const Outcome& outcome =
      client.perform(Request("POST", "/x").header("Content-Encoding", "br").body("x"));
  EXPECT_EQ(outcome.failure.kind, FailureKind::Refused);
  EXPECT_EQ(outcome.failure.text(), "Unsupported Content-Encoding, dropping HTTP request.");
  server.waitForEndedConnections(1);
  EXPECT_EQ(server.requestCount(), 1U);
}

TEST(FailedExchange, IsABadAnswerWhereTheBodyFails) {
  for (const auto& [response, text] : std::vector<std::pair<std::string, std::string>>{
           {"HTTP/1.1 200 OK\r\nContent-Length: 9\r\n\r\nshort",
            "Error processing response stream: I/O error"},
           {"HTTP/1.1 200 OK\r\nContent-Encoding: gzip\r\nContent-Length: 5\r\n\r\nplain",
            "Error processing response stream: Serious I/O error"}}) {
    ScriptedServer server({[&bytes = response](Connection& connection) {
                             connection.readRequest();
                             connection.send(bytes);
                           },
                           echo});
    ExchangeClient client{Config(server.port())};
    const Outcome& outcome = client.perform(Request("GET", "/x"));
    EXPECT_EQ(outcome.failure.kind, FailureKind::BadAnswer);
    EXPECT_EQ(outcome.failure.text(), text);
    EXPECT_EQ(client.bodyOf(Request("GET", "/next")), "/next");
    EXPECT_EQ(server.connectionCount(), 2U);
  }
}

TEST(FailedExchange, IsOfItsOwnKindBeyondALimit) {
  ScriptedServer server(
      first("HTTP/1.1 200 OK\r\nContent-Length: 5000\r\n\r\n" + std::string(5000, 'x')));
  ExchangeClient client{Config(server.port())};
  const Outcome& outcome = client.perform(Request("GET", "/x").limit(1));
  EXPECT_EQ(outcome.failure.kind, FailureKind::LimitExceeded);
  EXPECT_EQ(outcome.failure.text(),
            "Response exceeded maxResponseKB, with maxResponsePolicy set to REJECT");
  EXPECT_EQ(client.bodyOf(Request("GET", "/next")), "/next");
  EXPECT_EQ(server.connectionCount(), 1U) << "what was left has been read past";
}

class Deadline : public testing::TestWithParam<const char*> {};

// Whatever the server has sent before it stalls.
TEST_P(Deadline, EndsTheExchange) {
  ScriptedServer server({[](Connection& connection) {
                           connection.readRequest();
                           connection.send(GetParam());
                           connection.awaitPeerClose();
                         },
                         echo});
  ExchangeClient client{Config(server.port())};
  client.req.emplace(client.parts.read(Request("GET", "/x")));
  client.req->deadline = std::chrono::steady_clock::now() + std::chrono::seconds(1);
  const Outcome& outcome = client.perform();
  EXPECT_EQ(outcome.failure.kind, FailureKind::DeadlineExceeded);
  EXPECT_EQ(outcome.failure.text(), "Deadline exceeded");
  EXPECT_LE(server.requestCount(), 1U) << "it is not sent again";
  EXPECT_EQ(client.bodyOf(Request("GET", "/next")), "/next") << "which has no deadline";
}

INSTANTIATE_TEST_SUITE_P(After, Deadline,
                         testing::Values("", "HTTP/1.1 200 OK\r\n",
                                         "HTTP/1.1 200 OK\r\nContent-Length: 9\r\n\r\nshort",
                                         "HTTP/1.1 200 OK\r\n\r\nuntil the end"));

// --- What is left of a response -----------------------------------------------------------------

struct Rest {
  const char* name;
  std::string response;
  std::string policy;       // empty: no limit
  std::size_t connections;  // after a second request
};

std::string coded(const std::string& rest) {
  const std::string body = gzip("text") + rest;
  return "HTTP/1.1 200 OK\r\nContent-Encoding: gzip\r\nContent-Length: " +
         std::to_string(body.size()) + "\r\n\r\n" + body;
}

std::string codedChunk(const std::string& end) {
  std::ostringstream text;
  const std::string body = gzip("text");
  text << "HTTP/1.1 200 OK\r\nContent-Encoding: gzip\r\nTransfer-Encoding: chunked\r\n\r\n"
       << std::hex << body.size() << "\r\n"
       << body << "\r\n"
       << end;
  return text.str();
}

std::string plain(std::size_t size) {
  return "HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string(size) + "\r\n\r\n" +
         std::string(size, 'x');
}

class LeftOver : public testing::TestWithParam<Rest> {};

TEST_P(LeftOver, IsReadPastOrEndsTheConnection) {
  ScriptedServer server({first(GetParam().response), echo});
  ExchangeClient client{Config(server.port())};
  Request given("GET", "/x");
  if (!GetParam().policy.empty()) given.limit(1).policy(GetParam().policy.c_str());
  const Outcome& outcome = client.perform(given);
  EXPECT_EQ(outcome.response.has_value(), GetParam().policy != "REJECT") << outcome.failure.text();
  EXPECT_EQ(client.bodyOf(Request("GET", "/next")), "/next");
  EXPECT_EQ(server.connectionCount(), GetParam().connections);
}

std::string nameOf(const testing::TestParamInfo<Rest>& info) { return info.param.name; }

INSTANTIATE_TEST_SUITE_P(
    OfACodedBody, LeftOver,
    testing::Values(Rest{"Nothing", coded(""), "", 1},
                    Rest{"LastChunk", codedChunk("0\r\n\r\n"), "", 1},
                    Rest{"LastChunkWithTrailers", codedChunk("0\r\nX-A: b\r\n\r\n"), "", 1},
                    Rest{"FewBytes", coded("trailing bytes"), "", 1},
                    Rest{"ManyBytes", coded(std::string(200000, '\0')), "", 2},
                    Rest{"Everything",
                         "HTTP/1.1 200 OK\r\nContent-Encoding: br\r\nContent-Length: "
                         "5\r\n\r\nbytes",
                         "", 2}),
    nameOf);

INSTANTIATE_TEST_SUITE_P(
    BehindALimit, LeftOver,
    testing::Values(Rest{"UnderReject", plain(500000), "REJECT", 1},
                    Rest{"UnderTruncateEnd", plain(500000), "TRUNCATE_END", 1},
                    Rest{"UnderTruncateStart", plain(500000), "TRUNCATE_START", 1},
                    Rest{"OfMoreThanAMegabyteUnderReject", plain(2000000), "REJECT", 2},
                    Rest{"OfMoreThanAMegabyteUnderTruncateEnd", plain(2000000), "TRUNCATE_END", 2}),
    nameOf);

}  // namespace
}  // namespace connectivity::plugins
