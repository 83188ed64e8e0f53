// Redirects to another server: which are followed, what that server may see, and that the worker is
// back at the configured server, on its kept connection, for the next request.
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/Certificates.hpp"
#include "tests/support/PluginUnderTest.hpp"
#include "tests/support/ScriptedProxy.hpp"
#include "tests/support/ScriptedServer.hpp"

namespace test_support {
namespace {

constexpr const char* credentials = "Basic dXNlcjpwYXNz";  // user:pass

std::string place(const std::string& host, int port, const std::string& path) {
  return "http://" + host + ":" + std::to_string(port) + path;
}

// A configured server ("home"), and another one on another port.
class RedirectsElsewhere : public ::testing::Test {
 protected:
  RedirectsElsewhere() {
    _plugin = std::make_unique<PluginUnderTest>(Config(_home.port())
                                                    .numClients(1)
                                                    .set("cookieJar", true)
                                                    .basicAuthentication("user", "pass"));
    _home.answer("/near", {200, {}, "near"});
    _elsewhere.answer("/far", {200, {}, "far"});
  }
  void TearDown() override {
    EXPECT_EQ(_plugin->shutdown(), 0);
    EXPECT_EQ(_plugin->answerCount(), _asked);
  }

  Answer ask(const Request& request) {
    ++_asked;
    return _plugin->request(request);
  }
  std::string far(const std::string& path = "/far") const {
    return place("127.0.0.1", _elsewhere.port(), path);
  }
  void redirect(const std::string& from, int status, const std::string& location) {
    _home.answer(from, {status, {{"Location", location}}, "moved"});
  }
  // The next request is served by the configured server, on the connection that it has had.
  void expectBackHome() {
    EXPECT_EQ(ask(Request("GET", "/near")).body(), "near");
    EXPECT_EQ(_home.requests().back().header("authorization"), credentials);
    EXPECT_EQ(_home.connectionCount(), 1U);
  }
  ScriptedServer& home() { return _home; }
  ScriptedServer& elsewhere() { return _elsewhere; }
  PluginUnderTest& plugin() { return *_plugin; }
  LogDouble& log() { return _plugin->log(); }

