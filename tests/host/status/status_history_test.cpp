#include <algorithm>
#include <chrono>
#include <string>

#include <gtest/gtest.h>

#include "host/status/StatusHistory.hpp"

namespace host {
namespace {

using namespace std::chrono_literals;

class StatusHistoryTest : public testing::Test {
 protected:
  ~StatusHistoryTest() override { qor_delete_user_status_item(_item); }

  StatusTable _table;
  void* const _item = qor_create_user_status_item(_table.handle(), "a.b.queueSize", "3");
  StatusHistory _history{_table};
  const StatusHistory::Clock::time_point _start{};
};

TEST_F(StatusHistoryTest, TellsWhatTheNumbersWereAndHowLongAgo) {
  EXPECT_EQ(_history.asJson(_start), "[]\n");
  void* const text = qor_create_user_status_item(_table.handle(), "a.b.status", "ONLINE");
  _history.sample(_start);
  qor_set_user_status_item(_item, "4");
  _history.sample(_start + 5s);
  EXPECT_EQ(_history.asJson(_start + 5250ms),
            "[{\"age\":5.25,\"items\":{\"a.b.queueSize\":\"3\"}},\n"
            "{\"age\":0.25,\"items\":{\"a.b.queueSize\":\"4\"}}]\n");
  qor_delete_user_status_item(text);
}

TEST_F(StatusHistoryTest, ForgetsTheOldestWhereThereAreTooMany) {
  for (std::size_t i = 0; i <= StatusHistory::longest; ++i) {
    qor_set_user_status_item(_item, std::to_string(i).c_str());
    _history.sample(_start);
  }
  const std::string json = _history.asJson(_start);
  EXPECT_EQ(static_cast<std::size_t>(std::count(json.begin(), json.end(), '\n')),
            StatusHistory::longest);
  EXPECT_EQ(json.find("\"0\""), std::string::npos);
  EXPECT_NE(json.find("\"1\""), std::string::npos);
}

}  // namespace
}  // namespace host
