// How much the cookie jar keeps, and how much of it leaves with a request.
#include <algorithm>
#include <chrono>
#include <cstddef>
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

constexpr std::size_t mostOfTheLine = 8000;
constexpr std::size_t mostOfACookie = 4096;

PluginOptions withoutDumps() {
  PluginOptions options;
  options.logLevel = QOR_LOG_INFO;
  return options;
}

// "c007"
std::string numbered(int number) {
  std::string digits = std::to_string(number);
  return "c" + std::string(digits.size() < 3 ? 3 - digits.size() : 0, '0') + digits;
}

// The names in a Cookie line, in their order.
std::vector<std::string> namesIn(std::string_view line) {
  std::vector<std::string> names;
  while (!line.empty()) {
    const auto end = line.find("; ");
    const auto pair = line.substr(0, end);
    names.emplace_back(pair.substr(0, pair.find('=')));
    line = end == std::string_view::npos ? std::string_view() : line.substr(end + 2);
  }
  return names;
}

std::set<std::string> numberedFrom(int first, int last) {
  std::set<std::string> names;
  for (int number = first; number <= last; ++number) names.insert(numbered(number));
  return names;
}

class JarBounds : public ::testing::Test {
 protected:
  JarBounds() : _plugin(Config(_server.port()).numClients(1), withoutDumps()) {
    _server.answer("/x", {200, {}, "done"});
  }

  void set(const std::vector<std::string>& lines) {
    HeaderList headers;
    for (const std::string& line : lines) headers.emplace_back("Set-Cookie", line);
    const std::string path = "/set" + std::to_string(++_sets);
    _server.answer(path, {200, headers, ""});
    EXPECT_EQ(_plugin.request(Request("GET", path.c_str())).status(), 200);
  }
  // One response for each.
  void setEach(int first, int last) {
    for (int number = first; number <= last; ++number) set({numbered(number) + "=v"});
  }
  std::string sent(const Request& request = Request("GET", "/x")) {
    EXPECT_EQ(_plugin.request(request).status(), 200);
    return lastRequest(_server).header("Cookie").value_or("");
  }
  std::set<std::string> namesSent() {
    const auto names = namesIn(sent());
    const std::set<std::string> distinct(names.begin(), names.end());
    EXPECT_EQ(distinct.size(), names.size());
    return distinct;
  }
  std::size_t warnings() { return linesOfLevel(_plugin.log(), QOR_LOG_WARN); }
  PluginUnderTest& plugin() { return _plugin; }

 private:
  ScriptedServer _server;
  PluginUnderTest _plugin;
  int _sets = 0;
};

// --- The line -----------------------------------------------------------------------------------

// As widespread servers do: a line of more than 8 KB is refused.
void setACookieForEachRequest(Connection& connection) {
  while (const auto request = connection.readRequest()) {
    const bool tooLong = request->header("Cookie").value_or("").size() > 8192 - 10;
    connection.sendResponse(tooLong ? 400 : 200, {{"Set-Cookie", request->target.substr(1) + "=" +
                                                                     std::string(100, 'v')}});
  }
}

TEST(JarBoundsOfAThousandCookies, EveryRequestIsAnswered) {
  ScriptedServer server(setACookieForEachRequest);
  PluginUnderTest plugin(Config(server.port()).numClients(1), withoutDumps());
  for (int number = 0; number < 1000; ++number) {
    const Answer answer = plugin.request(Request("GET", ("/" + numbered(number)).c_str()));
    ASSERT_EQ(answer.status(), 200) << "request " << number;
  }
  for (const RecordedRequest& request : server.requests()) {
    EXPECT_LE(request.header("Cookie").value_or("").size(), mostOfTheLine) << request.target;
  }
  EXPECT_EQ(linesOfLevel(plugin.log(), QOR_LOG_WARN), 1U) << "what stays behind is reported once";
}

TEST(JarBoundsOfAThousandCookies, TheLatestAreSentAndAsManyAsFit) {
  ScriptedServer server(setACookieForEachRequest);
  PluginUnderTest plugin(Config(server.port()).numClients(1), withoutDumps());
  for (int number = 0; number < 1000; ++number) {
    plugin.request(Request("GET", ("/" + numbered(number)).c_str()));
  }
  plugin.request(Request("GET", "/last"));
  const std::string line = lastRequest(server).header("Cookie").value_or("");
  const auto names = namesIn(line);
  // "c999=" and the value, and what stands between two of them.
  constexpr int most = (mostOfTheLine + 2) / (5 + 100 + 2);
  EXPECT_EQ(std::set<std::string>(names.begin(), names.end()), numberedFrom(1000 - most, 999));
  EXPECT_LE(line.size(), mostOfTheLine);
}

TEST_F(JarBounds, RequestsOwnCookiesTakeNothingOfTheJarsRoom) {
  for (int number = 0; number < 4; ++number) {
    set({numbered(number) + "=" + std::string(1990, 'v')});
  }
  const std::string own(3000, 'o');
  const std::string line = sent(Request("GET", "/x").cookie("own", own));
  const auto names = namesIn(line);
  EXPECT_EQ(std::set<std::string>(names.begin(), names.end()),
            (std::set<std::string>{"c000", "c001", "c002", "c003", "own"}));
  EXPECT_EQ(warnings(), 0U);
}

