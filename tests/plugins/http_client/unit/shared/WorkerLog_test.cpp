#include "plugins/http_client/shared/WorkerLog.hpp"

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/ServiceDoubles.hpp"

namespace connectivity::plugins {
namespace {

using test_support::LogDouble;

TEST(WorkerLog, LinesCarryTheWorkersNumber) {
  const LogDouble log;
  const Logger logger("connectivity.test.1");
  const WorkerLog workerLog(logger, 7);
  workerLog.transportLog(Level::Info, "%s of %d", "one", 2);
  ASSERT_EQ(log.lines().size(), 1U);
  EXPECT_EQ(log.lines()[0].text, "<connectivity.test.1> {7} one of 2");
  EXPECT_EQ(log.lines()[0].level, QOR_LOG_INFO);
  EXPECT_EQ(log.lines()[0].category, "connectivity.test.1");
}

TEST(WorkerLog, LinesOfADisabledLevelAreNotWritten) {
  const LogDouble log(QOR_LOG_INFO);
  const Logger logger("connectivity.test.1");
  const WorkerLog workerLog(logger, 7);
  EXPECT_TRUE(workerLog.enabled(Level::Info));
  EXPECT_FALSE(workerLog.enabled(Level::Debug));
  workerLog.transportLog(Level::Debug, "hidden");
  EXPECT_TRUE(log.lines().empty());
}

TEST(WorkerLog, WarningsAreLinesAtLevel3WhateverTheirTextHolds) {
  const LogDouble log;
  const Logger logger("connectivity.test.1");
  const ReportLine warn = WorkerLog(logger, 3).warnings();
  warn("100%s sure");
  ASSERT_EQ(log.lines().size(), 1U);
  EXPECT_EQ(log.lines()[0].text, "<connectivity.test.1> {3} 100%s sure");
  EXPECT_EQ(log.lines()[0].level, QOR_LOG_WARN);
}

}  // namespace
}  // namespace connectivity::plugins
