// The doubles of the host's services, through the C functions that plug-ins call.
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "orrery/Platform.hpp"
#include "tests/support/Event.hpp"
#include "tests/support/FakeClock.hpp"
#include "tests/support/ServiceDoubles.hpp"

namespace test_support {
namespace {

TEST(LogDouble, RecordsWhatIsLogged) {
  LogDouble log(QOR_LOG_INFO);
  EXPECT_EQ(qor_get_log_level("any"), QOR_LOG_INFO);
  qor_log_at("some.category", QOR_LOG_WARN, "number %d of %s", 7, "nine");
  ASSERT_EQ(log.lines().size(), 1U);
  const auto line = log.lines()[0];
  EXPECT_EQ(line.category, "some.category");
  EXPECT_EQ(line.level, QOR_LOG_WARN);
  EXPECT_EQ(line.text, "number 7 of nine");
  EXPECT_TRUE(log.contains("7 of"));
  EXPECT_FALSE(log.find("8 of").has_value());
  log.clear();
  EXPECT_EQ(log.count("number"), 0U);
}

TEST(LogDouble, WaitsForALineOfAnotherThread) {
  LogDouble log;
  std::thread other([] {
    qor_log_at("c", QOR_LOG_INFO, "not this");
    qor_log_at("c", QOR_LOG_INFO, "this one");
    qor_log_at("c", QOR_LOG_INFO, "this two");
  });
  EXPECT_EQ(log.waitForLine("this", 3).text, "this two");
  other.join();
}

TEST(StatusDouble, KeepsItemsAndTheirHistory) {
  StatusDouble status;
  void* const item = qor_create_user_status_item(status.handle(), "a.count", "0");
  ASSERT_NE(item, nullptr);
  EXPECT_EQ(qor_create_user_status_item(status.handle(), "a.count", "0"), nullptr);
  qor_set_user_status_item(item, "5");
  EXPECT_EQ(status.number("a.count"), 5);
  status.waitFor("a.count", "5");
  qor_delete_user_status_item(item);
  EXPECT_EQ(status.text("a.count"), std::nullopt);
  EXPECT_EQ(status.history("a.count"), (std::vector<std::string>{"0", "5"}));
}

TEST(StatusDouble, RefusesTheItemsItIsTold) {
  StatusDouble status;
  status.refuse(".bad");
  EXPECT_EQ(qor_create_user_status_item(status.handle(), "x.bad", "0"), nullptr);
  void* const item = qor_create_user_status_item(status.handle(), "x.good", "0");
  EXPECT_NE(item, nullptr);
  qor_delete_user_status_item(item);
}

TEST(HostDouble, AnswersAsTold) {
  HostDouble host;
  bool shuttingDown = true;
  EXPECT_EQ(qor_enable_queue_flush_messages(host.handle()), 0);
  EXPECT_EQ(qor_is_host_shutting_down(host.handle(), &shuttingDown), 0);
  EXPECT_FALSE(shuttingDown);
  host.setEnableResult(3);
  host.setShuttingDown(true);
  EXPECT_EQ(qor_enable_queue_flush_messages(host.handle()), 3);
  EXPECT_EQ(qor_is_host_shutting_down(host.handle(), &shuttingDown), 0);
  EXPECT_TRUE(shuttingDown);
  host.setShuttingDownResult(9);
  EXPECT_EQ(qor_is_host_shutting_down(host.handle(), &shuttingDown), 9);
  EXPECT_EQ(host.enableCalls(), 2);
  EXPECT_EQ(host.shuttingDownCalls(), 3);
}

TEST(FakeClock, StandsStillUntilMoved) {
  FakeClock clock(10.0, 5'000);
  EXPECT_DOUBLE_EQ(orrery::Platform::relativeHighResTimeFloat(), 10.0);
  clock.advance(1.5);
  EXPECT_DOUBLE_EQ(orrery::Platform::relativeHighResTimeFloat(), 11.5);
  EXPECT_EQ(orrery::Platform::sysTime(), 6'500);
}

TEST(FakeClock, GivesTheClockBack) {
  { const FakeClock clock(10.0, 5'000); }
  EXPECT_GT(orrery::Platform::sysTime(), 1'600'000'000'000);
}

TEST(Event, IsSeenByThoseWhoComeLate) {
  Event event;
  EXPECT_FALSE(event.isSet());
  std::thread other([&] { event.set(); });
  event.wait();
  event.wait();
  EXPECT_TRUE(event.isSet());
  other.join();
}

TEST(Gate, CountsPassages) {
  Gate gate;
  std::thread other([&] { gate.open(2); });
  gate.pass();
  gate.pass();
  EXPECT_EQ(gate.passed(), 2U);
  other.join();
}

}  // namespace
}  // namespace test_support
