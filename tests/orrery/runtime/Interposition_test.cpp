// A program may define a qor_ function of its own: the runtime's other functions then call that.
#include <gtest/gtest.h>

#include "connectivity/qor_plugin.h"

uint64_t qor_hash_string(const char* /*text*/) { return 1234; }

namespace {

TEST(Interposition, TheRuntimeUsesTheProgramsHash) {
  qor_underlying_map_table_t* table = nullptr;
  ASSERT_EQ(qor_map_put(&table, "key", qor_data_t{}), 0);
  EXPECT_EQ(qor_map_entries(table)[1234 % 8].hash, 1234U);
  qor_free_map(table);
}

}  // namespace