 private:
  ScriptedServer _home;
  ScriptedServer _elsewhere;
  std::unique_ptr<PluginUnderTest> _plugin;
  std::size_t _asked = 0;
};

// --- Which are followed -------------------------------------------------------------------------

TEST_F(RedirectsElsewhere, ForGoodAreFollowed) {
  for (const int status : {301, 308}) {
    const std::string path = "/" + std::to_string(status);
    redirect(path, status, far("/far?x=1"));
    const Answer answer = ask(Request("GET", path.c_str()).id(4));
    EXPECT_EQ(answer.status(), 200) << answer.reason();
    EXPECT_EQ(answer.body(), "far");
    EXPECT_EQ(answer.text("http/path"), path);
    EXPECT_EQ(answer.id(), 4);
    EXPECT_EQ(elsewhere().requests().back().target, "/far?x=1");
    expectBackHome();
  }
  const auto line = log().find(
      "Received permanent redirects requests with host= 127.0.0.1 and new "
      "URL " +
      far("/far?x=1"));
  ASSERT_TRUE(line.has_value());
  EXPECT_EQ(line->level, QOR_LOG_DEBUG);
}

TEST_F(RedirectsElsewhere, ForNowAreDeliveredAsTheyAre) {
  for (const int status : {302, 303, 307}) {
    const std::string path = "/" + std::to_string(status);
    redirect(path, status, far());
    const Answer answer = ask(Request("GET", path.c_str()).id(4));
    EXPECT_EQ(answer.status(), status);
    EXPECT_EQ(answer.body(), "moved");
    EXPECT_EQ(answer.header("location"), far());
    EXPECT_FALSE(answer.isError());
    const auto line = log().find(
        "Ignored HTTP redirect: Id 4, status " + std::to_string(status) +
        ", it redirects to different host/port, from host 127.0.0.1 or port " +
        std::to_string(home().port()) + " to 127.0.0.1:" + std::to_string(elsewhere().port()));
    ASSERT_TRUE(line.has_value()) << status;
    EXPECT_EQ(line->level, QOR_LOG_WARN);
  }
  EXPECT_EQ(elsewhere().connectionCount(), 0U);
  EXPECT_EQ(plugin().statusItem(".status"), "ONLINE");
  expectBackHome();
}

TEST_F(RedirectsElsewhere, AreTheSamePortUnderAnotherNameToo) {
  const std::string other = place("localhost", home().port(), "/near");
  redirect("/now", 302, other);
  redirect("/good", 301, other);
  EXPECT_EQ(ask(Request("GET", "/now")).status(), 302);
  const Answer answer = ask(Request("GET", "/good"));
  EXPECT_EQ(answer.body(), "near") << answer.reason();
  const RecordedRequest second = home().requests().back();
  EXPECT_EQ(second.header("host"), "localhost:" + std::to_string(home().port()));
  EXPECT_EQ(second.header("authorization"), std::nullopt);
  EXPECT_EQ(second.connection, 2);
}

TEST_F(RedirectsElsewhere, KeepMethodAndBodyWhereTheStatusSaysSo) {
  redirect("/from", 308, far());
  ask(Request("POST", "/from").contentType("text/csv").body("a,b"));
  const RecordedRequest kept = elsewhere().requests().back();
  EXPECT_EQ(kept.method, "POST");
  EXPECT_EQ(kept.body, "a,b");
  EXPECT_EQ(kept.header("content-type"), "text/csv;charset=utf-8");

  redirect("/other", 301, far());
  ask(Request("POST", "/other").contentType("text/csv").body("a,b"));
  const RecordedRequest dropped = elsewhere().requests().back();
  EXPECT_EQ(dropped.method, "GET");
  EXPECT_EQ(dropped.body, "");
  EXPECT_EQ(dropped.header("content-type"), std::nullopt);
}

// --- What the other server may see --------------------------------------------------------------

TEST_F(RedirectsElsewhere, CarryNoCredentialCookieOrHostOfTheConfiguredServer) {
  home().answer("/near", {200, {{"Set-Cookie", "jar=1; Path=/"}}, "near"});
  ask(Request("GET", "/near"));
  redirect("/from", 301, far());
  ask(Request("GET", "/from")
          .cookie("own", "2")
          .header("Cookie", "header=3")
          .header("Authorization", "Bearer secret")
          .header("Proxy-Authorization", "Basic secret")
          .header("Host", "virtual.test")
          .header("X-Kept", "kept"));
  const RecordedRequest first = home().requests().back();
  EXPECT_EQ(first.header("host"), "virtual.test");
  EXPECT_EQ(first.header("authorization"), "Bearer secret");
  EXPECT_TRUE(first.header("cookie").value_or("").find("header=3") != std::string::npos);

  const RecordedRequest second = elsewhere().request(0);
  EXPECT_EQ(second.header("authorization"), std::nullopt);
  EXPECT_EQ(second.header("proxy-authorization"), std::nullopt);
  EXPECT_EQ(second.header("cookie"), std::nullopt);
  EXPECT_EQ(second.header("host"), "127.0.0.1:" + std::to_string(elsewhere().port()));
  EXPECT_EQ(second.headerCount("host"), 1U);
  EXPECT_EQ(second.header("x-kept"), "kept");
  EXPECT_EQ(second.raw.find("secret"), std::string::npos);
}

TEST_F(RedirectsElsewhere, CarryNoBasicAuthentication) {
  redirect("/from", 308, far());
  ask(Request("POST", "/from").body("x"));
  EXPECT_EQ(home().request(0).header("authorization"), credentials);
  EXPECT_EQ(elsewhere().request(0).header("authorization"), std::nullopt);
}

TEST_F(RedirectsElsewhere, CarryNoUserInformationOfTheLocation) {
  redirect("/from", 301, "http://u:p@127.0.0.1:" + std::to_string(elsewhere().port()) + "/far");
  EXPECT_EQ(ask(Request("GET", "/from")).body(), "far");
  EXPECT_EQ(elsewhere().request(0).header("authorization"), std::nullopt);
}

TEST_F(RedirectsElsewhere, LeaveCookiesOfTheOtherServerOutOfTheJarButInTheAnswer) {
  redirect("/from", 301, far());
  elsewhere().answer("/far", {200, {}, ""});
  elsewhere().answer("/cookie", {200, {{"Set-Cookie", "theirs=1; Path=/"}}, ""});
  redirect("/cookie", 301, far("/cookie"));
  EXPECT_EQ(ask(Request("GET", "/cookie")).cookie("theirs"), "1");
  ask(Request("GET", "/near"));
  EXPECT_EQ(home().requests().back().header("cookie"), std::nullopt);
  ask(Request("GET", "/cookie"));
  EXPECT_EQ(elsewhere().requests().back().header("cookie"), std::nullopt);
}

TEST_F(RedirectsElsewhere, StoreTheCookiesOfTheRedirectItself) {
  home().answer("/from", {301, {{"Location", far()}, {"Set-Cookie", "ours=1; Path=/"}}, ""});
  const Answer answer = ask(Request("GET", "/from"));
  EXPECT_EQ(answer.cookie("ours"), std::nullopt);
  EXPECT_EQ(elsewhere().request(0).header("cookie"), std::nullopt);
  ask(Request("GET", "/near"));
  EXPECT_EQ(home().requests().back().header("cookie"), "ours=1");
}

TEST_F(RedirectsElsewhere, StoreNoCookiesOfARedirectThatComesFromTheOtherServer) {
  const std::string near = place("127.0.0.1", home().port(), "/near");
  elsewhere().answer("/back", {301, {{"Location", near}, {"Set-Cookie", "theirs=1; Path=/"}}, ""});
  redirect("/from", 301, far("/back"));
  EXPECT_EQ(ask(Request("GET", "/from")).body(), "near");
  EXPECT_EQ(home().requests().back().header("cookie"), std::nullopt);
}

// --- Coming back --------------------------------------------------------------------------------

TEST_F(RedirectsElsewhere, BackToTheConfiguredServerUseItsKeptConnectionAndCredentials) {
  const std::string near = place("127.0.0.1", home().port(), "/near");
  elsewhere().answer("/back", {308, {{"Location", near}}, ""});
  redirect("/from", 308, far("/back"));
  const Answer answer = ask(Request("GET", "/from").header("Host", "virtual.test"));
  EXPECT_EQ(answer.body(), "near") << answer.reason();
  const RecordedRequest last = home().requests().back();
  EXPECT_EQ(last.header("authorization"), credentials);
  EXPECT_EQ(last.header("host"), "virtual.test");
  EXPECT_EQ(home().connectionCount(), 1U);
  EXPECT_EQ(elsewhere().connectionCount(), 1U);
  expectBackHome();
}

TEST_F(RedirectsElsewhere, AtTheOtherServerStayOnItsConnection) {
  redirect("/from", 301, far("/first"));
  elsewhere().answer("/first", {302, {{"Location", "far"}}, ""});
  EXPECT_EQ(ask(Request("GET", "/from")).body(), "far");
  EXPECT_EQ(elsewhere().connectionCount(), 1U);
  EXPECT_EQ(elsewhere().request(1).header("authorization"), std::nullopt);
  expectBackHome();
}

TEST_F(RedirectsElsewhere, ToAThirdServerAreFollowedWithoutCredentials) {
  ScriptedServer third;
  third.answer("/third", {200, {}, "third"});
  redirect("/from", 301, far("/on"));
  elsewhere().answer("/on", {301, {{"Location", place("127.0.0.1", third.port(), "/third")}}, ""});
  EXPECT_EQ(ask(Request("GET", "/from")).body(), "third");
  EXPECT_EQ(third.request(0).header("authorization"), std::nullopt);
  expectBackHome();
}

TEST_F(RedirectsElsewhere, BetweenTwoServersCountTogether) {
  elsewhere().answer("/pong",
                     {301, {{"Location", place("127.0.0.1", home().port(), "/ping")}}, ""});
  redirect("/ping", 301, far("/pong"));
  const Answer answer = ask(Request("GET", "/ping"));
  EXPECT_EQ(answer.status(), 400);
  EXPECT_EQ(answer.reason(), "Maximum redirects exceeded");
  EXPECT_EQ(home().requestCount() + elsewhere().requestCount(), 10U);
  expectBackHome();
}

TEST_F(RedirectsElsewhere, ThatEndInAnErrorThereLeaveTheWorkerAtHome) {
  redirect("/from", 301, far("/missing"));
  EXPECT_EQ(ask(Request("GET", "/from")).status(), 404);
  expectBackHome();
}

TEST_F(RedirectsElsewhere, ToNobodyFailTheRequestOnce) {
  redirect("/from", 301, place("127.0.0.1", unusedPort(), "/x"));
  const Answer answer = ask(Request("GET", "/from").id(8));
  EXPECT_EQ(answer.status(), 400);
  EXPECT_NE(answer.reason().find("Connection refused"), std::string::npos) << answer.reason();
  EXPECT_EQ(answer.id(), 8);
  EXPECT_EQ(plugin().statusItem(".status"), "FAILED");
  expectBackHome();
}

TEST_F(RedirectsElsewhere, ThatAreMalformedThereLeaveTheWorkerAtHome) {
  redirect("/from", 301, far("/bad"));
  elsewhere().answer("/bad", {301, {{"Location", "http://[::1/"}}, ""});
  EXPECT_TRUE(ask(Request("GET", "/from")).reason().starts_with("Invalid Location header ("));
  expectBackHome();
}

TEST_F(RedirectsElsewhere, WhoseAnswerBreaksOffLeaveTheWorkerAtHome) {
  ScriptedServer breaking([](Connection& connection) {
    connection.readRequest();
    connection.send("HTTP/1.1 200 OK\r\nContent-Length: 9\r\n\r\nshort");
  });
  redirect("/from", 301, place("127.0.0.1", breaking.port(), "/x"));
  EXPECT_EQ(ask(Request("GET", "/from")).reason(), "Error processing response stream: I/O error");
  expectBackHome();
}

TEST_F(RedirectsElsewhere, HaveTheirRetryAtTheOtherServer) {
  ScriptedServer flaky({[](Connection& connection) { connection.readRequest(); },
                        [](Connection& connection) {
                          connection.readRequest();
                          connection.sendResponse(200, {}, "second try");
                        }});
  redirect("/from", 308, place("127.0.0.1", flaky.port(), "/x"));
  EXPECT_EQ(ask(Request("PUT", "/from").body("whole")).body(), "second try");
  EXPECT_EQ(flaky.request(0).body, "whole");
  EXPECT_EQ(flaky.request(1).body, "whole");
  EXPECT_EQ(flaky.request(1).header("authorization"), std::nullopt);
  EXPECT_EQ(home().requestCount(), 1U);
  expectBackHome();
}

// --- One server, however it is spelled ----------------------------------------------------------

TEST(RedirectsHome, AreRecognisedWhateverTheCaseOfTheConfiguredName) {
  ScriptedServer server;
  server.answer("/to", {200, {}, "arrived"});
  server.answer("/from", {302, {{"Location", place("localhost", server.port(), "/to")}}, ""});
  PluginUnderTest plugin(
      Config().host("LocalHost").port(server.port()).basicAuthentication("user", "pass"));
  const Answer answer = plugin.request(Request("GET", "/from"));
  EXPECT_EQ(answer.body(), "arrived") << answer.status();
  EXPECT_EQ(server.request(1).header("authorization"), credentials);
  EXPECT_EQ(server.connectionCount(), 1U);
}

// --- TLS ----------------------------------------------------------------------------------------

class TlsRedirects : public ::testing::Test {
 protected:
  static HeaderList to(const std::string& location) { return {{"Location", location}}; }
  std::string near(const std::string& path) const {
    return "https://127.0.0.1:" + std::to_string(_home.port()) + path;
  }

