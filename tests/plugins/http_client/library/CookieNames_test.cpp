// The cookies that a request brings itself: what their names and values may hold, and which of
// several cookies of one name is sent.
#include <functional>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>

#include "tests/plugins/http_client/Expectations.hpp"
#include "tests/support/PluginUnderTest.hpp"
#include "tests/support/ScriptedServer.hpp"

namespace test_support {
namespace {

// The pairs of a Cookie line; each counts.
std::multiset<std::string> pairsIn(std::string_view line) {
  std::multiset<std::string> pairs;
  while (!line.empty()) {
    const auto end = line.find("; ");
    pairs.emplace(line.substr(0, end));
    line = end == std::string_view::npos ? std::string_view() : line.substr(end + 2);
  }
  return pairs;
}

using Pairs = std::multiset<std::string>;

class CookieNames : public ::testing::Test {
 protected:
  CookieNames() : _plugin(Config(_server.port()).numClients(1)) {
    _server.answer("/set", {200, {{"Set-Cookie", "sid=jar"}, {"Set-Cookie", "other=jar"}}, ""});
    _server.answer("/x", {200, {}, "done"});
  }

  void fillJar() { EXPECT_EQ(_plugin.request(Request("GET", "/set")).status(), 200); }
  Pairs sent(const Request& request) {
    const Answer answer = _plugin.request(request);
    EXPECT_EQ(answer.status(), 200) << answer.reason();
    const RecordedRequest last = lastRequest(_server);
    EXPECT_LE(last.headerCount("Cookie"), 1U) << last.raw;
    return pairsIn(last.header("Cookie").value_or(""));
  }
  void expectRefused(const Request& request, const std::string& item) {
    expectErrorNaming(_plugin.request(request), item);
    EXPECT_EQ(_server.connectionCount(), 0U);
  }

 private:
  ScriptedServer _server;
  PluginUnderTest _plugin;
};

Request get() { return {"GET", "/x"}; }

// --- Names and values ---------------------------------------------------------------------------

TEST_F(CookieNames, ThatAreNoTokensAreRefused) {
  for (const char* const name : {"a b", "a=b", "a;b", "a,b", " a", "a ", "\"a\"", "a/b", "a[1]",
                                 "\u00e4", "a\u00a0b", "@", "a:b"}) {
    expectRefused(get().cookie(name, "v"), std::string("http.cookies.") + name);
  }
}

TEST_F(CookieNames, ThatAreEmptyAreRefused) {
  expectRefused(get().cookie("", "v"), "http.cookies.");
}

TEST_F(CookieNames, OfTokensGoOutAsTheyAre) {
  const std::string name = "!#$%&'*+-.^_`|~09AZaz";
  EXPECT_EQ(sent(get().cookie(name, "v")), (Pairs{name + "=v"}));
}

TEST_F(CookieNames, OfAValueWithASemicolonAreNamedInTheRefusal) {
  expectRefused(get().cookie("sid", "1; admin=1"), "http.cookies.sid");
  expectRefused(get().cookie("sid", ";"), "http.cookies.sid");
}

TEST_F(CookieNames, OfAnyOtherValueAreSent) {
  EXPECT_EQ(sent(get().cookie("a", "").cookie("b", "x=y, z \"q\"")),
            (Pairs{"a=", "b=x=y, z \"q\""}));
}

// --- Which of one name --------------------------------------------------------------------------

TEST_F(CookieNames, OfTheCookieHeaderWinOverTheJars) {
  fillJar();
  EXPECT_EQ(sent(get().header("Cookie", "sid=header")), (Pairs{"sid=header", "other=jar"}));
  EXPECT_EQ(sent(get().header("Cookie", "a=1; sid=header; b=2")),
            (Pairs{"a=1", "sid=header", "b=2", "other=jar"}));
}

TEST_F(CookieNames, OfTheCookieHeaderWinHoweverItIsSpaced) {
  fillJar();
  EXPECT_EQ(sent(get().header("Cookie", "other=header;  sid=header")).count("sid=jar"), 0U);
  EXPECT_EQ(sent(get().header("Cookie", "a=1;sid=header")).count("sid=jar"), 0U);
  EXPECT_EQ(sent(get().header("Cookie", "sid")).count("other=jar"), 1U);
}

TEST_F(CookieNames, OfTheRequestsCookiesWinOverTheJars) {
  fillJar();
  EXPECT_EQ(sent(get().cookie("sid", "own")), (Pairs{"sid=own", "other=jar"}));
}

TEST_F(CookieNames, OfTheRequestsCookiesWinOverTheHeaderAndTheJars) {
  fillJar();
  EXPECT_EQ(sent(get().header("Cookie", "sid=header").cookie("sid", "own")),
            (Pairs{"sid=own", "other=jar"}));
  EXPECT_EQ(sent(get().header("Cookie", "a=1; sid=header; b=2").cookie("sid", "own")),
            (Pairs{"a=1", "b=2", "sid=own", "other=jar"}));
}

TEST_F(CookieNames, AreComparedWithCase) {
  fillJar();
  EXPECT_EQ(sent(get().header("Cookie", "SID=header").cookie("Sid", "own")),
            (Pairs{"SID=header", "Sid=own", "sid=jar", "other=jar"}));
}

TEST_F(CookieNames, AreComparedWhole) {
  fillJar();
  EXPECT_EQ(sent(get().header("Cookie", "mysid=header; sid2=header")),
            (Pairs{"mysid=header", "sid2=header", "sid=jar", "other=jar"}));
}

TEST_F(CookieNames, OfOneRequestChangeNothingInTheJar) {
  fillJar();
  sent(get().header("Cookie", "sid=header").cookie("other", "own"));
  EXPECT_EQ(sent(get()), (Pairs{"sid=jar", "other=jar"}));
}

}  // namespace
}  // namespace test_support
