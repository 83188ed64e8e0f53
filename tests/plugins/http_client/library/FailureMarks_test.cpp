// The mark that tells a program of what kind a failure was, where the configuration asks for it.
#include <array>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <sys/socket.h>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "tests/plugins/http_client/Expectations.hpp"
#include "tests/support/Certificates.hpp"
#include "tests/support/Descriptor.hpp"
#include "tests/support/PluginUnderTest.hpp"
#include "tests/support/ScriptedProxy.hpp"
#include "tests/support/ScriptedServer.hpp"

namespace test_support {
namespace {

Config marking(int port) { return Config(port).timeoutSecs(5).set("markFailures", true); }

std::optional<std::string> markOf(const Answer& answer) { return answer.text("http/failure"); }

// The mark of a request's answer by a server that does this with each of its connections.
std::optional<std::string> markWhere(const ScriptedServer::Script& script,
                                     const Request& request = Request("GET", "/x")) {
  ScriptedServer server(script);
  PluginUnderTest plugin(marking(server.port()));
  const Answer answer = plugin.request(request);
  EXPECT_TRUE(answer.isError());
  return markOf(answer);
}

std::optional<std::string> markWhereItSends(const std::string& response,
                                            const Request& request = Request("GET", "/x")) {
  return markWhere(
      [&response](Connection& connection) {
        connection.readRequest();
        connection.send(response);
      },
      request);
}

// --- refused ------------------------------------------------------------------------------------

TEST(FailureMark, OfARequestThatIsRefusedIsRefused) {
  ScriptedServer server(answerWithTarget);
  PluginUnderTest plugin(marking(server.port()));
  EXPECT_EQ(markOf(plugin.request(Request("BREW", "/x"))), "refused");
  EXPECT_EQ(markOf(plugin.request(Request("GET", "/%zz"))), "refused");
  EXPECT_EQ(markOf(plugin.request(Request("GET", "/x").without("http"))), "refused");
  EXPECT_EQ(markOf(plugin.request(Request("POST", "/x").payload(data_t(7)))), "refused");
  EXPECT_EQ(
      markOf(plugin.request(Request("POST", "/x").body("a").header("Content-Encoding", "br"))),
      "refused");
}

TEST(FailureMark, OfATunnelThatTheProxyRefusesIsRefused) {
  CertificateAuthority authority;
  ProxyOptions options;
  options.refuseConnect = 403;
  ScriptedProxy proxy(options);
  PluginUnderTest plugin(marking(443).tls(authority.caFile()).proxy(proxy.port()));
  EXPECT_EQ(markOf(plugin.request(Request("GET", "/x"))), "refused");
}

// --- unreachable --------------------------------------------------------------------------------

TEST(FailureMark, WhereNobodyListensIsUnreachable) {
  PluginUnderTest plugin(marking(unusedPort()));
  EXPECT_EQ(markOf(plugin.request(Request("GET", "/x"))), "unreachable");
}

TEST(FailureMark, OfAHostThatNobodyKnowsIsUnreachable) {
  PluginUnderTest plugin(marking(80).host("no-such-host.invalid"));
  EXPECT_EQ(markOf(plugin.request(Request("GET", "/x"))), "unreachable");
}

TEST(FailureMark, OfACertificateThatIsNotAcceptedIsUnreachable) {
  CertificateAuthority authority;
  ScriptedServer server(answerWithTarget, TlsOptions{authority.issueExpired()});
  PluginUnderTest plugin(marking(server.port()).tls(authority.caFile()));
  EXPECT_EQ(markOf(plugin.request(Request("GET", "/x"))), "unreachable");
}

TEST(FailureMark, OfAProxyWhereNobodyListensIsUnreachable) {
  PluginUnderTest plugin(marking(80).proxy(unusedPort()));
  EXPECT_EQ(markOf(plugin.request(Request("GET", "/x"))), "unreachable");
}

// --- noAnswer -----------------------------------------------------------------------------------

TEST(FailureMark, WhereTheServerClosesWithoutAnAnswerIsNoAnswer) {
  EXPECT_EQ(markWhere([](Connection& connection) { connection.readRequest(); }), "noAnswer");
}

TEST(FailureMark, WhereTheServerResetsWithoutAnAnswerIsNoAnswer) {
  EXPECT_EQ(markWhere([](Connection& connection) {
              connection.readRequest();
              connection.reset();
            }),
            "noAnswer");
}

// A server that takes one connection, reads its request and is gone.
TEST(FailureMark, WhereOnlyTheSecondAttemptFindsNobodyIsNoAnswer) {
  Descriptor listener = listenOnLoopback();
  const int port = localPort(listener);
  std::thread server([&listener] {
    const Descriptor connection(::accept(listener.get(), nullptr, nullptr));
    std::array<char, 4096> request{};
    EXPECT_GT(::recv(connection.get(), request.data(), request.size(), 0), 0);
    listener.reset();
  });
  PluginUnderTest plugin(marking(port));
  const Answer answer = plugin.request(Request("POST", "/x").body("a"));
  server.join();
  expectErrorNaming(answer, "Connection refused");
  EXPECT_EQ(markOf(answer), "noAnswer");
}

// The first one went through a tunnel that was open.
TEST(FailureMark, WhereOnlyTheSecondAttemptIsRefusedATunnelIsNoAnswer) {
  CertificateAuthority authority;
  ScriptedServer server(
      [](Connection& connection) {
        connection.readRequest();
        connection.sendResponse(200);
        connection.readRequest();
      },
      TlsOptions{authority.issue()});
  ScriptedServer proxy({[&server](Connection& connection) {
                          connection.readHead();
                          connection.send("HTTP/1.1 200 OK\r\n\r\n");
                          connection.tunnelTo(server.port());
                        },
                        [](Connection& connection) {
                          connection.readHead();
                          connection.sendResponse(503);
                        }});
  PluginUnderTest plugin(
      marking(443).host("localhost").tls(authority.caFile()).proxy(proxy.port()));
  EXPECT_EQ(plugin.request(Request("GET", "/x")).status(), 200);
  const Answer answer = plugin.request(Request("POST", "/x").body("a"));
  expectErrorNaming(answer, "refused a tunnel");
  EXPECT_EQ(markOf(answer), "noAnswer");
  EXPECT_EQ(server.requestCount(), 2U);
}

// --- badAnswer ----------------------------------------------------------------------------------

TEST(FailureMark, OfAnAnswerThatIsNoHttpIsBadAnswer) {
  EXPECT_EQ(markWhereItSends("SSH-2.0-server\r\n\r\n"), "badAnswer");
}

TEST(FailureMark, OfAHeadThatIsCutShortIsBadAnswer) {
  EXPECT_EQ(markWhereItSends("HTTP/1.1 200 OK\r\nX-A"), "badAnswer");
}

TEST(FailureMark, OfABodyThatIsCutShortIsBadAnswer) {
  EXPECT_EQ(markWhereItSends("HTTP/1.1 200 OK\r\nContent-Length: 9\r\n\r\nshort"), "badAnswer");
}

TEST(FailureMark, OfACorruptCodingIsBadAnswer) {
  EXPECT_EQ(markWhereItSends(
                "HTTP/1.1 200 OK\r\nContent-Encoding: gzip\r\nContent-Length: 4\r\n\r\nnope"),
            "badAnswer");
}

TEST(FailureMark, OfAnAnswerBeyondTheLimitIsBadAnswer) {
  const std::string response =
      "HTTP/1.1 200 OK\r\nContent-Length: 2000\r\n\r\n" + std::string(2000, 'x');
  EXPECT_EQ(markWhereItSends(response, Request("GET", "/x").limit(1).policy("REJECT")),
            "badAnswer");
}

TEST(FailureMark, OfARedirectThatFailsIsBadAnswer) {
  EXPECT_EQ(
      markWhereItSends("HTTP/1.1 302 Found\r\nLocation: http://[\r\nContent-Length: 0\r\n\r\n"),
      "badAnswer");
  EXPECT_EQ(markWhere([](Connection& connection) {
              while (connection.readRequest()) {
                connection.sendResponse(302, {{"Location", "/again"}});
              }
            }),
            "badAnswer");
}

// --- deadline -----------------------------------------------------------------------------------

void neverAnswer(Connection& connection) {
  connection.readRequest();
  connection.awaitPeerClose();
}

TEST(FailureMark, OfARequestBeyondItsDeadlineIsDeadline) {
  const Request request = Request("GET", "/x").set("http/deadlineSecs", data_t(1));
  EXPECT_EQ(markWhere(neverAnswer, request), "deadline");
}

// Once the answer has begun, too.
TEST(FailureMark, OfAnAnswerBeyondTheDeadlineIsDeadline) {
  const Request request = Request("GET", "/x").set("http/deadlineSecs", data_t(1));
  EXPECT_EQ(markWhere(
                [](Connection& connection) {
                  connection.readRequest();
                  connection.send("HTTP/1.1 200 OK\r\nContent-Length: 9\r\n\r\nshort");
                  connection.awaitPeerClose();
                },
                request),
            "deadline");
}

// --- where there is none ------------------------------------------------------------------------

TEST(FailureMark, IsNotInTheServersAnswersWhateverTheirStatus) {
  ScriptedServer server;
  for (const int status : {200, 400, 404, 500}) {
    server.answer("/" + std::to_string(status), {status, {}, "body"});
  }
  PluginUnderTest plugin(marking(server.port()));
  for (const int status : {200, 400, 404, 500}) {
    const Answer answer = plugin.request(Request("GET", ("/" + std::to_string(status)).c_str()));
    EXPECT_EQ(answer.status(), status);
    EXPECT_EQ(markOf(answer), std::nullopt);
  }
}

TEST(FailureMark, IsNotInAnAnswerThatIsCutToItsLimit) {
  ScriptedServer server;
  server.answer("/x", {200, {}, std::string(5000, 'x')});
  PluginUnderTest plugin(marking(server.port()));
  const Answer answer = plugin.request(Request("GET", "/x").limit(1).policy("TRUNCATE_END"));
  EXPECT_EQ(answer.status(), 200);
  EXPECT_EQ(markOf(answer), std::nullopt);
}

TEST(FailureMark, OfOneRequestIsNotInTheNextAnswer) {
  ScriptedServer server({[](Connection& connection) {
                           connection.readRequest();
                           connection.send("nonsense\r\n\r\n");
                         },
                         answerWithTarget});
  PluginUnderTest plugin(marking(server.port()).numClients(1));
  EXPECT_EQ(markOf(plugin.request(Request("GET", "/x"))), "badAnswer");
  EXPECT_EQ(markOf(plugin.request(Request("GET", "/x"))), std::nullopt);
}

TEST(FailureMark, IsAbsentUnlessItIsAskedFor) {
  ScriptedServer server([](Connection& connection) { connection.readRequest(); });
  PluginUnderTest plugin{Config(server.port())};
  EXPECT_EQ(markOf(plugin.request(Request("BREW", "/x"))), std::nullopt);
  EXPECT_EQ(markOf(plugin.request(Request("GET", "/x"))), std::nullopt);
}

TEST(FailureMark, IsAbsentWhereItIsDeclined) {
  PluginUnderTest plugin{Config(unusedPort()).set("markFailures", false)};
  EXPECT_EQ(markOf(plugin.request(Request("GET", "/x"))), std::nullopt);
}

TEST(FailureMark, IsAskedForByABoolean) {
  EXPECT_EQ(creationFailure(Config(80).set("markFailures", "yes")),
            "HTTPClient configuration markFailures \"yes\" is not a bool");
  EXPECT_EQ(creationFailure(Config(80).set("markFailures", "true")), std::nullopt);
}

}  // namespace
}  // namespace test_support
