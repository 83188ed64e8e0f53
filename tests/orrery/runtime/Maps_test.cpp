#include <cstdint>
#include <limits>
#include <string>

#include <gtest/gtest.h>

#include "connectivity/qor_plugin.h"
#include "tests/orrery/RecordingLog.hpp"
#include "tests/orrery/runtime/RuntimeValues.hpp"

namespace {

using runtime_test::borrowed;
using runtime_test::int64;
using runtime_test::map;
using runtime_test::rendered;
using runtime_test::text;

class RuntimeMap : public testing::Test {
 protected:
  RuntimeMap() = default;
  ~RuntimeMap() override { qor_free_map(_table); }

  void put(const std::string& key, std::int64_t value) {
    ASSERT_EQ(qor_map_put(&_table, key.c_str(), int64(value)), 0);
  }
  std::int64_t at(const std::string& key) const {
    const qor_data_t* found = qor_map_find(_table, key.c_str());
    return found == nullptr ? -1 : found->value.int64;
  }
  qor_underlying_map_table_entry_t& slot(std::uint64_t index) const {
    return qor_map_entries(_table)[index];
  }
  qor_underlying_map_table_entry_t* slotOf(const std::string& key) const {
    for (std::uint64_t i = 0; i < _table->capacity; ++i) {
      if (slot(i).key.tag == QOR_STRING && key == slot(i).key.value.string) return &slot(i);
    }
    return nullptr;
  }
  // As an erase leaves it.
  void erase(const std::string& key) {
    qor_underlying_map_table_entry_t* erased = slotOf(key);
    ASSERT_NE(erased, nullptr);
    qor_free_data(erased->key);
    qor_free_data(erased->value);
    *erased = {};
    erased->hash = 1;
    --_table->size;
    ++_table->tombstones;
  }
  // A live entry in the first free slot from hash mod capacity on.
  void place(std::uint64_t hash, const char* key, std::int64_t value) {
    std::uint64_t index = hash % _table->capacity;
    while (slot(index).key.tag != QOR_EMPTY) index = (index + 1) % _table->capacity;
    slot(index).hash = hash;
    slot(index).key = text(key);
    slot(index).value = int64(value);
    ++_table->size;
  }
  // What a probe for the hash meets, from its first slot to an empty one.
  bool probeMeets(std::uint64_t hash, const std::string& key) const {
    for (std::uint64_t step = 0; step < _table->capacity; ++step) {
      const auto& seen = slot((hash + step) % _table->capacity);
      if (seen.key.tag == QOR_EMPTY && seen.hash == 0) return false;
      if (seen.hash == hash && seen.key.tag == QOR_STRING && key == seen.key.value.string) {
        return true;
      }
    }
    return false;
  }

