#include "connectivity/nesting.hpp"

#include <cstdlib>
#include <limits>
#include <new>

#include <gtest/gtest.h>

#include "connectivity/value_access.hpp"
#include "tests/connectivity/NestedValues.hpp"
#include "tests/support/Sanitizers.hpp"
#include "tests/support/SmallStack.hpp"

#ifndef BUILT_WITH_A_SANITIZER

namespace {
thread_local int allocations = 0;
}  // namespace

// Counts what this program takes from the heap.
void* operator new(std::size_t size) {
  ++allocations;
  void* const block = std::malloc(size == 0 ? 1 : size);
  if (block == nullptr) throw std::bad_alloc();
  return block;
}
void operator delete(void* block) noexcept { std::free(block); }
void operator delete(void* block, std::size_t) noexcept { std::free(block); }

#endif

namespace connectivity {
namespace {

using connectivity_test::listOf;
using connectivity_test::mapOf;
using connectivity_test::nested;
using connectivity_test::Nesting;
using connectivity_test::nestings;
using test_support::onSmallStack;

template <typename Value>
void expectLevels(const Value& value, unsigned levels) {
  EXPECT_FALSE(nestsDeeperThan(value, levels));
  EXPECT_FALSE(nestsDeeperThan(value, levels + 1));
  if (levels > 0) {
    EXPECT_TRUE(nestsDeeperThan(value, levels - 1));
    EXPECT_TRUE(nestsDeeperThan(value, 0));
  }
}

data_t flatMap() { return mapOf(data_t("k"), data_t(1), qor_hash_string("k")); }

data_t customValue() {
  static int object = 0;
  static constexpr qor_custom_operations_t operations = {nullptr, [](void*) {}, nullptr};
  return data_t(custom_t(qor_allocate_custom(&object, &operations)));
}

TEST(Nesting, OfWhatIsNoContainerIsNone) {
  expectLevels(data_t(), 0);
  expectLevels(data_t(1), 0);
  expectLevels(data_t("[[text]]"), 0);
  expectLevels(data_t(buffer_t::copyOf("[[]]")), 0);
  expectLevels(customValue(), 0);
}

TEST(Nesting, OfAContainerIsOneWhateverItHoldsThatIsNone) {
  expectLevels(data_t(list_t()), 1);
  expectLevels(data_t(map_t()), 1);
  expectLevels(listOf(data_t(1)), 1);
  expectLevels(flatMap(), 1);
}

TEST(Nesting, IsThatOfTheDeepestElement) {
  list_t list;
  list.push_back(listOf(data_t(1)));
  list.push_back(data_t(2));
  list.push_back(listOf(listOf(data_t(3))));
  list.push_back(listOf(data_t(4)));
  expectLevels(data_t(std::move(list)), 3);
}

TEST(Nesting, CountsAMapsKeysLikeItsValues) {
  expectLevels(mapOf(data_t("k"), listOf(data_t(1)), 5), 2);
  expectLevels(mapOf(listOf(data_t(1)), data_t("v"), 5), 2);
  expectLevels(mapOf(listOf(flatMap()), listOf(data_t(1)), 5), 3);
}

TEST(Nesting, OfMetadataLeavesTheMetadataItselfOut) {
  expectLevels(map_t(), 0);
  map_t metadata;
  metadata.insert(data_t("k"), data_t(1));
  expectLevels(metadata, 0);
  metadata.insert(data_t("empty"), data_t(map_t()));
  expectLevels(metadata, 1);
  metadata.insert(data_t("http"), listOf(flatMap()));
  expectLevels(metadata, 2);
}

TEST(Nesting, OfAMessageIsTheLargerOfItsTwoParts) {
  Message message(listOf(data_t(1)), map_t());
  expectLevels(message, 1);
  message.metadata.insert(data_t("k"), listOf(flatMap()));
  expectLevels(message, 2);
  message.payload = listOf(listOf(flatMap()));
  expectLevels(message, 3);
}

TEST(Nesting, IsComparedWithTheLargestNumberToo) {
  constexpr unsigned largest = std::numeric_limits<unsigned>::max();
  EXPECT_FALSE(nestsDeeperThan(listOf(data_t(1)), largest));
  EXPECT_FALSE(nestsDeeperThan(Message(listOf(data_t(1)), map_t()), largest));
}

TEST(Nesting, OfAThousandLevelsIsToldFromOneMore) {
  for (const Nesting& nesting : nestings) {
    expectLevels(nested(nesting, 1'000).value, 1'000);
    expectLevels(nested(nesting, 1'001).value, 1'001);
  }
}

TEST(Nesting, CostsNoStack) {
  onSmallStack([] {
    for (const Nesting& nesting : nestings) expectLevels(nested(nesting, 20'000).value, 20'000);
  });
}

// The second element cannot be read.
TEST(Nesting, IsReadNoFurtherThanNeedBe) {
  qor_data_t unreadable{};
  unreadable.tag = QOR_LIST;
  unreadable.value.bits = 16;
  list_t list;
  list.push_back(listOf(listOf(data_t(1))));
  list.push_back(data_t(unreadable));
  data_t value(std::move(list));
  EXPECT_TRUE(nestsDeeperThan(value, 2));
  get<list_t>(value)[1].release();
}

#ifndef BUILT_WITH_A_SANITIZER

TEST(Nesting, OfFlatValuesIsToldWithoutTheHeap) {
  list_t list;
  for (int count = 0; count < 100; ++count) list.push_back(data_t(count));
  map_t metadata;
  metadata.insert(data_t("k"), data_t(1));
  const Message message(data_t(std::move(list)), std::move(metadata));
  allocations = 0;
  EXPECT_FALSE(nestsDeeperThan(message, 1'000));
  EXPECT_EQ(allocations, 0);
}

#endif

}  // namespace
}  // namespace connectivity
