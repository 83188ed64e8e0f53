#include "connectivity/StatusReporter.hpp"

#include <limits>
#include <stdexcept>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/connectivity/HostCalls.hpp"

namespace connectivity {
namespace {

using connectivity_test::HostCalls;
using ::testing::ElementsAre;

class StatusItems : public ::testing::Test {
 protected:
  HostCalls calls;
  StatusReporter reporter{nullptr};
};

TEST_F(StatusItems, StartWithTheirNumberAsDecimalText) {
  const auto item = reporter.createStatusItem("key", -12);
  EXPECT_THAT(calls.statusKeys, ElementsAre("key"));
  EXPECT_THAT(calls.statusTexts, ElementsAre("-12"));
}

TEST_F(StatusItems, StartWithTheirText) {
  const auto item = reporter.createStatusItem("key", "STARTING");
  EXPECT_THAT(calls.statusTexts, ElementsAre("STARTING"));
}

TEST_F(StatusItems, SendOnlyChanges) {
  const auto item = reporter.createStatusItem("key", 0);
  item->setStatus(5);
  item->setStatus(5);
  item->setStatus(6);
  EXPECT_EQ(calls.count("qor_set_user_status_item"), 2);
  EXPECT_THAT(calls.statusTexts, ElementsAre("0", "5", "6"));
}

TEST_F(StatusItems, DoNotSendTheTextThatTheyWereCreatedWith) {
  const auto number = reporter.createStatusItem("number", 0);
  const auto text = reporter.createStatusItem("text", "STARTING");
  number->setStatus(0);
  text->setStatus("STARTING");
  EXPECT_EQ(calls.count("qor_set_user_status_item"), 0);
}

TEST_F(StatusItems, CountByIncrements) {
  const auto item = reporter.createStatusItem("key", 0);
  item->increment(1);
  item->increment(1);
  item->increment(-3);
  EXPECT_THAT(calls.statusTexts, ElementsAre("0", "1", "2", "-1"));
}

TEST_F(StatusItems, CountOnFromTheNumberThatWasSet) {
  const auto item = reporter.createStatusItem("key", 40);
  item->increment(1);
  item->setStatus(10);
  item->increment(1);
  EXPECT_THAT(calls.statusTexts, ElementsAre("40", "41", "10", "11"));
}

TEST_F(StatusItems, ShowTheWholeRangeOfNumbers) {
  const auto item = reporter.createStatusItem("key", 0);
  item->setStatus(std::numeric_limits<std::int64_t>::min());
  EXPECT_EQ(calls.statusTexts.back(), "-9223372036854775808");
  item->increment(-1);
  EXPECT_EQ(calls.statusTexts.back(), "9223372036854775807");
}

TEST_F(StatusItems, ShowTexts) {
  const auto item = reporter.createStatusItem("key", "STARTING");
  item->setStatus("ONLINE");
  item->setStatus("ONLINE");
  EXPECT_THAT(calls.statusTexts, ElementsAre("STARTING", "ONLINE"));
}

TEST_F(StatusItems, EndWithTheHostsItem) {
  auto item = reporter.createStatusItem("key", 0);
  EXPECT_EQ(calls.count("qor_delete_user_status_item"), 0);
  item.reset();
  EXPECT_EQ(calls.count("qor_delete_user_status_item"), 1);
}

TEST_F(StatusItems, AreRefusedUnderAKeyThatIsTaken) {
  const auto item = reporter.createStatusItem("plugin.chain.key", 0);
  try {
    reporter.createStatusItem("plugin.chain.key", 0);
    FAIL() << "no failure";
  } catch (const std::runtime_error& failure) {
    EXPECT_STREQ(failure.what(),
                 "Failed to create status item 'plugin.chain.key' (ensure the key is unique and "
                 "that this plug-in has not been shutdown already)");
  }
  EXPECT_EQ(calls.count("qor_delete_user_status_item"), 0);
}

TEST_F(StatusItems, LoseNoIncrementOfSeveralThreads) {
  const auto item = reporter.createStatusItem("key", 0);
  std::vector<std::thread> threads;
  threads.reserve(4);
  for (int count = 0; count < 4; ++count) {
    threads.emplace_back([&item] {
      for (int step = 0; step < 500; ++step) item->increment(1);
    });
  }
  for (auto& thread : threads) thread.join();
  ASSERT_EQ(calls.statusTexts.size(), 2001U);
  for (std::size_t index = 0; index < calls.statusTexts.size(); ++index)
    EXPECT_EQ(calls.statusTexts[index], std::to_string(index));
}

}  // namespace
}  // namespace connectivity
