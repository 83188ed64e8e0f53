// Cookies on the wire: what a loaded transport keeps of one response and sends with later requests.
#include <algorithm>
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/Messages.hpp"
#include "tests/support/PluginUnderTest.hpp"
#include "tests/support/ScriptedServer.hpp"

namespace {

using test_support::Answer;
using test_support::Config;
using test_support::HeaderList;
using test_support::PluginUnderTest;
using test_support::RecordedRequest;
using test_support::Request;
using test_support::ScriptedServer;

HeaderList setting(const std::vector<std::string>& lines) {
  HeaderList headers;
  for (const std::string& line : lines) headers.emplace_back("Set-Cookie", line);
  return headers;
}

class JarOnTheWire : public testing::Test {
 protected:
  explicit JarOnTheWire(bool jar = true)
      : _plugin(Config(_server.port()).numClients(4).set("cookieJar", jar)) {
    _server.answer("/x", {200, {}, "done"});
  }

  Answer set(const std::vector<std::string>& lines) {
    _server.answer("/set", {200, setting(lines), ""});
    return _plugin.request(Request("GET", "/set"));
  }
  // The Cookie line of a request, or none.
  std::optional<std::string> sent(const Request& request = Request("GET", "/x")) {
    const Answer answer = _plugin.request(request);
    EXPECT_NE(answer.status(), 400) << answer.reason();
    const RecordedRequest last = _server.requests().back();
    EXPECT_LE(last.headerCount("Cookie"), 1U) << last.raw;
    return last.header("Cookie");
  }
  ScriptedServer& server() { return _server; }
  PluginUnderTest& plugin() { return _plugin; }