  qor_underlying_map_table_t* _table = nullptr;
};

TEST_F(RuntimeMap, IsAllocatedWithEmptySlots) {
  _table = qor_allocate_map(5);
  EXPECT_EQ(_table->header_string, nullptr);
  EXPECT_EQ(_table->size, 0U);
  EXPECT_EQ(_table->capacity, 5U);
  EXPECT_EQ(_table->tombstones, 0U);
  for (std::uint64_t i = 0; i < 5; ++i) {
    EXPECT_EQ(slot(i).hash, 0U);
    EXPECT_EQ(slot(i).key.tag, std::uint32_t{QOR_EMPTY});
    EXPECT_EQ(slot(i).value.tag, std::uint32_t{QOR_EMPTY});
  }
}

TEST_F(RuntimeMap, ACapacityThatWouldWrapFailsWithAClearError) {
  const RecordingLog log;
  const std::uint64_t wraps = std::numeric_limits<std::uint64_t>::max() / 40 + 1;
  EXPECT_EQ(qor_allocate_map(wraps), nullptr);
  EXPECT_EQ(log.onlyText(), "Failed to allocate a map of 461168601842738791 slots");
}

TEST_F(RuntimeMap, GrowthThatWouldWrapLeavesTheTable) {
  put("a", 1);
  const RecordingLog log;
  EXPECT_EQ(qor_reallocate_map(_table, std::numeric_limits<std::uint64_t>::max()), nullptr);
  EXPECT_EQ(log.onlyText(), "Failed to allocate a map of 18446744073709551615 slots");
  EXPECT_EQ(at("a"), 1);
}

TEST_F(RuntimeMap, DoesNotShrinkBelowItsEntries) {
  put("a", 1);
  put("b", 2);
  const RecordingLog log;
  EXPECT_EQ(qor_reallocate_map(_table, 1), nullptr);
  EXPECT_EQ(log.onlyText(), "Cannot reallocate a map of 2 entries to 1 slots");
  EXPECT_EQ(at("b"), 2);
}

TEST_F(RuntimeMap, ReallocationKeepsEveryEntryFindable) {
  for (int i = 0; i < 500; ++i) put("key" + std::to_string(i), i);
  for (const std::uint64_t capacity : {500U, 503U, 4096U}) {
    _table = qor_reallocate_map(_table, capacity);
    ASSERT_NE(_table, nullptr);
    EXPECT_EQ(_table->capacity, capacity);
    EXPECT_EQ(_table->size, 500U);
    for (int i = 0; i < 500; ++i) ASSERT_EQ(at("key" + std::to_string(i)), i);
  }
}

TEST_F(RuntimeMap, ReallocationPlacesByStoredHashAndWrapsAtTheEnd) {
  _table = qor_allocate_map(8);
  place(7, "last", 1);
  place(15, "wraps to the first", 2);
  place(23, "wraps to the second", 3);
  for (const std::uint64_t capacity : {3U, 4U, 16U}) {
    _table = qor_reallocate_map(_table, capacity);
    ASSERT_NE(_table, nullptr);
    EXPECT_TRUE(probeMeets(7, "last")) << capacity;
    EXPECT_TRUE(probeMeets(15, "wraps to the first")) << capacity;
    EXPECT_TRUE(probeMeets(23, "wraps to the second")) << capacity;
  }
}

// A key whose hash happens to be 0 or 1 is live, because it is not empty.
TEST_F(RuntimeMap, ReallocationKeepsKeysWhoseHashIs0Or1) {
  _table = qor_allocate_map(8);
  place(0, "zero", 1);
  place(1, "one", 2);
  _table = qor_reallocate_map(_table, 16);
  EXPECT_TRUE(probeMeets(0, "zero"));
  EXPECT_TRUE(probeMeets(1, "one"));
}

TEST_F(RuntimeMap, ReallocationDropsTombstonesAndKeepsTheHeaderText) {
  for (const char* key : {"a", "b", "c"}) put(key, 1);
  erase("b");
  _table->header_string = qor_copy_string("header");
  _table = qor_reallocate_map(_table, 8);
  EXPECT_EQ(_table->size, 2U);
  EXPECT_EQ(_table->tombstones, 0U);
  EXPECT_STREQ(_table->header_string, "header");
  for (std::uint64_t i = 0; i < 8; ++i) {
    EXPECT_FALSE(slot(i).hash == 1 && slot(i).key.tag == QOR_EMPTY);
  }
}

TEST_F(RuntimeMap, ReallocationOfNothingIsANewTable) {
  _table = qor_reallocate_map(nullptr, 4);
  ASSERT_NE(_table, nullptr);
  EXPECT_EQ(_table->capacity, 4U);
}

TEST_F(RuntimeMap, PutStartsWith8SlotsAndGrowsAtTheEighthEntry) {
  for (int i = 0; i < 7; ++i) put("key" + std::to_string(i), i);
  EXPECT_EQ(_table->capacity, 8U);
  put("key7", 7);
  EXPECT_EQ(_table->capacity, 16U);
  EXPECT_EQ(_table->size, 8U);
}

TEST_F(RuntimeMap, PutReplacesTheValueUnderAKeyThatIsThere) {
  ASSERT_EQ(qor_map_put(&_table, "key", text("old")), 0);
  ASSERT_EQ(qor_map_put(&_table, "key", text("new")), 0);
  EXPECT_EQ(_table->size, 1U);
  EXPECT_STREQ(qor_map_find(_table, "key")->value.string, "new");
}

TEST_F(RuntimeMap, PutStoresTheHashOfTheText) {
  put("key", 1);
  EXPECT_EQ(slotOf("key")->hash, qor_hash_string("key"));
}

TEST_F(RuntimeMap, PutReusesATombstoneThatStaysCounted) {
  put("key", 1);
  erase("key");
  put("key", 2);
  EXPECT_EQ(_table->size, 1U);
  EXPECT_EQ(_table->tombstones, 1U);
  EXPECT_EQ(at("key"), 2);
}

TEST_F(RuntimeMap, PutFindsTheKeyBehindATombstone) {
  _table = qor_allocate_map(8);
  const std::uint64_t hash = qor_hash_string("key");
  place(hash, "in the way", 1);
  place(hash, "key", 2);
  erase("in the way");
  put("key", 3);
  EXPECT_EQ(_table->size, 1U);
  EXPECT_EQ(at("key"), 3);
}

TEST_F(RuntimeMap, PutGrowsATableFullOfTombstones) {
  for (int i = 0; i < 7; ++i) put("key" + std::to_string(i), i);
  for (int i = 0; i < 7; ++i) erase("key" + std::to_string(i));
  put("new", 1);
  EXPECT_EQ(_table->capacity, 8U);
  EXPECT_EQ(_table->size, 1U);
  EXPECT_EQ(_table->tombstones, 0U);
}

TEST_F(RuntimeMap, PutGrowsATableWithoutSlots) {
  _table = qor_allocate_map(0);
  put("key", 1);
  EXPECT_EQ(at("key"), 1);
}

TEST_F(RuntimeMap, AFullTableIsSearchedToItsEnd) {
  for (int i = 0; i < 4; ++i) put("key" + std::to_string(i), i);
  _table = qor_reallocate_map(_table, 4);
  EXPECT_EQ(at("absent"), -1);
  put("key4", 4);
  EXPECT_EQ(at("key4"), 4);
}

TEST_F(RuntimeMap, FindSeesABorrowedKey) {
  put("key", 1);
  qor_underlying_map_table_entry_t* entry = slotOf("key");
  qor_free_string(entry->key.value.string);
  entry->key = borrowed("key");
  EXPECT_EQ(at("key"), 1);
}

TEST_F(RuntimeMap, FindInNothingIsNull) { EXPECT_EQ(qor_map_find(nullptr, "key"), nullptr); }

TEST_F(RuntimeMap, CopyKeepsTheOrderAndFindsWhatWasErasedNoMore) {
  for (int i = 0; i < 50; ++i) put("key" + std::to_string(i), i);
  erase("key7");
  qor_data_t original = runtime_test::tagged(QOR_MAP);
  original.value.map = _table;
  const runtime_test::Owned copied(qor_copy_data(original));
  EXPECT_EQ(rendered(*copied), rendered(original));
  EXPECT_EQ(qor_map_find(copied->value.map, "key7"), nullptr);
  for (int i = 8; i < 50; ++i) {
    ASSERT_NE(qor_map_find(copied->value.map, ("key" + std::to_string(i)).c_str()), nullptr);
  }
}

}  // namespace
