#include <cstdint>
#include <limits>
#include <string>
#include <string_view>

#include <gtest/gtest.h>

#include "connectivity/qor_plugin.h"
#include "tests/orrery/runtime/RuntimeValues.hpp"

namespace {

using runtime_test::boolean;
using runtime_test::borrowed;
using runtime_test::buffer;
using runtime_test::decimal;
using runtime_test::float64;
using runtime_test::int64;
using runtime_test::list;
using runtime_test::map;
using runtime_test::Owned;
using runtime_test::rendered;
using runtime_test::tagged;
using runtime_test::text;

struct Rendering {
  qor_data_t value;
  std::string text;
};

const Rendering smallValues[] = {
    Rendering{tagged(QOR_EMPTY), "(null)"},
    Rendering{boolean(true), "true"},
    Rendering{boolean(false), "false"},
    Rendering{float64(1.5), "1.5"},
    Rendering{float64(1e20), "1e+20"},
    Rendering{float64(0.1 + 0.2), "0.3"},
    Rendering{float64(1234567.0), "1.23457e+06"},
    Rendering{float64(-0.0), "-0"},
    Rendering{float64(1e-5), "1e-05"},
    Rendering{float64(std::numeric_limits<double>::infinity()), "inf"},
    Rendering{float64(std::numeric_limits<double>::quiet_NaN()), "nan"},
    Rendering{int64(-5), "-5"},
    Rendering{int64(std::numeric_limits<std::int64_t>::min()), "-9223372036854775808"},
    Rendering{decimal(0x3180000000000096), "1.50"},
    Rendering{borrowed("borrowed"), "borrowed"},
    Rendering{tagged(QOR_STRING), ""},
    Rendering{tagged(QOR_LIST), "[]"},
    Rendering{tagged(QOR_MAP), "{}"},
    Rendering{tagged(QOR_BUFFER), ""},
    Rendering{tagged(QOR_CUSTOM), "(custom)"}};

TEST(SmallValueText, IsAsListed) {
  for (const Rendering& known : smallValues) EXPECT_EQ(rendered(known.value), known.text);
}

TEST(StringText, StandsBare) {
  const Owned value(text("say \"hi\"\n"));
  EXPECT_EQ(rendered(*value), "say \"hi\"\n");
}

TEST(ListText, ListsItsElements) {
  const Owned value(list({int64(1), text("two"), list({}), list({boolean(true), int64(4)})}));
  EXPECT_EQ(rendered(*value), "[1, two, [], [true, 4]]");
}

TEST(MapText, ListsKeysAndValuesInSlotOrder) {
  const Owned one(map({{"key", text("value")}}));
  EXPECT_EQ(rendered(*one), "{key=value}");

  const Owned several(map({{"a", int64(1)}, {"b", int64(2)}, {"c", int64(3)}}));
  std::string expected;
  for (std::uint64_t i = 0; i < several->value.map->capacity; ++i) {
    const auto& slot = qor_map_entries(several->value.map)[i];
    if (slot.key.tag == QOR_EMPTY) continue;
    expected += (expected.empty() ? "{" : ", ") + std::string(slot.key.value.string) + "=" +
                std::to_string(slot.value.value.int64);
  }
  EXPECT_EQ(rendered(*several), expected + "}");
}

TEST(MapText, KeysOfAnyKindAreRendered) {
  qor_data_t value = tagged(QOR_MAP);
  value.value.map = qor_allocate_map(2);
  value.value.map->size = 2;
  qor_map_entries(value.value.map)[0] = {0, list({int64(1), int64(2)}), map({{"x", int64(3)}})};
  qor_map_entries(value.value.map)[1] = {1, int64(4), list({})};
  const Owned owned(value);
  EXPECT_EQ(rendered(*owned), "{[1, 2]={x=3}, 4=[]}");
}

TEST(MapText, TombstonesAreNotRendered) {
  const Owned value(map({{"gone", int64(1)}}));
  for (std::uint64_t i = 0; i < value->value.map->capacity; ++i) {
    auto& slot = qor_map_entries(value->value.map)[i];
    if (slot.key.tag == QOR_EMPTY) continue;
    qor_free_data(slot.key);
    slot = {};
    slot.hash = 1;
  }
  EXPECT_EQ(rendered(*value), "{}");
}

struct Bytes {
  std::string_view bytes;
  std::string_view text;
};

using namespace std::string_view_literals;

const Bytes buffers[] = {Bytes{"", ""},
                         Bytes{"plain", "plain"},
                         Bytes{"a\tb\r\n", "a\tb\r\n"},
                         Bytes{"gr\xC3\xBC\xC3\x9F", "gr\xC3\xBC\xC3\x9F"},
                         Bytes{"\xF0\x9F\x98\x80", "\xF0\x9F\x98\x80"},
                         Bytes{"\xC2\xA0", "\xC2\xA0"},
                         Bytes{"a\0b"sv, "<3 bytes>"},
                         Bytes{"\x1B[31m", "<5 bytes>"},
                         Bytes{"\x7F", "<1 bytes>"},
                         Bytes{"\xC2\x9B", "<2 bytes>"},
                         Bytes{"\xFF\xFE", "<2 bytes>"},
                         Bytes{"gr\xFC", "<3 bytes>"},
                         Bytes{"\xC3", "<1 bytes>"},
                         Bytes{"\xC0\x80", "<2 bytes>"},
                         Bytes{"\xED\xA0\x80", "<3 bytes>"}};

TEST(BufferText, IsItsBytesWherePeopleCanReadThem) {
  for (const Bytes& known : buffers) {
    const Owned value(buffer(known.bytes));
    EXPECT_EQ(rendered(*value), known.text);
  }
}

const char* describe(void* object) { return static_cast<const char*>(object); }
void* same(void* object) { return object; }
void nothing(void*) {}
constexpr qor_custom_operations_t describedOperations{same, nothing, describe};

TEST(CustomText, IsTheObjectsOwn) {
  char description[] = "<a flush object>";
  qor_data_t value = tagged(QOR_CUSTOM);
  value.value.custom = qor_allocate_custom(description, &describedOperations);
  const Owned owned(value);
  EXPECT_EQ(rendered(*owned), "<a flush object>");
}

TEST(CustomText, WhereTheObjectHasNoneIsCustom) {
  qor_data_t value = tagged(QOR_CUSTOM);
  value.value.custom = qor_allocate_custom(nullptr, &describedOperations);
  const Owned owned(value);
  EXPECT_EQ(rendered(*owned), "(custom)");
}

TEST(UnknownText, IsToldForATagThatDoesNotExist) {
  qor_data_t value{};
  value.tag = 11;
  EXPECT_EQ(rendered(value), "(unknown)");
}

}  // namespace
