#include "connectivity/Logger.hpp"

#include <stdexcept>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/connectivity/HostCalls.hpp"

namespace connectivity {
namespace {

using connectivity_test::HostCalls;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

TEST(Logger, PutsItsNameInFrontOfEachLine) {
  HostCalls calls;
  const Logger logger("connectivity.plugin.chain");
  logger.log(Level::Error, "%s failed %d times", "it", 3);
  ASSERT_EQ(calls.logged.size(), 1U);
  EXPECT_EQ(calls.logged[0].category, "connectivity.plugin.chain");
  EXPECT_EQ(calls.logged[0].level, 2);
  EXPECT_EQ(calls.logged[0].format, "<%s> %s failed %d times");
  EXPECT_EQ(calls.logged[0].text, "<connectivity.plugin.chain> it failed 3 times");
}

TEST(Logger, AddsTheIndexOfAWorker) {
  HostCalls calls;
  const Logger logger("category");
  logger.logForWorker(7, Level::Info, "done %s", "here");
  ASSERT_EQ(calls.logged.size(), 1U);
  EXPECT_EQ(calls.logged[0].format, "<%s> {%u} done %s");
  EXPECT_EQ(calls.logged[0].text, "<category> {7} done here");
}

TEST(Logger, HasVariantsOfFixedLevel) {
  HostCalls calls;
  const Logger logger("category");
  logger.warn("w");
  logger.info("i");
  logger.debug("d");
  ASSERT_EQ(calls.logged.size(), 3U);
  EXPECT_EQ(calls.logged[0].level, 3);
  EXPECT_EQ(calls.logged[1].level, 4);
  EXPECT_EQ(calls.logged[2].level, 5);
}

TEST(Logger, WritesLevelsUpToItsOwn) {
  HostCalls calls;
  calls.logLevel = QOR_LOG_INFO;
  const Logger logger("category");
  logger.info("written");
  logger.debug("not written");
  ASSERT_EQ(calls.logged.size(), 1U);
  EXPECT_EQ(calls.logged[0].text, "<category> written");
}

// A disabled line does not even look at its format.
TEST(Logger, DoesNothingForADisabledLine) {
  HostCalls calls;
  calls.logLevel = QOR_LOG_INFO;
  const Logger logger("category");
  calls.made.clear();
  logger.debug(nullptr);
  logger.logForWorker(1, Level::Trace, nullptr);
  EXPECT_THAT(calls.made, IsEmpty());
}

TEST(Logger, ReadsItsLevelOnceAndNeverAgain) {
  HostCalls calls;
  calls.logLevel = QOR_LOG_INFO;
  const Logger logger("category");
  calls.logLevel = QOR_LOG_TRACE;
  logger.debug("not written");
  logger.info("written");
  EXPECT_FALSE(logger.enabled(Level::Debug));
  EXPECT_THAT(calls.made, ElementsAre("qor_get_log_level", "qor_log_at"));
}

TEST(Logger, RefusesANullFormat) {
  HostCalls calls;
  const Logger logger("category");
  try {
    logger.info(nullptr);
    FAIL() << "no failure";
  } catch (const std::logic_error& failure) {
    EXPECT_STREQ(failure.what(), "basic_string::_M_construct null not valid");
  }
  EXPECT_TRUE(calls.logged.empty());
}

// Formats of every length around the one from which they are put together elsewhere.
TEST(Logger, TakesFormatsOfAnyLength) {
  HostCalls calls;
  const Logger logger("c");
  for (std::size_t length = 220; length < 250; ++length)
    logger.info(std::string(length, 'x').c_str());
  ASSERT_EQ(calls.logged.size(), 30U);
  for (std::size_t index = 0; index < calls.logged.size(); ++index)
    EXPECT_EQ(calls.logged[index].text, "<c> " + std::string(220 + index, 'x'));
}

TEST(Logger, DoesNotTakeAPercentSignInTheCategoryAsAConversion) {
  HostCalls calls;
  const Logger logger("100%s");
  logger.info("text");
  EXPECT_EQ(calls.logged.at(0).text, "<100%s> text");
}

}  // namespace
}  // namespace connectivity
