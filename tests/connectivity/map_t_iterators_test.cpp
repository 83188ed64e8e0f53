#include <stdexcept>

#include <gtest/gtest.h>

#include "connectivity/data_t.hpp"
#include "tests/connectivity/IteratorChecks.hpp"

namespace connectivity {
namespace {

using connectivity_test::IteratorChecksOff;
using connectivity_test::IteratorChecksOn;

constexpr const char* modified = "Iterator invalidated by modifying map";
constexpr const char* differentMaps = "Invalid comparison of iterators into different maps";

template <typename Action>
std::string failureOf(Action action) {
  try {
    action();
  } catch (const std::runtime_error& failure) {
    return failure.what();
  }
  return "no failure";
}

map_t numbers(int count) {
  map_t map;
  for (int key = 0; key < count; ++key) map.insert(data_t(key), data_t(key));
  return map;
}

// --- With the checks -----------------------------------------------------------------------------

TEST(MapIterator, IsInvalidatedByAnInsert) {
  const IteratorChecksOn on;
  map_t map = numbers(3);
  auto at = map.begin();
  map.insert(data_t("new"), data_t(1));
  EXPECT_EQ(failureOf([&] { *at; }), modified);
  EXPECT_EQ(failureOf([&] { at.key(); }), modified);
  EXPECT_EQ(failureOf([&] { at.value(); }), modified);
  EXPECT_EQ(failureOf([&] { ++at; }), modified);
  EXPECT_EQ(failureOf([&] { at.checkmodified(); }), modified);
}

TEST(MapIterator, IsInvalidatedByAnErase) {
  const IteratorChecksOn on;
  map_t map = numbers(3);
  const auto at = map.begin();
  map.erase(map.begin());
  EXPECT_EQ(failureOf([&] { *at; }), modified);
}

TEST(MapIterator, IsNotInvalidatedByAChangedValueOrAFailedInsert) {
  const IteratorChecksOn on;
  map_t map = numbers(3);
  const auto at = map.begin();
  *map.find(data_t(1)) = data_t("changed");
  map.insert(data_t(1), data_t(2));
  EXPECT_EQ(failureOf([&] { *at; }), "no failure");
}

TEST(MapIterator, OfAMapWithoutATableIsInvalidatedByItsFirstTable) {
  const IteratorChecksOn on;
  map_t map;
  const auto end = map.end();
  EXPECT_EQ(failureOf([&] { end.checkmodified(); }), "no failure");
  map.insert(data_t(1), data_t(1));
  EXPECT_EQ(failureOf([&] { end.checkmodified(); }), modified);
}

TEST(MapIterator, IsInvalidatedByTheLossOfTheTable) {
  const IteratorChecksOn on;
  map_t map = numbers(3);
  const auto at = map.begin();
  const map_t other(std::move(map));
  EXPECT_EQ(failureOf([&] { at.checkmodified(); }), modified);
}

TEST(MapIterator, NoticesInsertionInTheMidstOfALoop) {
  const IteratorChecksOn on;
  map_t map = numbers(3);
  EXPECT_EQ(failureOf([&] {
              for (auto at : map) map.insert(data_t(at.first.raw().value.int64 + 100), data_t());
            }),
            modified);
}

TEST(MapIterator, EraseOfAStalePositionChangesNothing) {
  const IteratorChecksOn on;
  map_t map = numbers(3);
  const auto stale = map.begin();
  map.insert(data_t("new"), data_t(1));
  EXPECT_EQ(failureOf([&] { map.erase(stale); }), modified);
  EXPECT_EQ(map.size(), 4U);
}

TEST(MapIterator, IsNotComparedAcrossMaps) {
  const IteratorChecksOn on;
  map_t left = numbers(3);
  map_t right = numbers(3);
  EXPECT_EQ(failureOf([&] { return left.begin() == right.begin(); }), differentMaps);
  const map_t& constLeft = left;
  const map_t& constRight = right;
  EXPECT_EQ(failureOf([&] { return constLeft.end() != constRight.end(); }), differentMaps);
}

TEST(MapIterator, OfAnotherMapErasesNothing) {
  const IteratorChecksOn on;
  map_t left = numbers(3);
  map_t right = numbers(3);
  EXPECT_EQ(failureOf([&] { left.erase(right.begin()); }), differentMaps);
  EXPECT_EQ(failureOf([&] { left.erase(right.end()); }), differentMaps);
  EXPECT_EQ(left.size(), 3U);
  EXPECT_EQ(right.size(), 3U);
}

TEST(MapIterator, HoldsNoEntryAtTheEnd) {
  map_t map = numbers(3);
  map_t without;
  EXPECT_EQ(failureOf([&] { *map.end(); }), "The end of a map holds no entry");
  EXPECT_EQ(failureOf([&] { without.begin().value(); }), "The end of a map holds no entry");
}

TEST(MapIterator, StaysAtTheEnd) {
  map_t map = numbers(3);
  auto at = map.end();
  ++at;
  EXPECT_TRUE(at == map.end());
}

// --- Without -------------------------------------------------------------------------------------

TEST(MapIterator, CarriesOnAfterAChangeWhereTheChecksAreOff) {
  map_t map = numbers(3);
  auto at = map.begin();
  const auto end = map.end();
  map.insert(data_t("new"), data_t(1));
  const IteratorChecksOff off;
  int visited = 0;
  for (; !(at == end); ++at) ++visited;
  EXPECT_EQ(visited, 4);
}

TEST(MapIterator, EraseOfAnEntryThatIsGoneDoesNothingWhereTheChecksAreOff) {
  map_t map = numbers(3);
  const auto stale = map.begin();
  map.erase(map.begin());
  const IteratorChecksOff off;
  map.erase(stale);
  EXPECT_EQ(map.size(), 2U);
  EXPECT_EQ(map.table()->tombstones, 1U);
}

TEST(MapIterator, IsComparedAcrossMapsWhereTheChecksAreOff) {
  const IteratorChecksOff off;
  map_t left = numbers(3);
  map_t right = numbers(3);
  EXPECT_TRUE(left.begin() == right.begin());
}

TEST(MapIterator, AsksForTheVariableAtEachFailedCheck) {
  map_t map = numbers(3);
  const auto stale = map.begin();
  map.insert(data_t("new"), data_t(1));
  {
    const IteratorChecksOff off;
    EXPECT_EQ(failureOf([&] { stale.checkmodified(); }), "no failure");
  }
  const IteratorChecksOn on;
  EXPECT_EQ(failureOf([&] { stale.checkmodified(); }), modified);
}

}  // namespace
}  // namespace connectivity
