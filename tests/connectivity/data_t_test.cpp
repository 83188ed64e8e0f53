#include "connectivity/data_t.hpp"

#include <cmath>
#include <limits>
#include <stdexcept>
#include <type_traits>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/connectivity/HostCalls.hpp"

namespace connectivity {
namespace {

using connectivity_test::HostCalls;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr qor_custom_operations_t counterOperations = {
    [](void* object) -> void* { return object; },
    [](void* object) { ++*static_cast<int*>(object); },
    nullptr,
};

data_t customValue(int& freed) {
  return data_t(custom_t(qor_allocate_custom(&freed, &counterOperations)));
}

data_t listOf(std::initializer_list<int> numbers) {
  list_t list;
  for (const int number : numbers) list.push_back(data_t(number));
  return data_t(std::move(list));
}

data_t withTag(std::uint32_t tag) {
  qor_data_t raw{};
  raw.tag = tag;
  return data_t(raw);
}

std::string failureOf(const std::function<void()>& action) {
  try {
    action();
  } catch (const std::runtime_error& failure) {
    return failure.what();
  }
  return "no failure";
}

// --- Building ------------------------------------------------------------------------------------

TEST(Value, HasTheTagOfItsAlternative) {
  int freed = 0;
  EXPECT_EQ(data_t().tag(), 0U);
  EXPECT_EQ(data_t(true).tag(), 1U);
  EXPECT_EQ(data_t(1.5).tag(), 2U);
  EXPECT_EQ(data_t(5LL).tag(), 3U);
  EXPECT_EQ(data_t(decimal_t{5}).tag(), 4U);
  EXPECT_EQ(data_t("text").tag(), 5U);
  EXPECT_EQ(data_t(list_t()).tag(), 6U);
  EXPECT_EQ(data_t(map_t()).tag(), 7U);
  EXPECT_EQ(data_t(buffer_t()).tag(), 8U);
  EXPECT_EQ(customValue(freed).tag(), 9U);
  EXPECT_EQ(data_t::borrow("text").tag(), 10U);
}

TEST(Value, IsEmptyWithAZeroPayloadWhenDefaultConstructed) {
  const data_t value;
  EXPECT_TRUE(value.empty());
  EXPECT_EQ(value.raw().value.bits, 0U);
}

TEST(Value, KeepsThePayloadOfEachNumber) {
  EXPECT_TRUE(data_t(true).raw().value.boolean);
  EXPECT_EQ(data_t(-1.5).raw().value.float64, -1.5);
  EXPECT_EQ(data_t(-5).raw().value.int64, -5);
  EXPECT_EQ(data_t(-5L).raw().value.int64, -5);
  EXPECT_EQ(data_t(decimal_t{77}).raw().value.decimal, 77U);
}

TEST(Value, RefusesANullText) {
  const std::string expected =
      "Cannot use a null char* as a data_t value (consider using an empty data_t() instead)";
  const char* const null = nullptr;
  EXPECT_EQ(failureOf([&] { data_t value(null); }), expected);
  EXPECT_EQ(failureOf([&] { data_t::borrow(null); }), expected);
}

TEST(Value, CopiesTheTextOfAString) {
  std::string text = "before";
  const data_t value(text);
  text = "after!";
  EXPECT_STREQ(value.text(), "before");
}

TEST(Value, LeavesABorrowedTextAlone) {
  HostCalls calls;
  const char* const text = "text";
  {
    const data_t value = data_t::borrow(text);
    EXPECT_EQ(value.text(), text);
    EXPECT_TRUE(value.isString());
  }
  EXPECT_THAT(calls.made, IsEmpty());
}

TEST(Value, HasATextOnlyWhenItIsAString) {
  EXPECT_EQ(data_t(5).text(), nullptr);
  EXPECT_EQ(data_t().text(), nullptr);
}

// --- Life ----------------------------------------------------------------------------------------

TEST(Value, FreesEachBlockWithTheFunctionOfItsKind) {
  HostCalls calls;
  int freed = 0;
  const auto freedBy = [&calls](data_t&& value) {
    calls.made.clear();
    { const data_t last(std::move(value)); }
    return calls.made;
  };
  EXPECT_THAT(freedBy(data_t("text")), ElementsAre("qor_free_string"));
  EXPECT_THAT(freedBy(listOf({1})), ElementsAre("qor_free_vector"));
  EXPECT_THAT(freedBy(data_t(map_t())), ElementsAre("qor_free_map"));
  EXPECT_THAT(freedBy(data_t(buffer_t::copyOf("x"))), ElementsAre("qor_free_buffer"));
  EXPECT_THAT(freedBy(customValue(freed)), ElementsAre("qor_free_custom"));
  EXPECT_EQ(freed, 1);
}

// A value, and what it held when the object below it was freed.
struct Watched {
  const data_t* value = nullptr;
  std::uint64_t bitsSeen = 1;

