#include "plugins/http_client/shared/Cookies.hpp"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "connectivity/data_t.hpp"
#include "tests/support/ServiceDoubles.hpp"

namespace connectivity::plugins {
namespace {

using test_support::LogDouble;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;
using testing::UnorderedElementsAre;
using namespace std::chrono_literals;

using Texts = std::map<std::string, std::string>;

using Pairs = std::vector<std::pair<std::string, std::string>>;
using Values = std::vector<std::string_view>;

Values valuesOf(const std::vector<std::string>& lines) { return {lines.begin(), lines.end()}; }

// "a=1; b=2" as its pairs.
Pairs pairsOf(std::string_view line) {
  constexpr std::string_view separator = "; ";
  Pairs pairs;
  while (!line.empty()) {
    const std::string_view pair = line.substr(0, line.find(separator));
    const std::size_t equals = pair.find('=');
    pairs.emplace_back(pair.substr(0, equals), pair.substr(equals + 1));
    line.remove_prefix(std::min(pair.size() + separator.size(), line.size()));
  }
  return pairs;
}

Texts textsOf(const map_t& map) {
  Texts texts;
  for (const auto entry : map) texts.emplace(entry.first.text(), entry.second.text());
  return texts;
}

// A clock that a test moves.
std::atomic<std::chrono::seconds> elapsed{0s};
Cookies::Clock::time_point testTime() {
  return Cookies::Clock::time_point(std::chrono::hours(1000)) + elapsed.load();
}

class CookieJar : public testing::Test {
 protected:
  CookieJar() { elapsed = 0s; }

  Texts set(const std::vector<std::string>& lines) {
    return textsOf(_cookies.setCookiesFromResponse(valuesOf(lines)));
  }
  void store(const std::vector<std::string>& lines) {
    _cookies.storeCookiesFromResponse(valuesOf(lines));
  }
  Pairs sent(const std::string& path = "/", const Texts& own = {}) {
    return pairsOf(_cookies.getCookiesFromRequest(own, "", path));
  }
  std::string line(const std::string& userHeader, const Texts& own = {}) {
    return _cookies.getCookiesFromRequest(own, userHeader, "/");
  }
  const LogDouble& log() const { return _log; }
  Cookies& cookies() { return _cookies; }

