// Exchanges that redirects lead on.
#include <cstdlib>
#include <optional>
#include <string>

#include <gtest/gtest.h>

#include "plugins/http_client/exchange/Exchange.hpp"
#include "tests/plugins/http_client/unit/exchange/ExchangeParts.hpp"
#include "tests/support/Descriptor.hpp"
#include "tests/support/ScriptedServer.hpp"

namespace connectivity::plugins {
namespace {

using test_support::Config;
using test_support::Connection;
using test_support::RecordedRequest;
using test_support::Request;
using test_support::ScriptedServer;

// Answers by target: /301/rest redirects to /rest with that status, on the server itself or where
// `to` says; everything else gets 200 with its method and body.
ScriptedServer::Script redirecting(std::string to = {}) {
  return [to](Connection& connection) {
    while (const auto request = connection.readRequest()) {
      const int status = std::atoi(request->target.c_str() + 1);
      if (status == 0) {
        connection.sendResponse(200, {{"Set-Cookie", "final=1"}}, request->method + request->body);
      } else {
        connection.sendResponse(
            status, {{"Location", to + request->target.substr(4)}, {"Set-Cookie", "moved=1"}},
            "moved");
      }
    }
  };
}

std::string storedBy(ExchangeClient& client) {
  return client.parts.cookies.getCookiesFromRequest({}, "", "/");
}

std::string serverAt(int port) { return "http://127.0.0.1:" + std::to_string(port); }

TEST(RedirectedExchange, EndsWithTheResponseThatIsNoRedirect) {
  ScriptedServer server(redirecting());
  ExchangeClient client{Config(server.port())};
  EXPECT_EQ(client.bodyOf(Request("GET", "/301/302/303/307/308/end")), "GET");
  EXPECT_EQ(server.requestCount(), 6U);
  EXPECT_EQ(server.connectionCount(), 1U);
  EXPECT_EQ(server.requests().back().target, "/end");
}

TEST(RedirectedExchange, SendsTheSameBodyAgainWhereTheMethodStays) {
  ScriptedServer server(redirecting());
  ExchangeClient client{Config(server.port())};
  const Request form = Request("POST", "/307/end").file("upload", "bytes").form("filename", "x");
  client.perform(form);
  EXPECT_EQ(server.request(0).body, server.request(1).body);
  EXPECT_EQ(server.request(0).header("content-type"), server.request(1).header("content-type"));
  EXPECT_EQ(client.outcome.requestBytes, server.request(0).body.size());
}

TEST(RedirectedExchange, SendsNoBodyWhereTheMethodBecomesGet) {
  ScriptedServer server(redirecting());
  ExchangeClient client{Config(server.port())};
  EXPECT_EQ(client.bodyOf(Request("POST", "/303/end").body("bytes").contentType("a/b")), "GET");
  EXPECT_EQ(server.request(1).header("content-length"), std::nullopt);
  EXPECT_EQ(server.request(1).header("content-type"), std::nullopt);
  EXPECT_EQ(client.outcome.requestBytes, 5U) << "that of the body as it was first sent";
}

TEST(RedirectedExchange, DeliversTheRedirectWhereTheyAreNotFollowed) {
  ScriptedServer server(redirecting());
  ExchangeClient client{Config(server.port()).set("followRedirects", false)};
  EXPECT_EQ(client.bodyOf(Request("GET", "/302/end")), "moved");
  EXPECT_EQ(server.requestCount(), 1U);
}

TEST(RedirectedExchange, FailsAfterNineRedirects) {
  ScriptedServer server(redirecting());
  ExchangeClient client{Config(server.port())};
  std::string path;
  for (int i = 0; i < 9; ++i) path += "/302";
  EXPECT_EQ(client.bodyOf(Request("GET", (path + "/end").c_str())), "GET");
  EXPECT_EQ(client.bodyOf(Request("GET", (path + "/302/end").c_str())),
            "Maximum redirects exceeded");
  EXPECT_EQ(client.outcome.failure.kind, FailureKind::RedirectFailed);
  EXPECT_EQ(client.outcome.failure.name, "");
}

TEST(RedirectedExchange, FailsWhereTheLocationCannotBeRead) {
  ScriptedServer server(redirecting("http://no host"));
  ExchangeClient client{Config(server.port())};
  client.perform(Request("GET", "/302/end"));
  EXPECT_EQ(client.outcome.failure.kind, FailureKind::RedirectFailed);
  EXPECT_EQ(client.outcome.failure.text(),
            "Invalid Location header (malformed host): http://no host/end");
}

// --- Elsewhere ----------------------------------------------------------------------------------

TEST(RedirectedExchange, LeadsElsewhereWithNothingThatIsMeantForHome) {
  ScriptedServer elsewhere(redirecting());
  ScriptedServer server(redirecting(serverAt(elsewhere.port())));
  ExchangeClient client{Config(server.port()).basicAuthentication("user", "pass")};
  client.perform(Request("GET", "/301/end").cookie("own", "1").header("Host", "mine"));
  ASSERT_TRUE(client.outcome.response) << client.outcome.failure.text();
  EXPECT_FALSE(client.outcome.response->fromConfiguredServer);
  const RecordedRequest there = elsewhere.request(0);
  EXPECT_EQ(there.header("authorization"), std::nullopt);
  EXPECT_EQ(there.header("cookie"), std::nullopt);
  EXPECT_EQ(there.header("host"), "127.0.0.1:" + std::to_string(elsewhere.port()));
  EXPECT_FALSE(client.parts.home.atHome()) << "the worker returns once the answer is made";
}

TEST(RedirectedExchange, KeepsItsConnectionAtHomeMeanwhile) {
  ScriptedServer elsewhere(redirecting());
  ScriptedServer server(redirecting(serverAt(elsewhere.port())));
  ExchangeClient client{Config(server.port())};
  client.perform(Request("GET", "/308/end"));
  client.parts.home.returnHome();
  EXPECT_EQ(client.bodyOf(Request("GET", "/end")), "GET");
  EXPECT_EQ(server.connectionCount(), 1U);
  EXPECT_EQ(elsewhere.connectionCount(), 1U);
}

TEST(RedirectedExchange, LeadsBackHomeOverTheConnectionThatIsKept) {
  std::string home;
  ScriptedServer elsewhere([&](Connection& connection) {
    connection.readRequest();
    connection.sendResponse(301, {{"Location", home + "/end"}});
  });
  ScriptedServer server(redirecting(serverAt(elsewhere.port())));
  home = serverAt(server.port());
  ExchangeClient client{Config(server.port()).basicAuthentication("user", "pass")};
  EXPECT_EQ(client.bodyOf(Request("GET", "/301/x")), "GET");
  EXPECT_TRUE(client.outcome.response->fromConfiguredServer);
  EXPECT_EQ(server.connectionCount(), 1U);
  EXPECT_EQ(server.request(1).header("authorization"), "Basic dXNlcjpwYXNz");
}

// The server that redirected may have done what it was asked: 303 says so.
TEST(RedirectedExchange, IsNoAnswerWhereNobodyListensElsewhere) {
  ScriptedServer server(redirecting(serverAt(test_support::unusedPort())));
  ExchangeClient client{Config(server.port())};
  client.perform(Request("GET", "/301/end"));
  EXPECT_EQ(client.outcome.failure.kind, FailureKind::NoAnswer);
}

// --- Cookies of redirects -----------------------------------------------------------------------

TEST(RedirectedExchange, StoresCookiesOfRedirectsThatAreFollowed) {
  ScriptedServer server(redirecting());
  ExchangeClient client{Config(server.port())};
  client.perform(Request("GET", "/302/end"));
  EXPECT_EQ(server.request(1).header("cookie"), "moved=1") << "sent with the next already";
  EXPECT_EQ(storedBy(client), "moved=1") << "those of the answer are stored with it";
}

TEST(RedirectedExchange, LeavesCookiesOfRedirectsThatAreNotFollowedToTheAnswer) {
  ScriptedServer server(redirecting("ftp://home"));
  ExchangeClient client{Config(server.port())};
  EXPECT_EQ(client.bodyOf(Request("GET", "/302/end")), "moved");
  EXPECT_EQ(storedBy(client), "");
}

TEST(RedirectedExchange, StoresNoCookiesOfAnotherServersRedirects) {
  ScriptedServer elsewhere(redirecting());
  ScriptedServer server([&](Connection& connection) {
    connection.readRequest();
    connection.sendResponse(301, {{"Location", serverAt(elsewhere.port()) + "/302/end"}});
  });
  ExchangeClient client{Config(server.port())};
  EXPECT_EQ(client.bodyOf(Request("GET", "/x")), "GET");
  EXPECT_EQ(storedBy(client), "");
}

}  // namespace
}  // namespace connectivity::plugins