  CertificateAuthority _authority;
  ScriptedServer _home{TlsOptions{_authority.issue()}};
};

TEST_F(TlsRedirects, WithinTheServerStayOnTheConnection) {
  _home.answer("/from", {302, to(near("/to")), ""});
  _home.answer("/to", {200, {}, "arrived"});
  PluginUnderTest plugin(Config(_home.port()).tls(_authority.caFile()));
  EXPECT_EQ(plugin.request(Request("GET", "/from")).body(), "arrived");
  EXPECT_EQ(_home.connectionCount(), 1U);
}

TEST_F(TlsRedirects, ToPlainHttpAreDeliveredAsTheyAre) {
  ScriptedServer plain;
  _home.answer("/from", {301, to(place("127.0.0.1", plain.port(), "/x")), ""});
  PluginUnderTest plugin(Config(_home.port()).tls(_authority.caFile()));
  EXPECT_EQ(plugin.request(Request("GET", "/from")).status(), 301);
  EXPECT_EQ(plain.connectionCount(), 0U);
  EXPECT_TRUE(plugin.log().contains("it redirects to different schema, from https to http"));
}

TEST_F(TlsRedirects, ToAnotherServerAreFollowedWhereItsNameIsRight) {
  ScriptedServer elsewhere(TlsOptions{_authority.issue()});
  elsewhere.answer("/far", {200, {}, "far"});
  const std::string there = "https://localhost:" + std::to_string(elsewhere.port()) + "/far";
  _home.answer("/from", {301, to(there), ""});
  PluginUnderTest plugin(Config(_home.port()).tls(_authority.caFile()));
  const Answer answer = plugin.request(Request("GET", "/from"));
  EXPECT_EQ(answer.body(), "far") << answer.reason();
}

TEST_F(TlsRedirects, ToAnotherServerAreRefusedWhereItsNameIsWrong) {
  ScriptedServer elsewhere(TlsOptions{_authority.issueForOtherName("other.test")});
  const std::string there = "https://localhost:" + std::to_string(elsewhere.port()) + "/far";
  _home.answer("/from", {301, to(there), ""});
  _home.answer("/near", {200, {}, "near"});
  PluginUnderTest plugin(Config(_home.port()).tls(_authority.caFile()));
  const Answer answer = plugin.request(Request("GET", "/from"));
  EXPECT_EQ(answer.status(), 400);
  EXPECT_EQ(answer.reason(), "SSL Exception: certificate verify failed: hostname mismatch");
  EXPECT_EQ(elsewhere.requestCount(), 0U);
  EXPECT_EQ(plugin.request(Request("GET", "/near")).body(), "near");
  EXPECT_EQ(_home.connectionCount(), 1U);
}

// No certificate can name the host ".", so nothing is sent there: the redirect itself fails.
TEST_F(TlsRedirects, ToAHostThatNoCertificateCanNameFailWithTheKindOfTheFailure) {
  HeaderList headers = to("https://./far");
  headers.emplace_back("Set-Cookie", "step=1; Path=/");
  _home.answer("/from", {301, headers, ""});
  _home.answer("/near", {200, {}, "near"});
  PluginUnderTest plugin(Config(_home.port()).tls(_authority.caFile()));
  const Answer answer = plugin.request(Request("GET", "/from").id(6));
  EXPECT_EQ(answer.status(), 400);
  EXPECT_EQ(answer.reason(), "SSL context exception: Cannot verify certificates for the host");
  EXPECT_EQ(answer.id(), 6);
  EXPECT_TRUE(plugin.log().contains(
      "Failed to perform HTTP redirect: SSL context exception (Cannot verify certificates for the "
      "host)"));
  EXPECT_EQ(plugin.statusItem(".status"), "FAILED");
  EXPECT_EQ(plugin.request(Request("GET", "/near")).body(), "near");
  EXPECT_EQ(_home.requests().back().header("cookie"), std::nullopt) << "it was not followed";
  EXPECT_EQ(_home.connectionCount(), 1U);
}

// --- Through a proxy ----------------------------------------------------------------------------

TEST(ProxiedRedirects, ToAnotherServerGoThroughTheProxyToo) {
  ScriptedServer home;
  ScriptedServer elsewhere;
  elsewhere.answer("/far", {200, {}, "far"});
  home.answer("/from", {301, {{"Location", place("127.0.0.1", elsewhere.port(), "/far")}}, ""});
  ProxyOptions options;
  options.credentials = "user:pass";
  ScriptedProxy proxy(options);
  PluginUnderTest plugin(Config(home.port())
                             .basicAuthentication("own", "secret")
                             .proxy(proxy.port())
                             .proxyCredentials("user", "pass"));
  EXPECT_EQ(plugin.request(Request("GET", "/from")).body(), "far");
  const RecordedRequest second = proxy.request(1);
  EXPECT_EQ(second.target, place("127.0.0.1", elsewhere.port(), "/far"));
  EXPECT_EQ(second.header("host"), "127.0.0.1:" + std::to_string(elsewhere.port()));
  EXPECT_EQ(second.header("proxy-authorization"), credentials);
  EXPECT_EQ(second.header("authorization"), std::nullopt);
}

}  // namespace
}  // namespace test_support