 private:
  LogDouble _log;
  Logger _logger{"connectivity.test.1"};
  Cookies _cookies{true, _logger, &testTime};
};

TEST_F(CookieJar, SendsBackWhatTheServerSet) {
  EXPECT_THAT(set({"sid=abc; Path=/; HttpOnly"}), ElementsAre(Pair("sid", "abc")));
  EXPECT_THAT(sent("/anywhere"), ElementsAre(Pair("sid", "abc")));
}

TEST_F(CookieJar, IsEmptyAtFirst) {
  EXPECT_THAT(sent(), IsEmpty());
  EXPECT_THAT(set({}), IsEmpty());
}

TEST_F(CookieJar, RequestsOwnCookiesComeFirstInTheOrderOfTheirNames) {
  set({"jar=1"});
  EXPECT_THAT(sent("/", {{"b", "2"}, {"a", "1"}}),
              ElementsAre(Pair("a", "1"), Pair("b", "2"), Pair("jar", "1")));
}

TEST_F(CookieJar, RequestsOwnCookieWinsOverTheStoredOneAndIsSentOnce) {
  set({"sid=stored", "other=x"});
  EXPECT_THAT(sent("/", {{"sid", "own"}}), ElementsAre(Pair("sid", "own"), Pair("other", "x")));
  EXPECT_THAT(sent(), UnorderedElementsAre(Pair("sid", "stored"), Pair("other", "x")));
}

TEST_F(CookieJar, NamesThatDifferInCaseAreTwoCookies) {
  set({"sid=lower", "SID=upper"});
  EXPECT_THAT(sent(), UnorderedElementsAre(Pair("sid", "lower"), Pair("SID", "upper")));
  EXPECT_THAT(sent("/", {{"Sid", "own"}}),
              UnorderedElementsAre(Pair("Sid", "own"), Pair("sid", "lower"), Pair("SID", "upper")));
}

TEST_F(CookieJar, LaterCookieOfANameReplacesTheFirstWhateverItsPath) {
  set({"sid=1; Path=/a"});
  set({"sid=2; Path=/b"});
  EXPECT_THAT(sent("/a"), IsEmpty());
  EXPECT_THAT(sent("/b"), ElementsAre(Pair("sid", "2")));
}

TEST_F(CookieJar, OfTwoOfOneNameInOneResponseTheJarKeepsTheLastTheAnswerTheFirst) {
  EXPECT_THAT(set({"sid=1", "sid=2"}), ElementsAre(Pair("sid", "1")));
  EXPECT_THAT(sent(), ElementsAre(Pair("sid", "2")));
}

// --- paths --------------------------------------------------------------------------------------

// By design no prefix: the stored path is the whole of the request's, in any case.
TEST_F(CookieJar, PathMatchesTheWholeRequestPathInAnyCase) {
  set({"sid=1; Path=/Docs"});
  EXPECT_THAT(sent("/docs"), ElementsAre(Pair("sid", "1")));
  EXPECT_THAT(sent("/DOCS"), ElementsAre(Pair("sid", "1")));
  EXPECT_THAT(sent("/docs/x"), IsEmpty());
  EXPECT_THAT(sent("/docs/"), IsEmpty());
  EXPECT_THAT(sent("/"), IsEmpty());
}

TEST_F(CookieJar, CookieWithoutPathOrOfTheRootIsSentEverywhere) {
  set({"none=1", "root=2; Path=/", "odd=3; Path=nowhere"});
  EXPECT_THAT(sent("/a/b"),
              UnorderedElementsAre(Pair("none", "1"), Pair("root", "2"), Pair("odd", "3")));
}

// --- lifetimes ----------------------------------------------------------------------------------

TEST_F(CookieJar, SessionCookieNeverExpires) {
  set({"sid=1"});
  elapsed = 100000h;
  EXPECT_THAT(sent(), ElementsAre(Pair("sid", "1")));
}

TEST_F(CookieJar, MaxAgeOfZeroRemovesTheStoredCookieAndIsNotInTheAnswer) {
  set({"sid=1", "other=2"});
  EXPECT_THAT(set({"sid=gone; Max-Age=0"}), IsEmpty());
  EXPECT_THAT(sent(), ElementsAre(Pair("other", "2")));
}

TEST_F(CookieJar, MaxAgeBelowMinusOneRemovesTheStoredCookieToo) {
  set({"sid=1"});
  EXPECT_THAT(set({"sid=gone; Max-Age=-2"}), IsEmpty());
  EXPECT_THAT(sent(), IsEmpty());
}

// The number that stands for "no lifetime" means that where the server sends it, too.
TEST_F(CookieJar, MaxAgeOfMinusOneIsASessionCookie) {
  EXPECT_THAT(set({"sid=1; Max-Age=-1"}), ElementsAre(Pair("sid", "1")));
  elapsed = 100000h;
  EXPECT_THAT(sent(), ElementsAre(Pair("sid", "1")));
}

TEST_F(CookieJar, CookieIsSentUntilItExpiresAndThenForgotten) {
  set({"sid=1; Max-Age=60"});
  elapsed = 60s;
  EXPECT_THAT(sent(), ElementsAre(Pair("sid", "1")));
  elapsed = 61s;
  EXPECT_THAT(sent(), IsEmpty());
  elapsed = 0s;
  EXPECT_THAT(sent(), IsEmpty()) << "the walk has removed it";
}

TEST_F(CookieJar, ExpiredCookieIsForgottenEvenWhereItsPathDoesNotMatch) {
  set({"sid=1; Path=/a; Max-Age=60", "keep=2; Max-Age=120"});
  elapsed = 61s;
  EXPECT_THAT(sent("/b"), ElementsAre(Pair("keep", "2")));
  elapsed = 0s;
  EXPECT_THAT(sent("/a"), ElementsAre(Pair("keep", "2")));
}

TEST_F(CookieJar, PastDateRemovesTheStoredCookieEvenWhereItIsJustPast) {
  set({"sid=1"});
  EXPECT_THAT(set({"sid=; Expires=Thu, 01 Jan 1970 00:00:01 GMT; Path=/"}), IsEmpty());
  EXPECT_THAT(sent(), IsEmpty());
}

TEST_F(CookieJar, DateInTheFarFutureIsKept) {
  EXPECT_THAT(set({"a=1; Expires=Thu, 31 Dec 2099 23:59:59 GMT",
                   "b=2; Expires=Fri, 31 Dec 9999 23:59:59 GMT", "c=3; Max-Age=99999999999999999"}),
              UnorderedElementsAre(Pair("a", "1"), Pair("b", "2"), Pair("c", "3")));
  elapsed = 24h * 365 * 60;
  EXPECT_THAT(sent(), UnorderedElementsAre(Pair("a", "1"), Pair("b", "2"), Pair("c", "3")));
}

TEST_F(CookieJar, DeletionAndSettingInOneResponseHappenInItsOrder) {
  EXPECT_THAT(set({"sid=1; Max-Age=0", "sid=2"}), ElementsAre(Pair("sid", "2")));
  EXPECT_THAT(sent(), ElementsAre(Pair("sid", "2")));
  EXPECT_THAT(set({"sid=3", "sid=4; Max-Age=0"}), ElementsAre(Pair("sid", "3")));
  EXPECT_THAT(sent(), IsEmpty());
}

// --- odd lines ----------------------------------------------------------------------------------

TEST_F(CookieJar, OneOddLineDoesNotHarmTheOthers) {
  EXPECT_THAT(set({"a=1; Max-Age=soon", "=nameless", "b=2; Partitioned", "text", "c=3; Expires=?"}),
              UnorderedElementsAre(Pair("a", "1"), Pair("b", "2"), Pair("c", "3")));
  EXPECT_THAT(sent(), UnorderedElementsAre(Pair("a", "1"), Pair("b", "2"), Pair("c", "3")));
}

TEST_F(CookieJar, CookieWithoutANameIsReportedAndSkipped) {
  EXPECT_THAT(set({"=secret"}), IsEmpty());
  EXPECT_THAT(sent(), IsEmpty());
  ASSERT_TRUE(log().contains("Ignoring a cookie that has no name"));
  EXPECT_EQ(log().find("Ignoring a cookie")->level, QOR_LOG_WARN);
  EXPECT_FALSE(log().contains("secret"));
}

TEST_F(CookieJar, CookieWithAControlOrNonAsciiCharacterIsReportedAndSkipped) {
  EXPECT_THAT(set({"caf\xE9=1", "bad=secret\x01", "late=\xC3\xA9"}), IsEmpty());
  EXPECT_THAT(sent(), IsEmpty());
  EXPECT_TRUE(
      log().contains("Ignoring a cookie whose name holds a control or non-ASCII character"));
  EXPECT_TRUE(log().contains(
      "Ignoring cookie bad because its value holds a control or non-ASCII character"));
  EXPECT_EQ(log().count("Ignoring"), 3U);
  EXPECT_EQ(log().find("Ignoring cookie bad")->level, QOR_LOG_WARN);
  EXPECT_FALSE(log().contains("secret"));
}

// --- the line -----------------------------------------------------------------------------------

TEST_F(CookieJar, LineBeginsWithTheUsersHeaderThenTheRequestsCookiesThenTheJar) {
  set({"jar=3"});
  EXPECT_EQ(line("user=1", {{"own", "2"}}), "user=1; own=2; jar=3");
  EXPECT_EQ(line("", {{"own", "2"}}), "own=2; jar=3");
  EXPECT_EQ(line("user=1"), "user=1; jar=3");
  EXPECT_EQ(line(""), "jar=3");
}

TEST_F(CookieJar, LineIsEmptyWhereThereIsNothingToSend) {
  EXPECT_EQ(line(""), "");
  EXPECT_EQ(line(" ; ;"), "");
}

TEST_F(CookieJar, CookieInTheUsersHeaderWinsOverTheStoredOne) {
  set({"sid=stored", "other=x"});
  EXPECT_EQ(line("sid=user"), "sid=user; other=x");
  EXPECT_EQ(line("a=b;sid =user"), "a=b;sid =user; other=x");
}

TEST_F(CookieJar, RequestsOwnCookieWinsOverTheOneInTheUsersHeader) {
  set({"sid=stored"});
  EXPECT_EQ(line("sid=user", {{"sid", "own"}}), "sid=own");
  EXPECT_EQ(line("a=1; sid=user; b=2", {{"sid", "own"}}), "a=1; b=2; sid=own");
  EXPECT_EQ(line("sid=user; a=1;sid=again", {{"sid", "own"}}), "a=1; sid=own");
  EXPECT_EQ(line("a=1;\tsid\t=user", {{"sid", "own"}}), "a=1; sid=own");
}

TEST_F(CookieJar, RestOfTheUsersHeaderStaysAsItIs) {
  EXPECT_EQ(line("a=\"x;y\";b=1;  c", {{"own", "2"}}), "a=\"x;y\";b=1;  c; own=2");
  EXPECT_EQ(line("a=1;", {{"own", "2"}}), "a=1; own=2");
  EXPECT_EQ(line("x=a=b", {{"a", "2"}}), "x=a=b; a=2");
}

TEST_F(CookieJar, TextWithoutAnEqualsSignInTheUsersHeaderNamesNoCookie) {
  set({"sid=stored"});
  EXPECT_EQ(line("sid"), "sid; sid=stored");
  EXPECT_EQ(line("own", {{"own", "2"}}), "own; own=2; sid=stored");
}

TEST_F(CookieJar, NamesInTheUsersHeaderCountWithTheirCase) {
  set({"sid=stored"});
  EXPECT_EQ(line("SID=user", {{"Sid", "own"}}), "SID=user; Sid=own; sid=stored");
  EXPECT_EQ(line("SID=user", {{"sid", "own"}}), "SID=user; sid=own");
}

// --- bounds -------------------------------------------------------------------------------------

// A cookie of so many bytes, name and value together.
std::string cookieOf(const std::string& name, std::size_t bytes) {
  return name + "=" + std::string(bytes - name.size(), 'x');
}

constexpr const char* leftOutLine =
    "Sending only the cookies set latest, because those of the jar have more than 8000 bytes; this "
    "is reported once";

TEST_F(CookieJar, SendsTheCookieSetLatestFirst) {
  set({"a=1", "b=2", "c=3"});
  set({"a=4"});
  EXPECT_EQ(line(""), "a=4; c=3; b=2");
}

TEST_F(CookieJar, SendsAtMost8000BytesOfItsOwn) {
  set({cookieOf("old", 3998), cookieOf("new", 3998)});
  EXPECT_EQ(line("user=1", {{"own", std::string(9000, 'y')}}).size(),
            std::string("user=1; own=").size() + 9000 + 2 + 8000);
  EXPECT_FALSE(log().contains("Sending only"));
  set({cookieOf("old", 3999)});
  EXPECT_THAT(sent(), ElementsAre(Pair("old", testing::_)));
}

TEST_F(CookieJar, CookieThatDoesNotFitStaysAndLeavesItsPlaceToASmallerOne) {
  set({"small=1", cookieOf("early", 4000), cookieOf("late", 4000)});
  EXPECT_THAT(sent(), ElementsAre(Pair("late", testing::_), Pair("small", "1")));
  set({"late=; Max-Age=0"});
  EXPECT_THAT(sent(), ElementsAre(Pair("early", testing::_), Pair("small", "1")));
}

TEST_F(CookieJar, CookiesThatDoNotFitAreReportedOnce) {
  set({cookieOf("a", 4000), cookieOf("b", 4000), cookieOf("c", 4000)});
  sent();
  sent();
  EXPECT_EQ(log().count(leftOutLine), 1U);
  EXPECT_EQ(log().find(leftOutLine)->level, QOR_LOG_WARN);
  EXPECT_EQ(log().count("Sending"), 1U);
}

TEST_F(CookieJar, CookieOfAnotherPathTakesNoneOfTheBytesSent) {
  set({"here=1", cookieOf("there", 3990) + "; Path=/a", cookieOf("too", 3990) + "; Path=/a"});
  EXPECT_THAT(sent(), ElementsAre(Pair("here", "1")));
  EXPECT_FALSE(log().contains("Sending only"));
}

TEST_F(CookieJar, HoldsACookieOf4096BytesWithItsPath) {
  set({cookieOf("a", 4094) + "; Path=/x"});
  EXPECT_THAT(sent("/x"), ElementsAre(Pair("a", testing::_)));
  set({cookieOf("b", 4096) + "; Path=nowhere"});
  EXPECT_EQ(log().count("Ignoring"), 0U);
}

TEST_F(CookieJar, LargerCookieIsReportedAndIgnoredAndTheOneOfItsNameStays) {
  set({"a=1"});
  EXPECT_THAT(set({cookieOf("a", 4097)}), ElementsAre(Pair("a", testing::_))) << "for the answer";
  store({cookieOf("a", 4095) + "; Path=/x", cookieOf("a", 5000) + "; Max-Age=0"});
  EXPECT_THAT(sent("/x"), ElementsAre(Pair("a", "1")));
  EXPECT_EQ(log().count("Ignoring cookie a because it has more than 4096 bytes"), 3U);
  EXPECT_EQ(log().find("Ignoring")->level, QOR_LOG_WARN);
}

TEST_F(CookieJar, NameOfALargerCookieIsShownInPart) {
  store({std::string(5000, 'n') + "=1"});
  EXPECT_TRUE(log().contains("cookie " + std::string(100, 'n') + " because"));
}

std::string numbered(int number) { return "c" + std::to_string(number); }

TEST_F(CookieJar, HoldsAHundredCookiesAndDropsTheOneSetLongestAgo) {
  for (int i = 0; i < 100; ++i) store({numbered(i) + "=1"});
  EXPECT_EQ(sent().size(), 100U);
  store({"c50=2"});  // no further one
  EXPECT_EQ(sent().size(), 100U);
  store({"c0=2"});  // now c1 was set longest ago
  store({"c100=1"});
  const Pairs now = sent();
  EXPECT_EQ(now.size(), 100U);
  EXPECT_THAT(now, testing::Contains(Pair("c0", "2")));
  EXPECT_THAT(now, testing::Not(testing::Contains(Pair("c1", "1"))));
  EXPECT_THAT(now, testing::Contains(Pair("c2", "1")));
}

TEST_F(CookieJar, DropsExpiredCookiesBeforeAnyOther) {
  store({"oldest=1"});
  store({"brief1=1; Max-Age=60", "brief2=1; Max-Age=60"});
  for (int i = 0; i < 97; ++i) store({numbered(i) + "=1"});
  elapsed = 61s;
  store({"further=1"});
  elapsed = 0s;  // a walk would still send them
  const Pairs now = sent();
  EXPECT_EQ(now.size(), 99U);
  EXPECT_THAT(now, testing::Contains(Pair("oldest", "1")));
  EXPECT_THAT(now, testing::Contains(Pair("further", "1")));
}

TEST_F(CookieJar, FullJarTakesADeletionWithoutDroppingAnother) {
  for (int i = 0; i < 100; ++i) store({numbered(i) + "=1"});
  store({"unknown=; Max-Age=0"});
  EXPECT_EQ(sent().size(), 100U);
  store({"c5=; Max-Age=0"});
  EXPECT_EQ(sent().size(), 99U);
}

// --- the other two ways in ----------------------------------------------------------------------

TEST_F(CookieJar, CookiesOfAFollowedRedirectAreStoredWithoutAMap) {
  set({"gone=1"});
  store({"sid=1", "gone=; Max-Age=0"});
  EXPECT_THAT(sent(), ElementsAre(Pair("sid", "1")));
}

TEST_F(CookieJar, CookiesOfAnotherServerAreTheAnswersOnly) {
  const map_t map = cookies().cookiesOf(Values{"sid=1", "old=2; Max-Age=0"});
  EXPECT_THAT(textsOf(map), ElementsAre(Pair("sid", "1")));
  EXPECT_THAT(sent(), IsEmpty());
}

TEST(WithoutCookieJar, OnlyTheRequestsOwnCookiesAreSentButTheAnswerListsAll) {
  const LogDouble log;
  const Logger logger("connectivity.test.1");
  Cookies cookies(false, logger);
  const map_t answer = cookies.setCookiesFromResponse(Values{"sid=1", "old=2; Max-Age=0"});
  EXPECT_THAT(textsOf(answer), ElementsAre(Pair("sid", "1")));
  cookies.storeCookiesFromResponse(Values{"sid=1"});
  EXPECT_EQ(cookies.getCookiesFromRequest({{"own", "x"}}, "user=y", "/"), "user=y; own=x");
  const std::string large = "large=" + std::string(5000, 'x');
  cookies.setCookiesFromResponse(Values{large});
  EXPECT_FALSE(log.contains("Ignoring")) << "nothing is stored that could be too large";
}

// --- the lock -----------------------------------------------------------------------------------

std::function<void()> inBetween;
Cookies::Clock::time_point interruptedTime() {
  if (const auto action = std::exchange(inBetween, nullptr)) action();
  return testTime();
}

// What is looked at in between would wait for ever for a lock that is held.
TEST(CookieJarLock, IsNotHeldWhileALifetimeIsReckoned) {
  const LogDouble log;
  const Logger logger("connectivity.test.1");
  Cookies cookies(true, logger, &interruptedTime);
  std::size_t seen = 99;
  inBetween = [&] { seen = pairsOf(cookies.getCookiesFromRequest({}, "", "/")).size(); };
  cookies.setCookiesFromResponse(Values{"a=1; Max-Age=60"});
  EXPECT_EQ(seen, 0U);
  EXPECT_EQ(pairsOf(cookies.getCookiesFromRequest({}, "", "/")).size(), 1U);
}

TEST(CookieJarLock, IsNotHeldBetweenOneCookieAndTheNext) {
  const LogDouble log;
  const Logger logger("connectivity.test.1");
  Cookies cookies(true, logger, &interruptedTime);
  std::size_t seen = 99;
  const auto look = [&] { seen = pairsOf(cookies.getCookiesFromRequest({}, "", "/")).size(); };
  inBetween = [&] { inBetween = look; };
  cookies.setCookiesFromResponse(Values{"a=1", "b=2"});
  EXPECT_EQ(seen, 1U) << "the first is there when the second is read";
}

// --- many workers -------------------------------------------------------------------------------

TEST_F(CookieJar, ManyWorkersShareIt) {
  constexpr int workers = 32;
  constexpr int rounds = 200;
  set({"constant=1"});
  std::atomic<int> seen{0};
  std::vector<std::thread> threads;
  for (int worker = 0; worker < workers; ++worker) {
    threads.emplace_back([&, worker] {
      const std::string name = "worker" + std::to_string(worker);
      for (int round = 0; round < rounds; ++round) {
        const std::string value = std::to_string(round);
        set({name + "=" + value, "shared=" + name, "brief=x; Max-Age=0"});
        for (const auto& [sentName, sentValue] : sent("/", {{"own", "x"}})) {
          if (sentName == name && sentValue == value) ++seen;
        }
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(seen, workers * rounds) << "each worker sees what it has just set";
  EXPECT_EQ(sent().size(), workers + 2U);
}

}  // namespace
}  // namespace connectivity::plugins