  static void look(void* object) {
    auto& self = *static_cast<Watched*>(object);
    self.bitsSeen = self.value->raw().value.bits;
  }
};

constexpr qor_custom_operations_t watchedOperations = {nullptr, &Watched::look, nullptr};

data_t watchedBy(Watched& object) {
  return data_t(custom_t(qor_allocate_custom(&object, &watchedOperations)));
}

void letGoOf(data_t&& given, Watched& object) {
  const data_t value(std::move(given));
  object.value = &value;
  EXPECT_NE(value.raw().value.bits, 0U);
}

TEST(Value, IsEmptyWhileItsBlockIsFreed) {
  Watched custom;
  letGoOf(watchedBy(custom), custom);
  EXPECT_EQ(custom.bitsSeen, 0U);
  Watched inList;
  list_t list;
  list.push_back(watchedBy(inList));
  letGoOf(data_t(std::move(list)), inList);
  EXPECT_EQ(inList.bitsSeen, 0U);
  Watched inMap;
  map_t map;
  map.insert(data_t("key"), watchedBy(inMap));
  letGoOf(data_t(std::move(map)), inMap);
  EXPECT_EQ(inMap.bitsSeen, 0U);
}

TEST(Value, FreesNothingWhereItOwnsNoBlock) {
  HostCalls calls;
  {
    const data_t empty;
    const data_t boolean(true);
    const data_t number(1.5);
    const data_t integer(5);
    const data_t decimal(decimal_t{5});
    const data_t borrowed = data_t::borrow("text");
    const data_t unknown = withTag(11);
  }
  EXPECT_THAT(calls.made, IsEmpty());
}

TEST(Value, MovingLeavesTheSourceEmptyAndFreesNothing) {
  data_t source("text");
  HostCalls calls;
  data_t target(std::move(source));
  EXPECT_TRUE(source.empty());  // NOLINT(bugprone-use-after-move) : that is the fact
  EXPECT_EQ(source.raw().value.bits, 0U);
  EXPECT_STREQ(target.text(), "text");
  source.~data_t();
  new (&source) data_t();
  EXPECT_THAT(calls.made, IsEmpty());
}

TEST(Value, MoveAssignmentFreesWhatStoodThere) {
  data_t target("old");
  data_t source("new");
  HostCalls calls;
  target = std::move(source);
  EXPECT_THAT(calls.made, ElementsAre("qor_free_string"));
  EXPECT_STREQ(target.text(), "new");
}

TEST(Value, SurvivesBeingMovedToItself) {
  data_t value("text");
  data_t& same = value;
  value = std::move(same);
  EXPECT_STREQ(value.text(), "text");
}

TEST(Value, MovesWithoutThrowing) {
  EXPECT_TRUE(std::is_nothrow_move_constructible_v<data_t>);
  EXPECT_TRUE(std::is_nothrow_move_assignable_v<data_t>);
  EXPECT_TRUE(std::is_nothrow_move_constructible_v<Message>);
  EXPECT_TRUE(std::is_nothrow_move_assignable_v<Message>);
  EXPECT_FALSE(std::is_copy_constructible_v<data_t>);
}

TEST(Value, ReleaseGivesTheContentsAwayAndLeavesItEmpty) {
  data_t value("text");
  const qor_data_t raw = value.release();
  EXPECT_TRUE(value.empty());
  EXPECT_EQ(raw.tag, QOR_STRING);
  const data_t again(raw);
  EXPECT_STREQ(again.text(), "text");
}

TEST(Value, IsCopiedDeeplyByOneCallOfTheHost) {
  map_t inner;
  inner.insert(data_t("key"), data_t("value"));
  list_t list;
  list.push_back(data_t(std::move(inner)));
  list.push_back(data_t(buffer_t::copyOf("bytes")));
  const data_t value(std::move(list));
  HostCalls calls;
  const data_t copy = value.copy();
  EXPECT_EQ(calls.count("qor_copy_data"), 1);
  EXPECT_TRUE(copy == value);
  EXPECT_NE(copy.raw().value.list, value.raw().value.list);
}

TEST(Value, ACopyOfABorrowedStringOwnsItsText) {
  const data_t copy = data_t::borrow("text").copy();
  EXPECT_EQ(copy.tag(), QOR_STRING);
  EXPECT_STREQ(copy.text(), "text");
}

// --- Visitors ------------------------------------------------------------------------------------

struct WhichOverload {
  std::string operator()() const { return "empty"; }
  std::string operator()(const char*) const { return "string"; }
  template <typename Other>
  std::string operator()(const Other&) const {
    return "other";
  }
  std::string unknown() const { return "unknown"; }
};

TEST(Value, SendsBothKindsOfStringToOneOverload) {
  EXPECT_EQ(data_t("text").apply_visitor(WhichOverload()), "string");
  EXPECT_EQ(data_t::borrow("text").apply_visitor(WhichOverload()), "string");
  EXPECT_EQ(data_t().apply_visitor(WhichOverload()), "empty");
  EXPECT_EQ(data_t(5).apply_visitor(WhichOverload()), "other");
}

TEST(Value, ATagAboveTenIsNoAlternative) {
  const data_t value = withTag(11);
  EXPECT_EQ(value.apply_visitor(WhichOverload()), "unknown");
  EXPECT_FALSE(value == value);
}

// --- Equality ------------------------------------------------------------------------------------

TEST(ValueEquality, NeedsEqualTags) {
  EXPECT_FALSE(data_t(1) == data_t(1.0));
  EXPECT_FALSE(data_t(1) == data_t(true));
  EXPECT_FALSE(data_t() == data_t(0));
  EXPECT_FALSE(data_t("text") == data_t::borrow("text"));
}

TEST(ValueEquality, ComparesContents) {
  EXPECT_TRUE(data_t() == data_t());
  EXPECT_TRUE(data_t(true) == data_t(true));
  EXPECT_FALSE(data_t(true) == data_t(false));
  EXPECT_TRUE(data_t(5) == data_t(5));
  EXPECT_FALSE(data_t(5) == data_t(6));
  EXPECT_TRUE(data_t("a") == data_t("a"));
  EXPECT_FALSE(data_t("a") == data_t("b"));
  EXPECT_TRUE(data_t::borrow("a") == data_t::borrow("a"));
}

TEST(ValueEquality, ComparesDoublesAsDoubles) {
  const double nan = std::numeric_limits<double>::quiet_NaN();
  EXPECT_TRUE(data_t(0.0) == data_t(-0.0));
  EXPECT_FALSE(data_t(nan) == data_t(nan));
  EXPECT_TRUE(data_t(1.5) == data_t(1.5));
}

TEST(ValueEquality, ComparesDecimalsAsRawBits) {
  EXPECT_TRUE(data_t(decimal_t{5}) == data_t(decimal_t{5}));
  // 1 and 1.0 as decimal64: one number, two encodings.
  EXPECT_FALSE(data_t(decimal_t{0x31C0000000000001}) == data_t(decimal_t{0x31A000000000000A}));
}

TEST(ValueEquality, ComparesListsPairwiseInOrder) {
  EXPECT_TRUE(listOf({1, 2}) == listOf({1, 2}));
  EXPECT_FALSE(listOf({1, 2}) == listOf({2, 1}));
  EXPECT_FALSE(listOf({1, 2}) == listOf({1}));
}

TEST(ValueEquality, ANullBlockIsAnEmptyOne) {
  EXPECT_TRUE(data_t(list_t()) == data_t(list_t(qor_allocate_list(4))));
  EXPECT_TRUE(data_t(buffer_t()) == data_t(buffer_t(qor_allocate_buffer(0))));
  EXPECT_TRUE(data_t(map_t()) == data_t(map_t(qor_allocate_map(8))));
}

TEST(ValueEquality, ComparesBuffersByLengthAndBytes) {
  const auto buffer = [](std::string_view bytes) { return data_t(buffer_t::copyOf(bytes)); };
  using namespace std::string_view_literals;
  EXPECT_TRUE(buffer("a\0b"sv) == buffer("a\0b"sv));
  EXPECT_FALSE(buffer("a\0b"sv) == buffer("a\0c"sv));
  EXPECT_FALSE(buffer("a"sv) == buffer("ab"sv));
}

TEST(ValueEquality, ACustomValueIsNotEvenEqualToItself) {
  int freed = 0;
  const data_t value = customValue(freed);
  EXPECT_FALSE(value == value);
}

// --- Lists, buffers, messages --------------------------------------------------------------------

TEST(List, KeepsWhatIsAppendedWhileItGrows) {
  list_t list;
  for (int number = 0; number < 100; ++number) list.push_back(data_t(number));
  ASSERT_EQ(list.size(), 100U);
  EXPECT_GE(list.block()->capacity, 100U);
  long long expected = 0;
  for (const data_t& element : list) EXPECT_TRUE(element == data_t(expected++));
  EXPECT_TRUE(list[99] == data_t(99));
}

TEST(List, StaysAsItWasWhereTheHostRefusesToGrowIt) {
  list_t list;
  HostCalls calls;
  calls.refuseLists = true;
  data_t element("kept");
  EXPECT_EQ(failureOf([&] { list.push_back(std::move(element)); }),
            "Failed to allocate a list of 4 elements");
  EXPECT_STREQ(element.text(), "kept");  // NOLINT(bugprone-use-after-move) : that is the fact
  EXPECT_TRUE(list.empty());
}

TEST(List, IsEmptyWithoutABlock) {
  const list_t list;
  EXPECT_EQ(list.size(), 0U);
  EXPECT_EQ(list.begin(), list.end());
}

TEST(Buffer, HoldsACopyOfAnyBytes) {
  using namespace std::string_view_literals;
  const buffer_t buffer = buffer_t::copyOf("a\0b"sv);
  EXPECT_EQ(buffer.view(), "a\0b"sv);
  EXPECT_EQ(buffer_t::copyOf("").size(), 0U);
}

TEST(Buffer, UsesTheLowThirtyTwoBitsOfItsLength) {
  struct {
    qor_underlying_buffer_t head{0x100000003};
    char bytes[8] = {'a', 'b', 'c'};
  } block;
  buffer_t buffer(&block.head);
  EXPECT_EQ(buffer.view(), "abc");
  buffer.release();
}

TEST(Buffer, IsEmptyWithoutABlock) {
  const buffer_t buffer;
  EXPECT_TRUE(buffer.empty());
  EXPECT_EQ(buffer.view(), "");
}

TEST(Message, MovesPayloadAndMetadataAsAUnit) {
  map_t metadata;
  metadata.insert(data_t("requestId"), data_t(7));
  Message source(data_t("payload"), std::move(metadata));
  const Message target(std::move(source));
  EXPECT_STREQ(target.payload.text(), "payload");
  EXPECT_EQ(target.metadata.size(), 1U);
  EXPECT_TRUE(source.payload.empty());  // NOLINT(bugprone-use-after-move) : that is the fact
  EXPECT_EQ(source.metadata.table(), nullptr);
}

}  // namespace
}  // namespace connectivity
