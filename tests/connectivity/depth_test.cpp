// Values that are nested deep: hashing, comparing, rendering, copying and freeing them.
#include <functional>
#include <limits>
#include <random>
#include <stdexcept>
#include <string>
#include <utility>

#include <gtest/gtest.h>

#include "connectivity/data_t.hpp"
#include "connectivity/value_access.hpp"
#include "tests/connectivity/HostCalls.hpp"
#include "tests/connectivity/IteratorChecks.hpp"
#include "tests/connectivity/NestedValues.hpp"
#include "tests/support/SmallStack.hpp"

namespace connectivity {
namespace {

using connectivity_test::Hashed;
using connectivity_test::HostCalls;
using connectivity_test::IteratorChecksOn;
using connectivity_test::listOf;
using connectivity_test::mapOf;
using connectivity_test::nested;
using connectivity_test::Nesting;
using connectivity_test::nestings;
using hashes::hash;
using test_support::onSmallStack;

// Deeper than recursion is used, and much deeper than a small stack would hold.
constexpr int beyondRecursion = 12;
constexpr int deep = 20'000;

std::string textOf(const Nesting& nesting, int levels, const std::string& leaf = "leaf") {
  std::string front;
  std::string back;
  for (int level = 0; level < levels; ++level) {
    front += nesting.front;
    back += nesting.back;
  }
  return front + leaf + back;
}

std::string failureOf(const std::function<void()>& action) {
  try {
    action();
  } catch (const std::runtime_error& failure) {
    return failure.what();
  }
  return "no failure";
}

class Depth : public testing::TestWithParam<Nesting> {};

TEST_P(Depth, CostsNoStackInHashing) {
  onSmallStack([] {
    const Hashed value = nested(GetParam(), deep);
    EXPECT_EQ(hash(value.value), value.hash);
  });
}

TEST_P(Depth, CostsNoStackInComparing) {
  onSmallStack([] {
    const data_t value = nested(GetParam(), deep).value;
    EXPECT_TRUE(value == nested(GetParam(), deep).value);
    EXPECT_FALSE(value == nested(GetParam(), deep, "other").value);
    EXPECT_FALSE(value == nested(GetParam(), deep + 1).value);
  });
}

TEST_P(Depth, CostsNoStackInRendering) {
  onSmallStack([] {
    const data_t value = nested(GetParam(), deep).value;
    EXPECT_TRUE(toText(value) == textOf(GetParam(), deep));
  });
}

TEST_P(Depth, CostsNoStackInCopying) {
  onSmallStack([] {
    const data_t value = nested(GetParam(), deep).value;
    EXPECT_TRUE(value.copy() == value);
  });
}

TEST_P(Depth, CostsNoStackInLookingForAKey) {
  onSmallStack([] {
    Hashed key = nested(GetParam(), deep);
    const data_t sought = nested(GetParam(), deep).value;
    map_t map;
    map.insert({std::move(key.value), data_t(5)}, static_cast<long long>(key.hash));
    const map_t copied = map.copy();
    ASSERT_NE(copied.find(sought), nullptr);
    EXPECT_EQ(toText(*copied.find(sought)), "5");
    map.erase(map.find_for_insert(sought, key.hash).first);
    EXPECT_TRUE(map.empty());
  });
}

// Where recursion ends and something else goes on.
TEST_P(Depth, OfAFewLevelsMakesNoDifference) {
  for (int levels = 0; levels <= 2 * beyondRecursion; ++levels) {
    SCOPED_TRACE(levels);
    const Hashed value = nested(GetParam(), levels);
    EXPECT_EQ(hash(value.value), value.hash);
    EXPECT_EQ(toText(value.value), textOf(GetParam(), levels));
    EXPECT_TRUE(value.value == value.value.copy());
    EXPECT_FALSE(value.value == nested(GetParam(), levels, "other").value);
    EXPECT_FALSE(value.value == nested(GetParam(), levels + 1).value);
  }
}

TEST_P(Depth, HidesNoCustomValueFromHashing) {
  static int object = 0;
  static constexpr qor_custom_operations_t operations = {nullptr, [](void*) {}, nullptr};
  Hashed value{data_t(custom_t(qor_allocate_custom(&object, &operations))), 5};
  for (int level = 0; level < beyondRecursion; ++level) value = GetParam().around(std::move(value));
  EXPECT_EQ(failureOf([&] { hash(value.value); }), "Cannot use custom values as a key");
}

INSTANTIATE_TEST_SUITE_P(Of, Depth, testing::ValuesIn(nestings),
                         [](const auto& tested) { return std::string(tested.param.name); });

TEST(DepthOfLists, MayBeAMillion) {
  constexpr int levels = 1'000'000;
  const Hashed value = nested(nestings[0], levels);
  EXPECT_EQ(hash(value.value), value.hash);
  EXPECT_TRUE(value.value == value.value);
}

// --- Any value, at any depth ---------------------------------------------------------------------

// Few different leaves and small containers, so that equal values and equal hashes are frequent:
// an empty list hashes like [true] and like [[]].
class RandomValues {
 public:
  explicit RandomValues(unsigned seed) : _random(seed) {}

  data_t next(int levels) {
    const unsigned kind = pick(levels == 0 ? 4 : 8);
    if (kind >= 6) return map(levels - 1);
    if (kind >= 4) return list(levels - 1);
    if (kind == 3) return data_t(list_t());
    if (kind == 2) return data_t("a");
    return kind == 1 ? data_t(true) : data_t(buffer_t::copyOf("b"));
  }