TEST_F(JarBounds, WhatDoesNotFitStaysInTheJar) {
  for (int number = 0; number < 6; ++number) {
    set({numbered(number) + "=" + std::string(1990, 'v')});
  }
  EXPECT_EQ(namesSent(), numberedFrom(2, 5));
  set({"c005=; Max-Age=0", "c004=; Max-Age=0"});
  EXPECT_EQ(namesSent(), numberedFrom(0, 3));
  EXPECT_EQ(warnings(), 1U);
}

TEST_F(JarBounds, CookieThatIsSetAgainIsAmongTheLatest) {
  for (int number = 0; number < 5; ++number) {
    set({numbered(number) + "=" + std::string(1990, 'v')});
  }
  set({"c000=" + std::string(1990, 'w')});
  EXPECT_EQ(namesSent(), (std::set<std::string>{"c000", "c002", "c003", "c004"}));
}

// --- One cookie ---------------------------------------------------------------------------------

TEST_F(JarBounds, CookieOfTheFullSizeIsKept) {
  const std::string value(mostOfACookie - 3, 'v');
  set({"big=" + value});
  EXPECT_EQ(sent(), "big=" + value);
  const std::string shorter = value.substr(2);
  set({"big=" + shorter + "; Path=/x"});
  EXPECT_EQ(sent(), "big=" + shorter);
  EXPECT_EQ(warnings(), 0U);
}

TEST_F(JarBounds, LargerCookieIsIgnoredAndTheOneOfThatNameStays) {
  set({"big=small"});
  set({"big=" + std::string(mostOfACookie - 2, 'v')});
  EXPECT_EQ(sent(), "big=small");
  EXPECT_EQ(warnings(), 1U);
}

TEST_F(JarBounds, PathThatWasGivenCountsForTheSizeOfACookie) {
  set({"big=small"});
  set({"big=" + std::string(mostOfACookie - 4, 'v') + "; Path=/x"});
  EXPECT_EQ(sent(), "big=small");
  EXPECT_EQ(warnings(), 1U);
}

TEST_F(JarBounds, LargerCookieDisplacesNoOther) {
  setEach(0, 99);
  set({"big=" + std::string(mostOfACookie, 'v')});
  EXPECT_EQ(namesSent(), numberedFrom(0, 99));
}

// --- A hundred ----------------------------------------------------------------------------------

TEST_F(JarBounds, HundredCookiesAreKept) {
  setEach(0, 99);
  EXPECT_EQ(namesSent(), numberedFrom(0, 99));
}

TEST_F(JarBounds, FurtherCookieTakesThePlaceOfTheOneSetLongestAgo) {
  setEach(0, 100);
  EXPECT_EQ(namesSent(), numberedFrom(1, 100));
  setEach(101, 102);
  EXPECT_EQ(namesSent(), numberedFrom(3, 102));
}

TEST_F(JarBounds, CookieThatIsSetAgainIsNotTheOneSetLongestAgo) {
  setEach(0, 99);
  set({"c000=again"});
  EXPECT_EQ(namesSent(), numberedFrom(0, 99)) << "none of a new name";
  setEach(100, 100);
  auto expected = numberedFrom(2, 100);
  expected.insert("c000");
  EXPECT_EQ(namesSent(), expected);
}

TEST_F(JarBounds, CookiesOfOneResponseCountOneByOne) {
  setEach(0, 97);
  set({"c098=v", "c099=v", "c100=v", "c101=v"});
  EXPECT_EQ(namesSent(), numberedFrom(2, 101));
}

// The request whose response brings the hundred-and-first cookie leaves with "brief" still alive;
// the response is held back until it has expired.
TEST(JarBoundsOfTime, ExpiredCookieGoesBeforeTheOneSetLongestAgo) {
  ScriptedServer server([](Connection& connection) {
    while (const auto request = connection.readRequest()) {
      if (request->target != "/late") {
        connection.sendResponse(200, {{"Set-Cookie", request->target.substr(1)}});
        continue;
      }
      connection.linger(std::chrono::milliseconds(1500));
      connection.sendResponse(200, {{"Set-Cookie", "late=v"}});
    }
  });
  PluginUnderTest plugin(Config(server.port()).numClients(1), withoutDumps());
  for (int number = 0; number < 99; ++number) {
    plugin.request(Request("GET", ("/" + numbered(number) + "=v").c_str()));
  }
  plugin.request(Request("GET", "/brief=v;Max-Age=1"));
  plugin.request(Request("GET", "/late"));
  plugin.request(Request("GET", "/none=;Max-Age=0"));
  const auto names = namesIn(lastRequest(server).header("Cookie").value_or(""));
  auto expected = numberedFrom(0, 98);
  expected.insert("late");
  EXPECT_EQ(std::set<std::string>(names.begin(), names.end()), expected);
}

}  // namespace
}  // namespace test_support
