#include <gtest/gtest.h>

#include "host/status/StatusTable.hpp"

namespace host {
namespace {

using Items = std::map<std::string, std::string>;

TEST(StatusTable, KeepsTheLatestTextOfEachItem) {
  StatusTable table;
  void* first = qor_create_user_status_item(table.handle(), "b", "1");
  void* second = qor_create_user_status_item(table.handle(), "a", "2");
  ASSERT_NE(first, nullptr);
  ASSERT_NE(second, nullptr);
  qor_set_user_status_item(first, "3");
  EXPECT_EQ(table.items(), (Items{{"a", "2"}, {"b", "3"}}));
  qor_delete_user_status_item(first);
  EXPECT_EQ(table.items(), (Items{{"a", "2"}}));
  qor_delete_user_status_item(second);
  EXPECT_TRUE(table.items().empty());
}

TEST(StatusTable, RefusesAKeyThatIsTaken) {
  StatusTable table;
  void* item = qor_create_user_status_item(table.handle(), "a", "1");
  EXPECT_EQ(qor_create_user_status_item(table.handle(), "a", "2"), nullptr);
  EXPECT_EQ(table.items(), (Items{{"a", "1"}}));
  qor_delete_user_status_item(item);
  void* again = qor_create_user_status_item(table.handle(), "a", "3");
  EXPECT_NE(again, nullptr);
  qor_delete_user_status_item(again);
}

}  // namespace
}  // namespace host