 private:
  unsigned pick(unsigned count) { return static_cast<unsigned>(_random() % count); }
  data_t list(int levels) {
    list_t list;
    for (unsigned count = pick(3); count > 0; --count) list.push_back(next(levels));
    return data_t(std::move(list));
  }
  data_t map(int levels) {
    map_t map;
    for (unsigned count = pick(4); count > 0; --count) map.insert(next(levels), next(levels));
    if (pick(4) == 0 && !map.empty()) map.table()->header_string = qor_copy_string("header");
    return data_t(std::move(map));
  }

  std::mt19937 _random;
};

data_t inLists(data_t&& value) {
  for (int level = 0; level < beyondRecursion; ++level) value = listOf(std::move(value));
  return std::move(value);
}

// Deep down a value is what it is on its own.
TEST(DeepDown, AValueIsHashedComparedAndRenderedLikeOnItsOwn) {
  const std::string front(beyondRecursion, '[');
  const std::string back(beyondRecursion, ']');
  RandomValues values(20260131);
  int equal = 0;
  int equalHashes = 0;
  for (int count = 0; count < 4'000; ++count) {
    const data_t left = listOf(values.next(3));
    const data_t right = listOf(values.next(3));
    const data_t leftInLists = inLists(left.copy());
    const data_t rightInLists = inLists(right.copy());
    ASSERT_EQ(hash(leftInLists), hash(left)) << toText(left);
    ASSERT_EQ(toText(leftInLists), front + toText(left) + back);
    ASSERT_TRUE(leftInLists == inLists(left.copy())) << toText(left);
    ASSERT_EQ(leftInLists == rightInLists, left == right) << toText(left) << " " << toText(right);
    equal += left == right ? 1 : 0;
    equalHashes += hash(left) == hash(right) ? 1 : 0;
  }
  EXPECT_GT(equal, 100);
  EXPECT_GT(equalHashes, equal);
}

TEST(DeepDown, KeysWithOneHashAreToldApart) {
  const auto twoKeys = [](bool isSwapped) {
    map_t map;
    map.insert(isSwapped ? listOf(data_t(true)) : data_t(list_t()), data_t(isSwapped ? 2 : 1));
    map.insert(isSwapped ? data_t(list_t()) : listOf(data_t(true)), data_t(isSwapped ? 1 : 2));
    return map;
  };
  EXPECT_EQ(hash(data_t(list_t())), hash(listOf(data_t(true))));
  EXPECT_TRUE(inLists(data_t(twoKeys(false))) == inLists(data_t(twoKeys(true))));
  map_t other = twoKeys(true);
  *other.find(data_t(list_t())) = data_t(3);
  EXPECT_FALSE(inLists(data_t(twoKeys(false))) == inLists(data_t(std::move(other))));
}

TEST(DeepDown, AMapThatHoldsANanDiffersFromItself) {
  const data_t value =
      inLists(mapOf(data_t(1), data_t(std::numeric_limits<double>::quiet_NaN()), hash(data_t(1))));
  EXPECT_FALSE(value == value);
}

// Else keys that are maps with maps for keys would be hashed anew at each level.
TEST(DeepDown, KeysInKeysAreHashedAFewTimesAtMost) {
  constexpr int levels = 1'000;
  const data_t left = nested(nestings[2], levels).value;
  const data_t right = nested(nestings[2], levels).value;
  const HostCalls calls;
  EXPECT_TRUE(left == right);
  EXPECT_LT(calls.count("qor_hash_string"), 20 * levels);
}

// --- A list or map that changes deep down --------------------------------------------------------

data_t& innermost(data_t& value) {
  data_t* at = &value;
  for (int level = 0; level < beyondRecursion; ++level) at = &get<list_t>(*at)[0];
  return *at;
}

data_t twoTextsDeepDown() {
  list_t list;
  list.push_back(data_t("text"));
  list.push_back(data_t("text"));
  return inLists(data_t(std::move(list)));
}

data_t decimalsDeepDown() {
  map_t map;
  map.insert(data_t(1), data_t(decimal_t()));
  map.insert(data_t(2), data_t(decimal_t()));
  return inLists(data_t(std::move(map)));
}

TEST(DeepDown, AListThatChangesWhileItIsHashedIsNoticed) {
  const IteratorChecksOn on;
  data_t value = twoTextsDeepDown();
  HostCalls calls;
  calls.onHash = [&value] { get<list_t>(innermost(value)).push_back(data_t(1)); };
  EXPECT_EQ(failureOf([&] { hash(value); }), "Iterator invalidated by modifying list");
}

TEST(DeepDown, AMapThatChangesWhileItIsHashedIsNoticed) {
  const IteratorChecksOn on;
  data_t value = inLists(mapOf(data_t("k"), data_t(1), hash(data_t("k"))));
  HostCalls calls;
  calls.onHash = [&value] { get<map_t>(innermost(value)).insert(data_t(1), data_t(1)); };
  EXPECT_EQ(failureOf([&] { hash(value); }), "Iterator invalidated by modifying map");
}

TEST(DeepDown, AMapThatChangesWhileItIsRenderedIsNoticed) {
  const IteratorChecksOn on;
  data_t value = decimalsDeepDown();
  HostCalls calls;
  calls.onRender = [&value] { get<map_t>(innermost(value)).insert(data_t(3), data_t(1)); };
  EXPECT_EQ(failureOf([&] { toText(value); }), "Iterator invalidated by modifying map");
}

TEST(DeepDown, AMapThatChangesWhileItIsComparedIsNoticed) {
  const IteratorChecksOn on;
  data_t left = inLists(mapOf(data_t("k"), data_t(1), hash(data_t("k"))));
  const data_t right = left.copy();
  HostCalls calls;
  calls.onHash = [&left] { get<map_t>(innermost(left)).insert(data_t(1), data_t(1)); };
  EXPECT_EQ(failureOf([&] { return left == right; }), "Iterator invalidated by modifying map");
}

}  // namespace
}  // namespace connectivity