 private:
  ScriptedServer _server;
  PluginUnderTest _plugin;
};

class WithoutJarOnTheWire : public JarOnTheWire {
 protected:
  WithoutJarOnTheWire() : JarOnTheWire(false) {}
};

TEST_F(JarOnTheWire, CookieIsSentBackByEveryWorker) {
  const Answer answer = set({"sid=abc; Path=/; HttpOnly; Secure; SameSite=Lax"});
  EXPECT_EQ(answer.cookie("sid"), "abc");
  for (int request = 0; request < 8; ++request) EXPECT_EQ(sent(), "sid=abc");
}

TEST_F(JarOnTheWire, RequestsCookiesJarAndHeaderLeaveInOneLine) {
  set({"jar=1", "both=jar"});
  const auto line = sent(
      Request("GET", "/x").cookie("own", "2").cookie("both", "own").header("Cookie", "header=3"));
  EXPECT_EQ(line, "header=3; both=own; own=2; jar=1");
}

TEST_F(JarOnTheWire, PathIsTheWholePathWithoutTheQueryInAnyCase) {
  set({"sid=1; Path=/Docs"});
  EXPECT_EQ(sent(Request("GET", "/docs")), "sid=1");
  EXPECT_EQ(sent(Request("GET", "/docs?q=1").query("r", "2")), "sid=1");
  EXPECT_EQ(sent(Request("GET", "/docs/x")), std::nullopt);
}

TEST_F(JarOnTheWire, MaxAgeOfZeroDeletesAndIsNotInTheAnswer) {
  EXPECT_EQ(set({"sid=1", "other=2"}).cookie("sid"), "1");
  server().answer("/delete", {200, setting({"sid=; Max-Age=0"}), ""});
  const Answer answer = plugin().request(Request("GET", "/delete"));
  EXPECT_EQ(answer.cookie("sid"), std::nullopt);
  EXPECT_EQ(sent(), "other=2");
}

TEST_F(JarOnTheWire, OddCookiesNeverHarmTheResponse) {
  const Answer answer = set({"=nameless", "text", "", "a=1; Max-Age=x; Expires=y; Partitioned",
                             "b=2; Expires=Fri, 31 Dec 9999 23:59:59 GMT", "c=\xE9", ";;;"});
  EXPECT_EQ(answer.status(), 200);
  EXPECT_EQ(answer.cookie("a"), "1");
  EXPECT_EQ(answer.cookie("b"), "2");
  EXPECT_EQ(answer.cookie("c"), std::nullopt);
  const std::string line = sent().value_or("");
  EXPECT_TRUE(line == "a=1; b=2" || line == "b=2; a=1") << line;
  EXPECT_TRUE(plugin().log().contains("Ignoring a cookie that has no name"));
  EXPECT_TRUE(plugin().log().contains("Ignoring cookie c because its value"));
}

TEST_F(JarOnTheWire, CookieOfAFollowedRedirectIsStoredButNotInTheAnswer) {
  HeaderList headers = setting({"step=1"});
  headers.emplace_back("Location", "/x");
  server().answer("/redirect", {302, headers, ""});
  const Answer answer = plugin().request(Request("GET", "/redirect"));
  EXPECT_EQ(answer.status(), 200);
  EXPECT_EQ(answer.cookie("step"), std::nullopt);
  EXPECT_EQ(server().requests().back().header("Cookie"), "step=1") << "of the follow-up already";
  EXPECT_EQ(sent(), "step=1");
}

TEST_F(JarOnTheWire, CookieOfARedirectThatIsDeliveredIsStoredAndInTheAnswer) {
  HeaderList headers = setting({"step=1"});
  headers.emplace_back("Location", "https://elsewhere.test/");
  server().answer("/redirect", {302, headers, ""});
  const Answer answer = plugin().request(Request("GET", "/redirect"));
  EXPECT_EQ(answer.status(), 302);
  EXPECT_EQ(answer.cookie("step"), "1");
  EXPECT_EQ(sent(), "step=1");
}

// Only a redirect that is followed leaves its cookies behind.
TEST_F(JarOnTheWire, CookieOfARedirectThatFailsIsNotStored) {
  HeaderList malformed = setting({"malformed=1"});
  malformed.emplace_back("Location", "http://[::1/x");
  server().answer("/malformed", {302, malformed, ""});
  EXPECT_EQ(plugin().request(Request("GET", "/malformed")).status(), 400);
  EXPECT_EQ(sent(), std::nullopt);

  for (int step = 0; step < 10; ++step) {
    HeaderList headers = setting({"last=" + std::to_string(step)});
    headers.emplace_back("Location", "/" + std::to_string(step + 1));
    server().answer("/" + std::to_string(step), {302, headers, ""});
  }
  EXPECT_EQ(plugin().request(Request("GET", "/0")).reason(), "Maximum redirects exceeded");
  EXPECT_EQ(sent(), "last=8") << "the ninth's, not the tenth's";
}

TEST_F(JarOnTheWire, CookieValuesAreHiddenInTheLog) {
  set({"sid=secret"});
  plugin().log().clear();  // the response that set it is shown
  EXPECT_EQ(sent(), "sid=secret");
  EXPECT_TRUE(plugin().log().contains("Cookie = <hidden>"));
  EXPECT_FALSE(plugin().log().contains("secret"));
}

// Sets a cookie of the request's own name, and deletes one that others set.
void setOneAndDeleteAnother(test_support::Connection& connection) {
  while (const auto request = connection.readRequest()) {
    const std::string name = request->target.substr(1);
    connection.sendResponse(200,
                            setting({name + "=" + name, "shared=" + name, "deleted=1; Max-Age=0",
                                     "brief=" + name + "; Max-Age=60", "brief=; Max-Age=0"}));
  }
}

TEST(JarOfManyWorkers, HoldsWhatEachOfThirtyTwoHasSet) {
  constexpr int requests = 96;  // the jar holds 100
  ScriptedServer server(setOneAndDeleteAnother);
  PluginUnderTest plugin(Config(server.port()).numClients(32).set("cookieJar", true));
  std::vector<test_support::Message> batch;
  batch.reserve(requests);
  for (int i = 0; i < requests; ++i) {
    batch.push_back(Request("GET", ("/c" + std::to_string(i)).c_str()).id(i).message());
  }
  ASSERT_EQ(plugin.send(std::move(batch)), 0);
  for (const Answer& answer : plugin.waitForAnswers(requests)) {
    const std::string own = "c" + std::to_string(answer.id());
    EXPECT_EQ(answer.cookie(own), own);
  }
  plugin.request(Request("GET", "/last"));
  const std::string line = "; " + server.requests().back().header("cookie").value_or("") + ";";
  for (int i = 0; i < requests; ++i) {
    const std::string own = "c" + std::to_string(i);
    EXPECT_NE(line.find("; " + own + "=" + own + ";"), std::string::npos) << own;
  }
  EXPECT_EQ(std::ranges::count(line, '='), requests + 1) << "and the shared one";
}

TEST_F(WithoutJarOnTheWire, CookiesAreInTheAnswerButNotSentBack) {
  EXPECT_EQ(set({"sid=abc"}).cookie("sid"), "abc");
  EXPECT_EQ(sent(), std::nullopt);
  EXPECT_EQ(sent(Request("GET", "/x").cookie("own", "1")), "own=1");
}

TEST(JarBelowABasePath, PathIncludesTheBasePath) {
  ScriptedServer server;
  server.answer("/base/set", {200, setting({"sid=1; Path=/base/x"}), ""});
  server.answer("/base/x", {200, {}, ""});
  PluginUnderTest plugin(
      Config(server.port()).numClients(1).set("cookieJar", true).set("basePath", "/base"));
  plugin.request(Request("GET", "/set"));
  plugin.request(Request("GET", "/x"));
  EXPECT_EQ(server.requests().back().header("Cookie"), "sid=1");
}

}  // namespace
