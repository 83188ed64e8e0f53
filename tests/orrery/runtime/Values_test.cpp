// Making, copying and freeing values through the C interface. Leaks and double frees are for the
// address sanitizer to find.
#include <cstdint>
#include <cstring>
#include <limits>
#include <string>

#include <gtest/gtest.h>

#include "connectivity/qor_plugin.h"
#include "tests/orrery/RecordingLog.hpp"
#include "tests/orrery/runtime/RuntimeValues.hpp"
#include "tests/support/SmallStack.hpp"

namespace {

using runtime_test::borrowed;
using runtime_test::buffer;
using runtime_test::int64;
using runtime_test::list;
using runtime_test::map;
using runtime_test::Owned;
using runtime_test::rendered;
using runtime_test::tagged;
using runtime_test::text;
using test_support::onSmallStack;

constexpr std::uint64_t tooMany = std::numeric_limits<std::uint64_t>::max();
constexpr int deep = 20'000;

// --- Strings -------------------------------------------------------------------------------------

TEST(RuntimeString, CopyIsItsOwn) {
  char original[] = "text";
  char* copied = qor_copy_string(original);
  original[0] = 'n';
  EXPECT_STREQ(copied, "text");
  qor_free_string(copied);
}

TEST(RuntimeString, NullIsCopiedAsNullAndFreedAsNothing) {
  EXPECT_EQ(qor_copy_string(nullptr), nullptr);
  qor_free_string(nullptr);
}

// --- Lists ---------------------------------------------------------------------------------------

TEST(RuntimeList, StartsEmptyWithItsCapacity) {
  qor_underlying_list_t* block = qor_allocate_list(3);
  EXPECT_EQ(block->count, 0U);
  EXPECT_EQ(block->capacity, 3U);
  qor_free_vector(block);
}

TEST(RuntimeList, GrowsWithItsElementsAndEmptyValuesBehindThem) {
  qor_underlying_list_t* block = list({text("kept"), int64(7)}).value.list;
  block = qor_reallocate_list(block, 100);
  ASSERT_NE(block, nullptr);
  EXPECT_EQ(block->count, 2U);
  EXPECT_EQ(block->capacity, 100U);
  EXPECT_STREQ(qor_list_elements(block)[0].value.string, "kept");
  EXPECT_EQ(qor_list_elements(block)[1].value.int64, 7);
  for (std::size_t i = 2; i < 100; ++i) {
    ASSERT_EQ(qor_list_elements(block)[i].tag, std::uint32_t{QOR_EMPTY});
    ASSERT_EQ(qor_list_elements(block)[i].value.bits, 0U);
  }
  qor_free_vector(block);
}

TEST(RuntimeList, GrowsOutOfNothing) {
  qor_underlying_list_t* block = qor_reallocate_list(nullptr, 2);
  ASSERT_NE(block, nullptr);
  EXPECT_EQ(block->capacity, 2U);
  qor_free_vector(block);
}

TEST(RuntimeList, ShrinksToItsCountButNotBelow) {
  const RecordingLog log;
  qor_underlying_list_t* block = qor_allocate_list(10);
  block->count = 2;
  EXPECT_EQ(qor_reallocate_list(block, 1), nullptr);
  EXPECT_EQ(log.onlyText(), "Cannot reallocate a list of 2 elements to a capacity of 1");
  EXPECT_EQ(block->capacity, 10U);
  block = qor_reallocate_list(block, 2);
  ASSERT_NE(block, nullptr);
  EXPECT_EQ(block->capacity, 2U);
  qor_free_vector(block);
}

TEST(RuntimeList, ACapacityThatWouldWrapFailsWithAClearError) {
  const RecordingLog log;
  EXPECT_EQ(qor_allocate_list(tooMany / 16 + 2), nullptr);
  const RecordingLog::Line expected{"orrery", QOR_LOG_ERROR,
                                    "Failed to allocate a list of 1152921504606846977 elements"};
  EXPECT_EQ(log.lines(), std::vector{expected});
}

TEST(RuntimeList, GrowthThatWouldWrapLeavesTheOldBlock) {
  const RecordingLog log;
  qor_underlying_list_t* block = list({int64(1)}).value.list;
  EXPECT_EQ(qor_reallocate_list(block, tooMany), nullptr);
  EXPECT_EQ(log.onlyText(), "Failed to allocate a list of 18446744073709551615 elements");
  EXPECT_EQ(block->count, 1U);
  EXPECT_EQ(block->capacity, 1U);
  qor_free_vector(block);
}

// --- Buffers -------------------------------------------------------------------------------------

TEST(RuntimeBuffer, StartsAsZeroBytes) {
  qor_underlying_buffer_t* block = qor_allocate_buffer(5);
  EXPECT_EQ(block->length, 5U);
  EXPECT_EQ(std::memcmp(qor_buffer_bytes(block), "\0\0\0\0\0", 5), 0);
  qor_free_buffer(block);
}

TEST(RuntimeBuffer, MayBeOfNoBytes) {
  qor_underlying_buffer_t* block = qor_allocate_buffer(0);
  ASSERT_NE(block, nullptr);
  EXPECT_EQ(block->length, 0U);
  qor_free_buffer(block);
}

// Readers use the low 32 bits of the length: a longer buffer would be read as a shorter one.
TEST(RuntimeBuffer, ALengthBeyond32BitsFailsWithAClearError) {
  const RecordingLog log;
  EXPECT_EQ(qor_allocate_buffer(std::uint64_t{1} << 32), nullptr);
  EXPECT_EQ(log.onlyText(), "Failed to allocate a buffer of 4294967296 bytes");
}

// --- Custom values -------------------------------------------------------------------------------

// A host object that counts its copies and its ends.
struct Counted {
  int copies = 0;
  int frees = 0;

