#include "connectivity/map_t.hpp"

#include <functional>
#include <limits>
#include <stdexcept>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "connectivity/data_t.hpp"
#include "tests/connectivity/HostCalls.hpp"
#include "tests/connectivity/IteratorChecks.hpp"

namespace connectivity {
namespace {

using connectivity_test::HostCalls;
using connectivity_test::IteratorChecksOn;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

std::string failureOf(const std::function<void()>& action) {
  try {
    action();
  } catch (const std::runtime_error& failure) {
    return failure.what();
  }
  return "no failure";
}

bool insertAt(map_t& map, int key, long long hash) {
  return map.insert({data_t(key), data_t(key)}, hash).second;
}

map_t::iterator entryOf(map_t& map, const data_t& key) {
  return map.find_for_insert(key, hashes::hash(key)).first;
}

map_t numbers(int count) {
  map_t map;
  for (int key = 0; key < count; ++key) map.insert(data_t(key), data_t(key * 10));
  return map;
}

std::vector<int> keysInOrder(const map_t& map) {
  std::vector<int> keys;
  for (const auto& [hash, key, value] : map)
    keys.push_back(static_cast<int>(key.raw().value.int64));
  return keys;
}

// --- Life ----------------------------------------------------------------------------------------

TEST(Map, HasNoTableAtFirst) {
  const map_t map;
  EXPECT_EQ(map.table(), nullptr);
  EXPECT_EQ(map.size(), 0U);
  EXPECT_TRUE(map.begin() == map.end());
}

TEST(Map, GivesItsTableBackToTheHostAlsoWhenThereIsNone) {
  HostCalls calls;
  { const map_t map; }
  EXPECT_THAT(calls.made, ElementsAre("qor_free_map"));
}

TEST(Map, MovingLeavesTheSourceWithoutATable) {
  map_t source = numbers(3);
  auto* const table = source.table();
  map_t target(std::move(source));
  EXPECT_EQ(source.table(), nullptr);  // NOLINT(bugprone-use-after-move) : that is the fact
  EXPECT_EQ(target.table(), table);
  map_t assigned = numbers(1);
  assigned = std::move(target);
  EXPECT_EQ(assigned.table(), table);
}

// --- Growth --------------------------------------------------------------------------------------

TEST(Map, HoldsSevenEntriesInEightSlotsAndGrowsToSixteenForTheEighth) {
  map_t map = numbers(1);
  EXPECT_EQ(map.table()->capacity, 8U);
  map = numbers(7);
  EXPECT_EQ(map.table()->capacity, 8U);
  map.insert(data_t(7), data_t(70));
  EXPECT_EQ(map.table()->capacity, 16U);
  EXPECT_EQ(map.size(), 8U);
  for (int key = 0; key < 8; ++key) EXPECT_TRUE(*map.find(data_t(key)) == data_t(key * 10));
}

TEST(Map, DropsItsTombstonesWhenItGrows) {
  map_t map = numbers(7);
  map.erase(entryOf(map, data_t(3)));
  ASSERT_EQ(map.table()->tombstones, 1U);
  map.insert(data_t(100), data_t(0));
  EXPECT_EQ(map.table()->tombstones, 0U);
  EXPECT_EQ(map.table()->capacity, 14U);
}

TEST(Map, IsRebuiltInEightSlotsWhereErasureAloneFilledIt) {
  map_t map;
  for (int key = 0; key < 7; ++key) {
    insertAt(map, key, key + 8);
    map.erase(map.begin());
  }
  ASSERT_EQ(map.table()->tombstones, 7U);
  insertAt(map, 50, 58);
  EXPECT_EQ(map.table()->capacity, 8U);
  EXPECT_EQ(map.table()->tombstones, 0U);
  EXPECT_EQ(map.size(), 1U);
}

TEST(Map, GrowsWhereTheProbeFindsNoUsableSlot) {
  map_t map(qor_allocate_map(1));
  insertAt(map, 0, 5);
  ASSERT_EQ(map.table()->capacity, 1U);
  EXPECT_TRUE(insertAt(map, 1, 5));
  EXPECT_EQ(map.table()->capacity, 8U);
  EXPECT_EQ(map.size(), 2U);
}

TEST(Map, TakesATableWithoutSlots) {
  map_t map(qor_allocate_map(0));
  EXPECT_TRUE(map.begin() == map.end());
  EXPECT_EQ(map.find(data_t(1)), nullptr);
  EXPECT_TRUE(insertAt(map, 1, 5));
  EXPECT_EQ(map.table()->capacity, 8U);
}

TEST(Map, StaysAsItWasWhereTheHostRefusesToGrowIt) {
  map_t map = numbers(7);
  const map_t before = map.copy();
  HostCalls calls;
  calls.refuseTables = true;
  data_t key("new");
  data_t value("value");
  EXPECT_EQ(failureOf([&] { map.insert(std::move(key), std::move(value)); }),
            "Failed to allocate a map of 16 slots");
  EXPECT_STREQ(key.text(), "new");      // NOLINT(bugprone-use-after-move) : that is the fact
  EXPECT_STREQ(value.text(), "value");  // NOLINT(bugprone-use-after-move) : that is the fact
  EXPECT_TRUE(map == before);
}

TEST(Map, FailsWhereTheHostRefusesTheFirstTable) {
  map_t map;
  HostCalls calls;
  calls.refuseTables = true;
  EXPECT_EQ(failureOf([&] { insertAt(map, 1, 5); }), "Failed to allocate a map of 8 slots");
  EXPECT_EQ(map.table(), nullptr);
}

// The growth rule counts on the low 32 bits of the size; the result would be too small here.
TEST(Map, RefusesToGrowPastFourBillionEntriesRatherThanWrap) {
  qor_underlying_map_table_t head{};
  head.size = 0x100000005;
  map_t map(&head);
  HostCalls calls;
  EXPECT_EQ(failureOf([&] { insertAt(map, 1, 5); }), "Failed to allocate a map of 12 slots");
  EXPECT_THAT(calls.made, IsEmpty());
  map.release();
}

// --- Probing -------------------------------------------------------------------------------------

TEST(Map, ProbesFromTheSlotOfTheHashAndWrapsAround) {
  map_t map;
  insertAt(map, 1, 7);
  insertAt(map, 2, 15);
  insertAt(map, 3, 23);
  EXPECT_EQ(keysInOrder(map), (std::vector<int>{2, 3, 1}));
  EXPECT_EQ(map.find_for_insert(data_t(2), 15).first.index(), 0U);
  EXPECT_EQ(map.find_for_insert(data_t(3), 23).first.index(), 1U);
}

TEST(Map, TakesTheHashAsAnUnsignedNumber) {
  map_t map;
  insertAt(map, 1, -1);
  EXPECT_EQ(map.begin().index(), 7U);
}

TEST(Map, OffersTheFirstTombstoneOnTheWayToAnAbsentKey) {
  map_t map;
  insertAt(map, 1, 8);
  insertAt(map, 2, 16);
  insertAt(map, 3, 24);
  map.erase(map.find_for_insert(data_t(1), 8).first);
  map.erase(map.find_for_insert(data_t(2), 16).first);
  const auto [found, free] = map.find_for_insert(data_t(9), 32);
  EXPECT_TRUE(found == map.end());
  EXPECT_EQ(free.index(), 0U);
}

TEST(Map, FindsAKeyBehindATombstone) {
  map_t map;
  insertAt(map, 1, 8);
  insertAt(map, 2, 16);
  map.erase(map.find_for_insert(data_t(1), 8).first);
  EXPECT_EQ(map.find_for_insert(data_t(2), 16).first.index(), 1U);
}

TEST(Map, OffersNoSlotWhereAllAreTakenByOthers) {
  map_t map(qor_allocate_map(2));
  insertAt(map, 1, 2);
  insertAt(map, 2, 2);
  const auto [found, free] = map.find_for_insert(data_t(3), 2);
  EXPECT_TRUE(found == map.end());
  EXPECT_TRUE(free == map.end());
}

TEST(Map, OffersATombstoneAfterAWalkThroughAFullTable) {
  map_t map(qor_allocate_map(2));
  insertAt(map, 1, 2);
  insertAt(map, 2, 2);
  map.erase(map.find_for_insert(data_t(2), 2).first);
  const auto [found, free] = map.find_for_insert(data_t(3), 2);
  EXPECT_TRUE(found == map.end());
  EXPECT_EQ(free.index(), 1U);
}

TEST(Map, GivesTheEndTwiceWithoutATable) {
  map_t map;
  const auto [found, free] = map.find_for_insert(data_t(3), 2);
  EXPECT_TRUE(found == map.end());
  EXPECT_TRUE(free == map.end());
}

TEST(Map, DoesNotTakeAnEqualHashForAnEqualKey) {
  map_t map;
  insertAt(map, 1, 5);
  EXPECT_TRUE(insertAt(map, 2, 5));
  EXPECT_FALSE(insertAt(map, 1, 5));
  EXPECT_EQ(map.size(), 2U);
}

// An empty slot has hash 0 and a tombstone hash 1; what makes these live is their key.
TEST(Map, AnEntryWhoseHashIsZeroOrOneIsLive) {
  map_t map;
  insertAt(map, 1, 0);
  insertAt(map, 2, 1);
  EXPECT_EQ(keysInOrder(map), (std::vector<int>{1, 2}));
  EXPECT_FALSE(insertAt(map, 1, 0));
  EXPECT_FALSE(insertAt(map, 2, 1));
  map.erase(map.begin());
  EXPECT_EQ(keysInOrder(map), (std::vector<int>{2}));
}

// --- Inserting and erasing -----------------------------------------------------------------------

TEST(Map, InsertMovesKeyAndValueIn) {
  map_t map;
  std::pair<data_t, data_t> pair{data_t("key"), data_t("value")};
  const auto hash = static_cast<long long>(hashes::hash(pair.first));
  const auto [at, isNew] = map.insert(std::move(pair), hash);
  EXPECT_TRUE(isNew);
  EXPECT_STREQ(at.key().text(), "key");
  EXPECT_STREQ(at.value().text(), "value");
  EXPECT_TRUE(pair.first.empty());  // NOLINT(bugprone-use-after-move) : that is the fact
  EXPECT_TRUE(pair.second.empty());
}

TEST(Map, InsertOfAPresentKeyLeavesThePairWithTheCaller) {
  map_t map;
  map.insert(data_t("key"), data_t("first"));
  std::pair<data_t, data_t> pair{data_t("key"), data_t("second")};
  const auto hash = static_cast<long long>(hashes::hash(pair.first));
  const auto [at, isNew] = map.insert(std::move(pair), hash);
  EXPECT_FALSE(isNew);
  EXPECT_STREQ(at.value().text(), "first");
  EXPECT_STREQ(pair.first.text(), "key");  // NOLINT(bugprone-use-after-move) : that is the fact
  EXPECT_STREQ(pair.second.text(), "second");
  EXPECT_EQ(map.size(), 1U);
}

TEST(Map, RefusesACustomKeyBeforeItChangesAnything) {
  static int object = 0;
  static constexpr qor_custom_operations_t operations = {nullptr, [](void*) {}, nullptr};
  map_t map;
  data_t key(custom_t(qor_allocate_custom(&object, &operations)));
  EXPECT_EQ(failureOf([&] { map.insert(std::move(key), data_t(1)); }),
            "Cannot use custom values as a key");
  EXPECT_EQ(map.table(), nullptr);
}

// The over-count is intended: a table with much erasure grows sooner.
TEST(Map, ReusingATombstoneDoesNotLowerTheTombstoneCount) {
  map_t map;
  map.insert(data_t("key"), data_t(1));
  const auto index = map.begin().index();
  map.erase(map.begin());
  EXPECT_EQ(map.size(), 0U);
  EXPECT_EQ(map.table()->tombstones, 1U);
  map.insert(data_t("key"), data_t(2));
  EXPECT_EQ(map.begin().index(), index);
  EXPECT_EQ(map.size(), 1U);
  EXPECT_EQ(map.table()->tombstones, 1U);
}

TEST(Map, EraseLeavesATombstoneAndFreesTheEntry) {
  map_t map;
  map.insert(data_t("key"), data_t("value"));
  const auto index = map.begin().index();
  HostCalls calls;
  map.erase(map.begin());
  const auto& slot = qor_map_entries(map.table())[index];
  EXPECT_EQ(slot.hash, 1U);
  EXPECT_EQ(slot.key.tag, QOR_EMPTY);
  EXPECT_EQ(slot.value.tag, QOR_EMPTY);
  EXPECT_EQ(calls.count("qor_free_string"), 2);
  EXPECT_EQ(map.table()->capacity, 8U);
}

TEST(Map, EraseAtTheEndDoesNothing) {
  map_t map = numbers(2);
  map.erase(map.end());
  EXPECT_EQ(map.size(), 2U);
  map_t without;
  without.erase(without.end());
  EXPECT_EQ(without.table(), nullptr);
}

TEST(Map, AllocatesNothingToProbeInsertAndErase) {
  map_t map = numbers(3);
  HostCalls calls;
  map.insert(data_t(50), data_t(51));
  map.find(data_t(50));
  map.erase(entryOf(map, data_t(50)));
  EXPECT_THAT(calls.made, IsEmpty());
}

TEST(Map, DoesNotRehashKeysWhenItGrows) {
  map_t map;
  for (int key = 0; key < 7; ++key) map.insert(data_t(std::to_string(key)), data_t(key));
  HostCalls calls;
  map.insert(data_t("more"), data_t(1));
  EXPECT_EQ(calls.count("qor_reallocate_map"), 1);
  EXPECT_EQ(calls.count("qor_hash_string"), 1);
}

TEST(Map, ZeroAndNegativeZeroAreOneKey) {
  map_t map;
  map.insert(data_t(0.0), data_t("zero"));
  EXPECT_FALSE(map.insert(data_t(-0.0), data_t("negative")).second);
  EXPECT_STREQ(map.find(data_t(-0.0))->text(), "zero");
}

TEST(Map, ANanKeyIsNeverFoundAgain) {
  const double nan = std::numeric_limits<double>::quiet_NaN();
  map_t map;
  map.insert(data_t(nan), data_t(1));
  EXPECT_EQ(map.find(data_t(nan)), nullptr);
  EXPECT_TRUE(map.insert(data_t(nan), data_t(2)).second);
  EXPECT_EQ(map.size(), 2U);
}

// --- Lookup by text ------------------------------------------------------------------------------

TEST(Map, FindsATextUnderBothKindsOfString) {
  map_t map;
  map.insert(data_t("owned"), data_t(1));
  map.insert(data_t::borrow("borrowed"), data_t(2));
  map.insert(data_t(5), data_t(3));
  EXPECT_TRUE(*map.findText("owned") == data_t(1));
  EXPECT_TRUE(*map.findText("borrowed", qor_hash_string("borrowed")) == data_t(2));
  EXPECT_EQ(map.findText("absent"), nullptr);
  EXPECT_EQ(map_t().findText("absent"), nullptr);
}

TEST(Map, FindsATextWithoutMakingAValue) {
  map_t map;
  map.insert(data_t("key"), data_t(1));
  HostCalls calls;
  *map.findText("key") = data_t(2);
  EXPECT_THAT(calls.made, ElementsAre("qor_hash_string"));
  EXPECT_TRUE(*map.findText("key") == data_t(2));
}

// The strict lookup compares values, whose tags differ here.
TEST(Map, AKeyOfTheOtherKindOfStringIsAnotherKey) {
  map_t map;
  map.insert(data_t("key"), data_t(1));
  EXPECT_EQ(map.find(data_t::borrow("key")), nullptr);
  EXPECT_TRUE(map.insert(data_t::borrow("key"), data_t(2)).second);
}

TEST(Map, ReadsATableThatTheHostFilled) {
  qor_underlying_map_table_t* table = nullptr;
  for (int key = 0; key < 20; ++key)
    ASSERT_EQ(qor_map_put(&table, std::to_string(key).c_str(), data_t(key).release()), 0);
  const map_t map(table);
  EXPECT_EQ(map.size(), 20U);
  for (int key = 0; key < 20; ++key)
    EXPECT_TRUE(*map.find(data_t(std::to_string(key))) == data_t(key));
}

TEST(Map, IsReadByTheHost) {
  map_t map;
  map.insert(data_t("key"), data_t(5));
  const qor_data_t* const value = qor_map_find(map.table(), "key");
  ASSERT_NE(value, nullptr);
  EXPECT_EQ(value->value.int64, 5);
}

// --- Iteration -----------------------------------------------------------------------------------

TEST(Map, VisitsLiveSlotsInAscendingOrder) {
  map_t map;
  insertAt(map, 60, 6);
  insertAt(map, 20, 2);
  insertAt(map, 40, 4);
  EXPECT_EQ(keysInOrder(map), (std::vector<int>{20, 40, 60}));
  map.erase(map.begin());
  EXPECT_EQ(keysInOrder(map), (std::vector<int>{40, 60}));
}

TEST(Map, ValuesMayBeChangedWhileItIsVisited) {
  map_t map = numbers(3);
  for (auto at : map) at.second = data_t("changed");
  for (int key = 0; key < 3; ++key) EXPECT_STREQ(map.find(data_t(key))->text(), "changed");
}

// --- Copies --------------------------------------------------------------------------------------

TEST(MapCopy, OfAnEmptyMapHasNoTable) {
  EXPECT_EQ(map_t().copy().table(), nullptr);
  EXPECT_EQ(map_t(qor_allocate_map(32)).copy().table(), nullptr);
}

TEST(MapCopy, IsEqualAndHashesAlike) {
  const map_t map = numbers(100);
  const map_t copy = map.copy();
  EXPECT_TRUE(copy == map);
  EXPECT_EQ(hashes::hash(copy), hashes::hash(map));
  EXPECT_EQ(hashes::hash(map_t().copy()), hashes::hash(map_t()));
}

TEST(MapCopy, IsDeep) {
  map_t inner;
  inner.insert(data_t("key"), data_t("value"));
  map_t map;
  map.insert(data_t("inner"), data_t(std::move(inner)));
  const map_t copy = map.copy();
  *map.findText("inner") = data_t(1);
  EXPECT_EQ(copy.findText("inner")->tag(), QOR_MAP);
}

TEST(MapCopy, StartsWithMaxOfEightAndSizeSlots) {
  map_t map = numbers(8);
  for (int key = 2; key < 8; ++key) map.erase(entryOf(map, data_t(key)));
  ASSERT_EQ(map.table()->capacity, 16U);
  EXPECT_EQ(map.copy().table()->capacity, 8U);
  EXPECT_EQ(map.copy().table()->tombstones, 0U);
}

TEST(MapCopy, CarriesTheHeaderText) {
  map_t map = numbers(2);
  map.table()->header_string = qor_copy_string("header");
  const map_t copy = map.copy();
  EXPECT_STREQ(copy.table()->header_string, "header");
  EXPECT_NE(copy.table()->header_string, map.table()->header_string);
}

TEST(MapCopy, OfAnEmptyMapWithHeaderTextHasATableOfEightSlots) {
  const map_t map(qor_allocate_map(32));
  map.table()->header_string = qor_copy_string("header");
  const map_t copy = map.copy();
  ASSERT_NE(copy.table(), nullptr);
  EXPECT_EQ(copy.table()->capacity, 8U);
  EXPECT_STREQ(copy.table()->header_string, "header");
}

TEST(MapCopy, FailsWhereTheHostRefusesATable) {
  const map_t map = numbers(2);
  HostCalls calls;
  calls.refuseTables = true;
  EXPECT_EQ(failureOf([&] { map.copy(); }), "Failed to allocate a map of 8 slots");
}

TEST(MapCopy, NoticesAMapThatChangesMeanwhile) {
  const IteratorChecksOn on;
  map_t map;
  map.insert(data_t("key"), data_t(1));
  HostCalls calls;
  calls.onHash = [&map] { map.insert(data_t(1), data_t(1)); };
  EXPECT_EQ(failureOf([&] { map.copy(); }), "Iterator invalidated by modifying map");
}

// --- Equality ------------------------------------------------------------------------------------

TEST(MapEquality, NeedsTheSameEntries) {
  EXPECT_TRUE(numbers(3) == numbers(3));
  EXPECT_FALSE(numbers(3) == numbers(4));
  map_t other = numbers(3);
  *other.find(data_t(1)) = data_t("other");
  EXPECT_FALSE(numbers(3) == other);
  other = numbers(2);
  other.insert(data_t("key"), data_t(1));
  EXPECT_FALSE(numbers(3) == other);
}

TEST(MapEquality, NeedsTheSameHeaderText) {
  map_t left = numbers(2);
  map_t right = numbers(2);
  left.table()->header_string = qor_copy_string("header");
  EXPECT_FALSE(left == right);
  EXPECT_FALSE(right == left);
  right.table()->header_string = qor_copy_string("other");
  EXPECT_FALSE(left == right);
  qor_free_string(right.table()->header_string);
  right.table()->header_string = qor_copy_string("header");
  EXPECT_TRUE(left == right);
}

TEST(MapEquality, NoticesAMapThatChangesMeanwhile) {
  const IteratorChecksOn on;
  map_t left;
  left.insert(data_t("key"), data_t(1));
  const map_t right = left.copy();
  HostCalls calls;
  calls.onHash = [&left] { left.insert(data_t(1), data_t(1)); };
  EXPECT_EQ(failureOf([&] { return left == right; }), "Iterator invalidated by modifying map");
}

TEST(MapEquality, AMapThatHoldsANanValueDiffersFromItself) {
  map_t map;
  map.insert(data_t(1), data_t(std::numeric_limits<double>::quiet_NaN()));
  EXPECT_FALSE(map == map);
}

}  // namespace
}  // namespace connectivity
