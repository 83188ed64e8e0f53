#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "connectivity/qor_plugin.h"
#include "host/log/RepeatedLines.hpp"

namespace host {
namespace {

using std::chrono::seconds;
using testing::ElementsAre;
using testing::IsEmpty;

class RepeatedLinesTest : public testing::Test {
 protected:
  std::vector<std::string> take(const std::string& text, int level = QOR_LOG_WARN,
                                const std::string& category = "c") {
    return textsOf(lines.take({category, level, text, now}));
  }
  std::vector<std::string> takeMany(int howMany, const std::vector<std::string>& texts) {
    std::vector<std::string> all;
    for (int i = 0; i < howMany; ++i) {
      for (const std::string& text : texts) {
        for (std::string& each : take(text)) all.push_back(std::move(each));
      }
    }
    return all;
  }
  static std::vector<std::string> textsOf(const std::vector<LogLine>& lines) {
    std::vector<std::string> texts;
    for (const LogLine& line : lines) texts.push_back(line.text);
    return texts;
  }

  RepeatedLines lines;
  RepeatedLines::TimePoint now{seconds(1000)};
};

TEST_F(RepeatedLinesTest, DifferentLinesAreWrittenAsTheyCome) {
  EXPECT_THAT(take("a"), ElementsAre("a"));
  EXPECT_THAT(take("b"), ElementsAre("b"));
  EXPECT_THAT(lines.rest(now), IsEmpty());
}

TEST_F(RepeatedLinesTest, ALineThatRepeatsAtOnceIsCountedUntilAnotherComes) {
  EXPECT_THAT(takeMany(42, {"a"}), ElementsAre("a"));
  EXPECT_THAT(take("b"), ElementsAre("last line repeated 41 times", "b"));
  EXPECT_THAT(lines.rest(now), IsEmpty());
}

TEST_F(RepeatedLinesTest, TheCountIsWrittenAtTheEnd) {
  takeMany(3, {"a"});
  EXPECT_THAT(textsOf(lines.rest(now)), ElementsAre("last line repeated 2 times"));
  EXPECT_THAT(lines.rest(now), IsEmpty());
}

TEST_F(RepeatedLinesTest, TheCountHasLevelAndCategoryOfTheLine) {
  lines.take({"c", QOR_LOG_ERROR, "a", now});
  lines.take({"c", QOR_LOG_ERROR, "a", now + seconds(1)});
  lines.take({"c", QOR_LOG_ERROR, "a", now + seconds(2)});
  const std::vector<LogLine> rest = lines.rest(now);
  ASSERT_EQ(rest.size(), 1U);
  EXPECT_EQ(rest[0].category, "c");
  EXPECT_EQ(rest[0].level, QOR_LOG_ERROR);
}

TEST_F(RepeatedLinesTest, TheCountIsWrittenWhenItsWindowIsOver) {
  takeMany(10, {"a"});
  EXPECT_THAT(lines.overdue(now + RepeatedLines::window - seconds(1)), IsEmpty());
  now += RepeatedLines::window;
  EXPECT_THAT(textsOf(lines.overdue(now)), ElementsAre("last line repeated 9 times"));
  EXPECT_THAT(takeMany(10, {"a"}), IsEmpty()) << "it goes on: another window";
  now += RepeatedLines::window;
  EXPECT_THAT(take("a"), ElementsAre("last line repeated 10 times"));
}

TEST_F(RepeatedLinesTest, ALineThatComesAgainOnceIsWrittenAsItCame) {
  take("a");
  EXPECT_THAT(take("a"), IsEmpty());
  EXPECT_THAT(take("b"), ElementsAre("a", "b"));
}

TEST_F(RepeatedLinesTest, ALineThatComesAgainLaterIsWritten) {
  take("a");
  now += RepeatedLines::window;
  EXPECT_THAT(take("a"), ElementsAre("a"));
}

TEST_F(RepeatedLinesTest, WarningsThatAlternateAreCountedEach) {
  EXPECT_THAT(takeMany(20, {"a", "b", "c"}), ElementsAre("a", "b", "c"));
  EXPECT_THAT(take("d"), ElementsAre("repeated 19 times: a", "repeated 19 times: b",
                                     "repeated 19 times: c", "d"));
}

TEST_F(RepeatedLinesTest, LinesBelowWarningsAreCountedOnlyWhereTheyRepeatAtOnce) {
  take("a", QOR_LOG_INFO);
  take("b", QOR_LOG_INFO);
  EXPECT_THAT(take("a", QOR_LOG_INFO), ElementsAre("a"));
  EXPECT_THAT(take("a", QOR_LOG_INFO), IsEmpty());
  EXPECT_THAT(take("a", QOR_LOG_INFO), IsEmpty());
  EXPECT_THAT(take("b", QOR_LOG_INFO), ElementsAre("last line repeated 2 times", "b"));
}

TEST_F(RepeatedLinesTest, AnotherLevelOrCategoryIsAnotherLine) {
  take("a", QOR_LOG_WARN, "c");
  EXPECT_THAT(take("a", QOR_LOG_ERROR, "c"), ElementsAre("a"));
  EXPECT_THAT(take("a", QOR_LOG_WARN, "d"), ElementsAre("a"));
}

TEST_F(RepeatedLinesTest, ANewLineNeverPassesOneThatCameBefore) {
  take("a");
  take("b");
  take("a");
  EXPECT_THAT(take("new"), ElementsAre("a", "new"));
  now += seconds(1);
  take("b");
  now += seconds(1);
  take("a");
  EXPECT_THAT(take("newer"), ElementsAre("b", "a", "newer"));
}

TEST_F(RepeatedLinesTest, TimesNeverRunBackwards) {
  RepeatedLines::TimePoint last;
  for (int i = 0; i < 2000; ++i) {
    now += std::chrono::milliseconds(37 * (i % 50));
    const std::string text = std::to_string(i * i % 11);
    for (const LogLine& line : lines.take({"c", QOR_LOG_WARN, text, now})) {
      EXPECT_GE(line.time, last);
      last = line.time;
    }
  }
}

TEST_F(RepeatedLinesTest, EveryLineIsWrittenOrCounted) {
  std::size_t counted = 0;
  const auto count = [&](const std::vector<std::string>& texts) {
    for (const std::string& text : texts) {
      const auto mark = text.find("repeated ");
      counted += mark == std::string::npos ? 1 : std::stoul(text.substr(mark + 9));
    }
  };
  for (int i = 0; i < 2000; ++i) {
    now += std::chrono::milliseconds(11 * (i % 60));
    count(take(std::to_string(i * i % 13)));
  }
  count(textsOf(lines.rest(now)));
  EXPECT_EQ(counted, 2000U);
}

TEST_F(RepeatedLinesTest, WhatIsForgottenIsWrittenAgain) {
  take("a");
  for (std::size_t i = 0; i < RepeatedLines::remembered; ++i) take("x" + std::to_string(i));
  EXPECT_THAT(take("a"), ElementsAre("a"));
}

TEST_F(RepeatedLinesTest, AClockThatIsSetBackLosesNoLine) {
  takeMany(3, {"a"});
  now -= seconds(100);
  EXPECT_THAT(take("a"), ElementsAre("last line repeated 2 times"));
  EXPECT_THAT(textsOf(lines.rest(now)), ElementsAre("a"));
}

}  // namespace
}  // namespace host
