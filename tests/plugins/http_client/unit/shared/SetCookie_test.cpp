#include "plugins/http_client/shared/SetCookie.hpp"

#include <chrono>
#include <limits>
#include <string>

#include <gtest/gtest.h>

namespace connectivity::plugins {
namespace {

using namespace std::chrono_literals;
using Outcome = SetCookie::Outcome;
using std::chrono::sys_days;
using std::chrono::sys_seconds;
using std::chrono::year;

// 15 November 2023, 12:00:00 UTC.
constexpr sys_seconds noon = sys_days(year(2023) / 11 / 15) + 12h;
constexpr int longest = std::numeric_limits<int>::max();

SetCookie read(std::string_view line, std::chrono::system_clock::time_point now = noon) {
  return readSetCookie(line, now);
}

int lifetimeOf(std::string_view line, std::chrono::system_clock::time_point now = noon) {
  return read(line, now).maxAge;
}

// --- name and value -----------------------------------------------------------------------------

TEST(SetCookie, FirstPairIsTheCookie) {
  const SetCookie read = readSetCookie("sid=31d4d96e407aad42", noon);
  EXPECT_EQ(read.outcome, Outcome::Usable);
  EXPECT_EQ(read.name, "sid");
  EXPECT_EQ(read.value, "31d4d96e407aad42");
  EXPECT_EQ(read.path, "");
  EXPECT_EQ(read.maxAge, -1);
}

TEST(SetCookie, ValueIsKeptAsReceived) {
  EXPECT_EQ(read("a=b=c==; Path=/").value, "b=c==");
  EXPECT_EQ(read("a=\"quoted, text\"").value, "\"quoted, text\"");
  EXPECT_EQ(read("a={\"x\":1}").value, "{\"x\":1}");
  EXPECT_EQ(read("a=back\\slash").value, "back\\slash");
  EXPECT_EQ(read("a=%20b").value, "%20b");
  EXPECT_EQ(read("a=").value, "");
}

TEST(SetCookie, SpaceAroundNameAndValueIsDropped) {
  const SetCookie cookie = read("  a\t =  b c  ; Path=/");
  EXPECT_EQ(cookie.name, "a");
  EXPECT_EQ(cookie.value, "b c");
}

TEST(SetCookie, NameOfAnAttributeIsAFineNameForACookie) {
  EXPECT_EQ(read("path=/x; Path=/y").name, "path");
  EXPECT_EQ(read("path=/x; Path=/y").path, "/y");
  EXPECT_EQ(read("expires=never").value, "never");
  EXPECT_EQ(read("max-age=0").maxAge, -1);
}

TEST(SetCookie, CookieWithoutANameIsTold) {
  for (const char* line :
       {"", ";", "=b", " = b; Path=/", "justtext", "justtext; Path=/", "; a=b"}) {
    EXPECT_EQ(read(line).outcome, Outcome::WithoutName) << line;
  }
}

TEST(SetCookie, ControlOrNonAsciiCharacterIsTold) {
  EXPECT_EQ(read("a\x01=b").outcome, Outcome::BadName);
  EXPECT_EQ(read("\xC3\xA4=b").outcome, Outcome::BadName);
  EXPECT_EQ(read("a=b\xE4").outcome, Outcome::BadValue);
  EXPECT_EQ(read("a=b\tc").outcome, Outcome::BadValue);
  EXPECT_EQ(read("a=b\x7F").outcome, Outcome::BadValue);
  EXPECT_EQ(read(std::string_view("a=b\0c", 5)).outcome, Outcome::BadValue);
}

// --- attributes ---------------------------------------------------------------------------------

TEST(SetCookie, AttributesCountWhateverTheirCase) {
  const SetCookie cookie = read("a=b; PATH=/Docs; max-AGE=60");
  EXPECT_EQ(cookie.path, "/Docs");
  EXPECT_EQ(cookie.maxAge, 60);
}

TEST(SetCookie, OtherAttributesChangeNothing) {
  for (const char* attribute :
       {"Partitioned", "SameSite=None", "Priority=High", "Secure", "HttpOnly", "Domain=.test",
        "Version=1", "Comment=x", "a=z", "=", "", "new-one=1"}) {
    const SetCookie cookie = read(std::string("a=b; ") + attribute + "; Path=/x");
    EXPECT_EQ(cookie.outcome, Outcome::Usable) << attribute;
    EXPECT_EQ(cookie.name, "a") << attribute;
    EXPECT_EQ(cookie.value, "b") << attribute;
    EXPECT_EQ(cookie.path, "/x") << attribute;
    EXPECT_EQ(cookie.maxAge, -1) << attribute;
  }
}

TEST(SetCookie, AttributeInQuotesIsReadWithoutThem) {
  EXPECT_EQ(read("a=b; Path=\"/x\"; Max-Age=\"60\"").path, "/x");
  EXPECT_EQ(lifetimeOf("a=b; Path=\"/x\"; Max-Age=\"60\""), 60);
}

TEST(SetCookie, PathThatIsNoPathIsLeftOut) {
  for (const char* path : {"Path", "Path=", "Path=docs", "Path=\"\""}) {
    EXPECT_EQ(read(std::string("a=b; ") + path).path, "") << path;
  }
}

TEST(SetCookie, LastOfOneAttributeCounts) {
  EXPECT_EQ(read("a=b; Path=/x; Path=/y").path, "/y");
  EXPECT_EQ(lifetimeOf("a=b; Max-Age=1; Max-Age=2"), 2);
}

// --- lifetime -----------------------------------------------------------------------------------

TEST(SetCookie, MaxAgeIsTheLifetime) {
  EXPECT_EQ(lifetimeOf("a=b; Max-Age=3600"), 3600);
  EXPECT_EQ(lifetimeOf("a=b; Max-Age=0"), 0);
  EXPECT_EQ(lifetimeOf("a=b; Max-Age=-5"), -5);
}

TEST(SetCookie, MaxAgeSaturatesAndKeepsItsSign) {
  for (const char* large : {"2147483648", "99999999999", "99999999999999999999999999"}) {
    EXPECT_EQ(lifetimeOf(std::string("a=b; Max-Age=") + large), longest) << large;
    EXPECT_LT(lifetimeOf(std::string("a=b; Max-Age=-") + large), -1) << large;
  }
}

TEST(SetCookie, MaxAgeThatIsNoIntegerIsLeftOut) {
  for (const char* odd : {"Max-Age", "Max-Age=", "Max-Age=soon", "Max-Age=1h", "Max-Age=+60",
                          "Max-Age=6 0", "Max-Age=1.5", "Max-Age=-"}) {
    EXPECT_EQ(lifetimeOf(std::string("a=b; ") + odd), -1) << odd;
  }
  EXPECT_EQ(lifetimeOf("a=b; Max-Age=60; Max-Age=soon"), 60);
}

TEST(SetCookie, MaxAgeWinsOverExpiresInEitherOrder) {
  EXPECT_EQ(lifetimeOf("a=b; Max-Age=60; Expires=Thu, 01 Jan 1970 00:00:00 GMT"), 60);
  EXPECT_EQ(lifetimeOf("a=b; Expires=Thu, 01 Jan 1970 00:00:00 GMT; Max-Age=60"), 60);
  EXPECT_EQ(lifetimeOf("a=b; Max-Age=0; Expires=Fri, 01 Jan 2099 00:00:00 GMT"), 0);
}

TEST(SetCookie, ExpiresCountsWhereMaxAgeCannotBeRead) {
  EXPECT_EQ(lifetimeOf("a=b; Max-Age=soon; Expires=Wed, 15 Nov 2023 12:01:00 GMT"), 60);
}

TEST(SetCookie, ExpiresInTheFutureIsTheTimeUntilThen) {
  EXPECT_EQ(lifetimeOf("a=b; Expires=Wed, 15 Nov 2023 13:00:00 GMT"), 3600);
  EXPECT_EQ(lifetimeOf("a=b; Expires=Wed, 15 Nov 2023 12:00:01 GMT", noon + 300ms), 1);
}

TEST(SetCookie, ExpiresInThePastDeletesEvenWhereItIsJustPast) {
  EXPECT_EQ(lifetimeOf("a=b; Expires=Thu, 01 Jan 1970 00:00:00 GMT"), 0);
  EXPECT_EQ(lifetimeOf("a=b; Expires=Wed, 15 Nov 2023 11:59:59 GMT"), 0);
  EXPECT_EQ(lifetimeOf("a=b; Expires=Wed, 15 Nov 2023 12:00:00 GMT"), 0);
  EXPECT_EQ(lifetimeOf("a=b; Expires=Wed, 15 Nov 2023 12:00:00 GMT", noon + 999ms), 0);
}

TEST(SetCookie, ExpiresInTheFarFutureSaturatesAndNeverTurnsNegative) {
  EXPECT_EQ(lifetimeOf("a=b; Expires=Thu, 31 Dec 2099 23:59:59 GMT"), longest);
  EXPECT_EQ(lifetimeOf("a=b; Expires=Fri, 31 Dec 9999 23:59:59 GMT"), longest);
  EXPECT_EQ(lifetimeOf("a=b; Expires=Mon, 01 Jan 1601 00:00:00 GMT"), 0);
}

TEST(SetCookie, ExpiresThatIsNoDateIsLeftOut) {
  for (const char* odd : {"Expires", "Expires=", "Expires=0", "Expires=-1", "Expires=never",
                          "Expires=Wed, 31 Feb 2024 00:00:00 GMT"}) {
    EXPECT_EQ(lifetimeOf(std::string("a=b; ") + odd), -1) << odd;
  }
}

// --- dates --------------------------------------------------------------------------------------

TEST(CookieDate, EveryCommonFormIsRead) {
  for (const char* text :
       {"Wed, 15 Nov 2023 12:00:00 GMT", "Wednesday, 15-Nov-23 12:00:00 GMT",
        "Wed Nov 15 12:00:00 2023", "Wed, 15-Nov-2023 12:00:00 GMT", "Wed, 15 Nov 2023 12:00:00",
        "15 nov 2023 12:0:0", "12:00:00 15 November 2023", "Wed, 15-NOV-2023 12:00:00 UTC",
        "Wed,15/Nov/2023,12:00:00"}) {
    const auto date = readCookieDate(text);
    ASSERT_TRUE(date.has_value()) << text;
    EXPECT_EQ(*date, noon) << text;
  }
}

TEST(CookieDate, YearOfTwoDigitsIsBetween1970And2069) {
  EXPECT_EQ(readCookieDate("15 Nov 23 12:00:00"), noon);
  EXPECT_EQ(readCookieDate("01 Jan 70 00:00:00"), sys_seconds(0s));
  EXPECT_EQ(readCookieDate("01 Jan 69 00:00:00"), sys_seconds(sys_days(year(2069) / 1 / 1)));
}

TEST(CookieDate, WhatIsNoDateIsNotRead) {
  for (const char* text : {"", "Wed", "15 Nov 2023", "12:00:00", "15 Nov 2023 24:00:00",
                           "15 Nov 2023 12:60:00", "15 Nov 2023 12:00:60", "32 Nov 2023 12:00:00",
                           "00 Nov 2023 12:00:00", "31 Nov 2023 12:00:00", "29 Feb 2023 12:00:00",
                           "15 Nov 1600 12:00:00", "15 Nov 20230 12:00:00", "15 Nov 0 12:00:00",
                           "15 Foo 2023 12:00:00", "15 Nov 2023 12:00", "15 Nov 2023 120:00:00"}) {
    EXPECT_FALSE(readCookieDate(text).has_value()) << text;
  }
  EXPECT_TRUE(readCookieDate("29 Feb 2024 12:00:00").has_value());
}

// --- lines as servers send them -----------------------------------------------------------------

TEST(SetCookie, LinesOfRealServersAreRead) {
  struct Line {
    const char* text;
    const char* name;
    const char* value;
    const char* path;
    int lifetime;
  };
  const Line lines[] = {
      {"JSESSIONID=0A1B2C3D4E5F60718293A4B5C6D7E8F9; Path=/app; HttpOnly", "JSESSIONID",
       "0A1B2C3D4E5F60718293A4B5C6D7E8F9", "/app", -1},
      {"PHPSESSID=el4ukv0kqbvoirg7nkp4dncpk3; path=/", "PHPSESSID", "el4ukv0kqbvoirg7nkp4dncpk3",
       "/", -1},
      {"AWSALB=kv+g/R4h2Q==; Expires=Wed, 22 Nov 2023 12:00:00 GMT; Path=/", "AWSALB",
       "kv+g/R4h2Q==", "/", 7 * 24 * 3600},
      {"__cf_bm=a.b-1700049600-0-c/d+e=; path=/; expires=Wed, 15-Nov-23 12:30:00 GMT; "
       "domain=.test; "
       "HttpOnly; Secure; SameSite=None",
       "__cf_bm", "a.b-1700049600-0-c/d+e=", "/", 1800},
      {"__Host-id=1; Secure; Path=/; Partitioned;", "__Host-id", "1", "/", -1},
      {"NID=511=abc_def; expires=Thu, 16-May-2024 12:00:00 GMT; path=/; domain=.test; HttpOnly",
       "NID", "511=abc_def", "/", 183 * 24 * 3600},
      {"ARRAffinity=5f2a;Path=/;HttpOnly;Domain=test", "ARRAffinity", "5f2a", "/", -1},
      {"BIGipServerpool=184620554.20480.0000; path=/", "BIGipServerpool", "184620554.20480.0000",
       "/", -1},
      {"rememberMe=deleteMe; Path=/; Max-Age=0; Expires=Tue, 14-Nov-2023 12:00:00 GMT",
       "rememberMe", "deleteMe", "/", 0},
      {"lang=en-US; Expires=Wed, 09 Jun 2021 10:18:14 GMT", "lang", "en-US", "", 0},
      {"csrf=\"a b\"; Version=1; Path=\"/\"; Max-Age=3600", "csrf", "\"a b\"", "/", 3600},
  };
  for (const Line& line : lines) {
    const SetCookie cookie = read(line.text);
    EXPECT_EQ(cookie.outcome, Outcome::Usable) << line.text;
    EXPECT_EQ(cookie.name, line.name);
    EXPECT_EQ(cookie.value, line.value) << line.text;
    EXPECT_EQ(cookie.path, line.path) << line.text;
    EXPECT_EQ(cookie.maxAge, line.lifetime) << line.text;
  }
}

}  // namespace
}  // namespace connectivity::plugins