  static void* copy(void* object) {
    ++static_cast<Counted*>(object)->copies;
    return object;
  }
  static void free(void* object) { ++static_cast<Counted*>(object)->frees; }
};
constexpr qor_custom_operations_t countedOperations{Counted::copy, Counted::free, nullptr};

qor_data_t custom(Counted& object) {
  qor_data_t value = tagged(QOR_CUSTOM);
  value.value.custom = qor_allocate_custom(&object, &countedOperations);
  return value;
}

TEST(RuntimeCustom, IsEndedOnceWithTheValueThatHoldsIt) {
  Counted object;
  { const Owned value(list({custom(object)})); }
  EXPECT_EQ(object.frees, 1);
}

TEST(RuntimeCustom, IsCopiedByItsOwnOperation) {
  Counted object;
  {
    const Owned value(custom(object));
    const Owned copied(qor_copy_data(*value));
    EXPECT_EQ(object.copies, 1);
    EXPECT_NE(copied->value.custom, value->value.custom);
  }
  EXPECT_EQ(object.frees, 2);
}

// --- Deep copies ---------------------------------------------------------------------------------

TEST(RuntimeCopy, SharesNothingWithTheOriginal) {
  Counted object;
  const Owned copied([&] {
    const Owned original(map({{"list", list({text("a"), buffer("b"), tagged(QOR_EMPTY)})},
                              {"map", map({{"inner", list({map({{"innermost", int64(1)}})})}})},
                              {"custom", custom(object)}}));
    return qor_copy_data(*original);
  }());
  EXPECT_EQ(rendered(*qor_map_find(copied->value.map, "list")), "[a, b, (null)]");
  EXPECT_EQ(rendered(*qor_map_find(copied->value.map, "map")), "{inner=[{innermost=1}]}");
  EXPECT_EQ(rendered(*qor_map_find(copied->value.map, "custom")), "(custom)");
}

TEST(RuntimeCopy, TakesTheHeaderTextAlong) {
  qor_data_t original = map({{"key", int64(1)}});
  original.value.map->header_string = qor_copy_string("header");
  const Owned copied(qor_copy_data(original));
  qor_free_data(original);
  EXPECT_STREQ(copied->value.map->header_string, "header");
}

TEST(RuntimeCopy, ABorrowedStringBecomesAnOwnedOne) {
  const Owned copied(qor_copy_data(borrowed("text")));
  EXPECT_EQ(copied->tag, std::uint32_t{QOR_STRING});
  EXPECT_STREQ(copied->value.string, "text");
}

TEST(RuntimeCopy, ATextKeyOfABorrowedStringIsFoundInTheCopy) {
  const Owned copied([] {
    const Owned original(map({{"key", int64(5)}}));
    for (std::size_t i = 0; i < original->value.map->capacity; ++i) {
      qor_data_t& key = qor_map_entries(original->value.map)[i].key;
      if (key.tag != QOR_STRING) continue;
      qor_free_string(key.value.string);
      key = borrowed("key");
    }
    return qor_copy_data(*original);
  }());
  ASSERT_NE(qor_map_find(copied->value.map, "key"), nullptr);
  EXPECT_EQ(qor_map_find(copied->value.map, "key")->value.int64, 5);
}

TEST(RuntimeCopy, NullBlocksStayNull) {
  for (const qor_tag_t tag : {QOR_STRING, QOR_LIST, QOR_MAP, QOR_BUFFER, QOR_CUSTOM}) {
    const Owned copied(qor_copy_data(tagged(tag)));
    EXPECT_EQ(copied->tag, std::uint32_t{tag});
    EXPECT_EQ(copied->value.bits, 0U) << tag;
  }
}

TEST(RuntimeCopy, OnlyTheLow32BitsOfABufferLengthCount) {
  const Owned original(buffer("abc"));
  original->value.buffer->length |= std::uint64_t{1} << 40;
  const Owned copied(qor_copy_data(*original));
  EXPECT_EQ(copied->value.buffer->length, 3U);
  EXPECT_EQ(rendered(*copied), "abc");
}

TEST(RuntimeCopy, SmallValuesAreKeptBitForBit) {
  for (const qor_tag_t tag : {QOR_BOOL, QOR_DOUBLE, QOR_INT64, QOR_DECIMAL}) {
    qor_data_t value = tagged(tag);
    value.value.bits = 1;
    const qor_data_t copied = qor_copy_data(value);
    EXPECT_EQ(std::memcmp(&copied, &value, sizeof value), 0) << tag;
  }
}

// --- Depth ---------------------------------------------------------------------------------------

qor_data_t inList(qor_data_t value) { return list({value}); }

// One entry in a table of one slot.
qor_data_t inTable(qor_data_t key, qor_data_t value) {
  qor_data_t result = tagged(QOR_MAP);
  result.value.map = qor_allocate_map(1);
  result.value.map->size = 1;
  qor_underlying_map_table_entry_t& slot = qor_map_entries(result.value.map)[0];
  slot.hash = 2;
  slot.key = key;
  slot.value = value;
  return result;
}
qor_data_t asValue(qor_data_t value) { return inTable(text("k"), value); }
qor_data_t asKey(qor_data_t value) { return inTable(value, text("v")); }

// A way to nest: the container, and what stands in front of and behind the value in its text.
struct Nesting {
  const char* name;
  qor_data_t (*around)(qor_data_t);
  const char* front;
  const char* back;
};

qor_data_t nested(const Nesting& nesting, int levels) {
  qor_data_t value = int64(1);
  for (int level = 0; level < levels; ++level) value = nesting.around(value);
  return value;
}

std::string textOf(const Nesting& nesting, int levels) {
  std::string front;
  std::string back;
  for (int level = 0; level < levels; ++level) {
    front += nesting.front;
    back += nesting.back;
  }
  return front + "1" + back;
}

constexpr Nesting nestings[] = {{"Lists", inList, "[", "]"},
                                {"MapsAsValues", asValue, "{k=", "}"},
                                {"MapsAsKeys", asKey, "{", "=v}"}};

class RuntimeDepth : public testing::TestWithParam<Nesting> {};

TEST_P(RuntimeDepth, CostsNoStackInFreeing) {
  onSmallStack([] { qor_free_data(nested(GetParam(), deep)); });
}

TEST_P(RuntimeDepth, CostsNoStackInCopying) {
  const Owned value(nested(GetParam(), deep));
  qor_data_t copied{};
  onSmallStack([&] { copied = qor_copy_data(*value); });
  EXPECT_TRUE(rendered(*Owned(copied)) == textOf(GetParam(), deep));
}

TEST_P(RuntimeDepth, CostsNoStackInRendering) {
  const Owned value(nested(GetParam(), deep));
  std::string text;
  onSmallStack([&] { text = rendered(*value); });
  EXPECT_TRUE(text == textOf(GetParam(), deep));
}

TEST_P(RuntimeDepth, MayBeAMillion) {
  constexpr int levels = 1'000'000;
  const Owned value(nested(GetParam(), levels));
  const Owned copied(qor_copy_data(*value));
  EXPECT_TRUE(rendered(*copied) == textOf(GetParam(), levels));
}

INSTANTIATE_TEST_SUITE_P(Of, RuntimeDepth, testing::ValuesIn(nestings),
                         [](const auto& tested) { return std::string(tested.param.name); });

TEST(RuntimeFree, NullBlocksAndUnownedValuesAreNothingToFree) {
  qor_free_vector(nullptr);
  qor_free_map(nullptr);
  qor_free_buffer(nullptr);
  qor_free_custom(nullptr);
  const char local[] = "not from the heap";
  qor_free_data(borrowed(local));
  qor_free_data(tagged(QOR_EMPTY));
  EXPECT_STREQ(local, "not from the heap");
}

}  // namespace
