#include "connectivity/value_access.hpp"

#include <stdexcept>
#include <string>
#include <string_view>

#include <gtest/gtest.h>

#include "tests/connectivity/HostCalls.hpp"
#include "tests/connectivity/IteratorChecks.hpp"

namespace connectivity {
namespace {

using connectivity_test::HostCalls;
using connectivity_test::IteratorChecksOff;
using connectivity_test::IteratorChecksOn;
using namespace std::string_view_literals;

template <typename Action>
std::string failureOf(Action action) {
  try {
    action();
  } catch (const std::runtime_error& failure) {
    return failure.what();
  }
  return "no failure";
}

// What the action writes to standard error.
template <typename Action>
std::string diagnosticOf(Action action) {
  ::testing::internal::CaptureStderr();
  failureOf(action);
  return ::testing::internal::GetCapturedStderr();
}

data_t customValue() {
  static int object = 0;
  static constexpr qor_custom_operations_t operations = {nullptr, [](void*) {}, nullptr};
  return data_t(custom_t(qor_allocate_custom(&object, &operations)));
}

data_t buffer(std::string_view bytes) { return data_t(buffer_t::copyOf(bytes)); }

// --- get -----------------------------------------------------------------------------------------

TEST(Get, GivesAReferenceToTheHeldAlternative) {
  data_t value(5);
  get<long long>(value) = 6;
  const data_t& constant = value;
  EXPECT_EQ(get<long long>(constant), 6);
  EXPECT_EQ(&get<long long>(value), &get<long long>(constant));
}

TEST(Get, ReadsEveryAlternative) {
  data_t custom = customValue();
  data_t map((map_t()));
  data_t list((list_t()));
  data_t bytes = buffer("bytes");
  data_t boolean(true);
  data_t number(1.5);
  data_t decimal(decimal_t{7});
  EXPECT_TRUE(get<bool>(boolean));
  EXPECT_EQ(get<double>(number), 1.5);
  EXPECT_EQ(get<decimal_t>(decimal).bits, 7U);
  EXPECT_TRUE(get<list_t>(list).empty());
  get<map_t>(map).insert(data_t(1), data_t(2));
  EXPECT_EQ(get<map_t>(map).size(), 1U);
  EXPECT_EQ(get<buffer_t>(bytes).view(), "bytes");
  EXPECT_EQ(get<custom_t>(custom).block(), custom.raw().value.custom);
}

TEST(Get, ReadsATextFromBothKindsOfString) {
  const data_t owned("text");
  const data_t borrowed = data_t::borrow("text");
  EXPECT_STREQ(get<const char*>(owned), "text");
  EXPECT_STREQ(get<const char*>(borrowed), "text");
  EXPECT_EQ(get<std::string>(owned), "text");
  EXPECT_EQ(get<std::string>(borrowed), "text");
  EXPECT_EQ(getString(owned), "text");
}

TEST(Get, FromAnEmptyValueFailsAndWritesNothing) {
  const data_t value;
  EXPECT_EQ(failureOf([&] { get<long long>(value); }), "Get from empty");
  EXPECT_EQ(diagnosticOf([&] { get<long long>(value); }), "");
}

TEST(Get, NamesTheKindAskedForAndTheKindHeld) {
  const auto failure = [](auto asked, const data_t& value) {
    return failureOf([&] { get<decltype(asked)>(value); });
  };
  ::testing::internal::CaptureStderr();
  EXPECT_EQ(failure(0LL, data_t(true)),
            "Incorrect type in get (you asked for integer but it's actually boolean)");
  EXPECT_EQ(failure(false, data_t(1)),
            "Incorrect type in get (you asked for boolean but it's actually integer)");
  EXPECT_EQ(failure(map_t(), data_t(1.5)),
            "Incorrect type in get (you asked for map but it's actually double)");
  EXPECT_EQ(failure(list_t(), data_t("text")),
            "Incorrect type in get (you asked for list but it's actually string)");
  EXPECT_EQ(failure(list_t(), data_t::borrow("text")),
            "Incorrect type in get (you asked for list but it's actually string)");
  EXPECT_EQ(failure(std::string(), data_t(decimal_t())),
            "Incorrect type in get (you asked for string but it's actually decimal)");
  EXPECT_EQ(failure("", data_t(map_t())),
            "Incorrect type in get (you asked for string but it's actually map)");
  EXPECT_EQ(failure(buffer_t(), data_t(list_t())),
            "Incorrect type in get (you asked for buffer but it's actually list)");
  EXPECT_EQ(failure(decimal_t(), buffer("")),
            "Incorrect type in get (you asked for decimal but it's actually buffer)");
  EXPECT_EQ(failure(1.5, customValue()),
            "Incorrect type in get (you asked for double but it's actually custom)");
  ::testing::internal::GetCapturedStderr();
  EXPECT_EQ(diagnosticOf([] {
              const data_t value(1);
              get<custom_t>(value);
            }),
            std::string("GetVisitor<") + typeid(custom_t).name() + ">.operator()(" +
                typeid(custom_t).name() + ")\n");
}

// The line is written before the failure is raised, also when somebody catches it.
TEST(Get, WritesOneLineToStandardErrorWhenTheKindIsWrong) {
  const data_t value(true);
  EXPECT_EQ(diagnosticOf([&] { get<long long>(value); }), "GetVisitor<x>.operator()(x)\n");
  EXPECT_EQ(diagnosticOf([&] { get<const char*>(value); }), "GetVisitor<PKc>.operator()(PKc)\n");
}

TEST(Get, LeavesTheValueAsItWas) {
  data_t value("text");
  diagnosticOf([&] { get<map_t>(value); });
  EXPECT_STREQ(value.text(), "text");
}

// --- convert_to ----------------------------------------------------------------------------------

TEST(ConvertToInteger, TakesIntegersAndLeadingDigits) {
  EXPECT_EQ(convert_to<long long>(data_t(-5)), -5);
  EXPECT_EQ(convert_to<long long>(data_t("12")), 12);
  EXPECT_EQ(convert_to<long long>(data_t("12abc")), 12);
  EXPECT_EQ(convert_to<long long>(data_t::borrow(" -7")), -7);
}

TEST(ConvertToInteger, TakesTextThatIsNoNumberAsZero) {
  EXPECT_EQ(convert_to<long long>(data_t("abc")), 0);
  EXPECT_EQ(convert_to<long long>(data_t("")), 0);
}

TEST(ConvertToInteger, RefusesEverythingElse) {
  const auto failure = [](const data_t& value) {
    return failureOf([&] { convert_to<long long>(value); });
  };
  EXPECT_EQ(failure(data_t()), "Trying to parse from empty");
  EXPECT_EQ(failure(data_t(true)), "Trying to parse from incorrect type (actually boolean)");
  EXPECT_EQ(failure(data_t(1.5)), "Trying to parse from incorrect type (actually double)");
  EXPECT_EQ(failure(data_t(decimal_t())), "Trying to parse from incorrect type (actually decimal)");
  EXPECT_EQ(failure(data_t(list_t())), "Trying to parse from incorrect type (actually list)");
  EXPECT_EQ(failure(data_t(map_t())), "Trying to parse from incorrect type (actually map)");
  EXPECT_EQ(failure(buffer("5")), "Trying to parse from incorrect type (actually buffer)");
  EXPECT_EQ(failure(customValue()), "Trying to parse from incorrect type (actually custom)");
}

TEST(ConvertToString, FormatsBooleansAndNumbers) {
  EXPECT_EQ(convert_to<std::string>(data_t(true)), "true");
  EXPECT_EQ(convert_to<std::string>(data_t(false)), "false");
  EXPECT_EQ(convert_to<std::string>(data_t(1.5)), "1.5");
  EXPECT_EQ(convert_to<std::string>(data_t(1e20)), "1e+20");
  EXPECT_EQ(convert_to<std::string>(data_t(-5)), "-5");
  EXPECT_EQ(convert_to<std::string>(data_t(std::numeric_limits<long long>::min())),
            "-9223372036854775808");
}

TEST(ConvertToString, TakesBothKindsOfString) {
  EXPECT_EQ(convert_to<std::string>(data_t("text")), "text");
  EXPECT_EQ(convert_to<std::string>(data_t::borrow("text")), "text");
}

TEST(ConvertToString, RefusesEverythingElse) {
  const auto failure = [](const data_t& value) {
    return failureOf([&] { convert_to<std::string>(value); });
  };
  EXPECT_EQ(failure(data_t()), "Trying to parse from empty");
  EXPECT_EQ(failure(data_t(decimal_t())), "Trying to parse from incorrect type (actually decimal)");
  EXPECT_EQ(failure(data_t(list_t())), "Trying to parse from incorrect type (actually list)");
  EXPECT_EQ(failure(data_t(map_t())), "Trying to parse from incorrect type (actually map)");
  EXPECT_EQ(failure(buffer("5")), "Trying to parse from incorrect type (actually buffer)");
  EXPECT_EQ(failure(customValue()), "Trying to parse from incorrect type (actually custom)");
}

TEST(KindOf, NamesTheHeldAlternative) {
  EXPECT_STREQ(kindOf(data_t()), "empty");
  EXPECT_STREQ(kindOf(data_t(5)), "integer");
  EXPECT_STREQ(kindOf(data_t::borrow("text")), "string");
  qor_data_t raw{};
  raw.tag = 11;
  EXPECT_STREQ(kindOf(data_t(raw)), "unknown");
}

// --- Text for people -----------------------------------------------------------------------------

TEST(ToText, RendersSingleValues) {
  EXPECT_EQ(toText(data_t()), "(null)");
  EXPECT_EQ(toText(data_t(true)), "true");
  EXPECT_EQ(toText(data_t(false)), "false");
  EXPECT_EQ(toText(data_t(1e20)), "1e+20");
  EXPECT_EQ(toText(data_t(-5)), "-5");
  EXPECT_EQ(toText(data_t("text")), "text");
  EXPECT_EQ(toText(data_t::borrow("text")), "text");
  EXPECT_EQ(toText(customValue()), "(custom)");
}

TEST(ToText, RendersADecimalAsItsNumber) {
  // 15 times 10 to the -1, as decimal64 in binary integer encoding.
  EXPECT_EQ(toText(data_t(decimal_t{0x31A000000000000F})), "1.5");
}

TEST(ToText, RendersListsAndMapsWithTheirElements) {
  EXPECT_EQ(toText(data_t(list_t())), "[]");
  EXPECT_EQ(toText(data_t(map_t())), "{}");
  map_t map;
  map.insert({data_t("b"), data_t(2)}, 3);
  map.insert({data_t("a"), data_t()}, 2);
  list_t list;
  list.push_back(data_t(1));
  list.push_back(data_t(std::move(map)));
  list.push_back(data_t("text"));
  EXPECT_EQ(toText(data_t(std::move(list))), "[1, {a=(null), b=2}, text]");
}

TEST(ToText, RendersReadableBuffersAsTheirBytes) {
  EXPECT_EQ(toText(data_t(buffer_t())), "");
  EXPECT_EQ(toText(buffer("tab\t, feed\n, return\r")), "tab\t, feed\n, return\r");
  EXPECT_EQ(toText(buffer("\xC3\xA4 \xE2\x82\xAC \xF0\x9F\x98\x80")),
            "\xC3\xA4 \xE2\x82\xAC \xF0\x9F\x98\x80");
}

TEST(ToText, RendersOtherBuffersAsTheirLength) {
  EXPECT_EQ(toText(buffer("a\0b"sv)), "<3 bytes>");
  EXPECT_EQ(toText(buffer("\x1B[0m")), "<4 bytes>");
  EXPECT_EQ(toText(buffer("\x7F")), "<1 bytes>");
  EXPECT_EQ(toText(buffer("\xC2\x85")), "<2 bytes>");          // a control character above ASCII
  EXPECT_EQ(toText(buffer("\xC3")), "<1 bytes>");              // cut short
  EXPECT_EQ(toText(buffer("\xC3(")), "<2 bytes>");             // no continuation
  EXPECT_EQ(toText(buffer("\x80")), "<1 bytes>");              // a continuation alone
  EXPECT_EQ(toText(buffer("\xC0\x80")), "<2 bytes>");          // longer than need be
  EXPECT_EQ(toText(buffer("\xE0\x80\x80")), "<3 bytes>");      // longer than need be
  EXPECT_EQ(toText(buffer("\xED\xA0\x80")), "<3 bytes>");      // a surrogate
  EXPECT_EQ(toText(buffer("\xF4\x90\x80\x80")), "<4 bytes>");  // above the last character
}

TEST(ToText, AgreesWithTheHostsRendering) {
  map_t map;
  map.insert(data_t("bytes"), buffer("\x80"));
  map.insert(data_t("text"), data_t("a"));
  list_t list;
  list.push_back(data_t(std::move(map)));
  list.push_back(data_t(1.5));
  list.push_back(data_t());
  list.push_back(buffer("text"));
  const data_t value(std::move(list));
  char* const hosts = qor_data_to_string(value.raw());
  EXPECT_EQ(toText(value), hosts);
  qor_free_string(hosts);
}

TEST(BufferToString, RefusesALengthAboveThirtyTwoBits) {
  qor_underlying_buffer_t block{0x100000000};
  buffer_t bytes(&block);
  EXPECT_EQ(failureOf([&] { bufferToString(bytes); }), "Out of bounds");
  bytes.release();
}

TEST(ToText, NoticesAListThatChangesMeanwhile) {
  const IteratorChecksOn on;
  list_t list;
  list.push_back(data_t(decimal_t()));
  HostCalls calls;
  calls.onRender = [&list] { list.push_back(data_t(1)); };
  EXPECT_EQ(failureOf([&] { Data_tToString()(list); }), "Iterator invalidated by modifying list");
}

TEST(ToText, NoticesAMapThatChangesMeanwhile) {
  const IteratorChecksOn on;
  map_t map;
  map.insert(data_t(1), data_t(decimal_t()));
  HostCalls calls;
  calls.onRender = [&map] { map.insert(data_t(2), data_t(1)); };
  EXPECT_EQ(failureOf([&] { Data_tToString()(map); }), "Iterator invalidated by modifying map");
}

TEST(ToText, GoesOnOverAChangedListWhereTheChecksAreOff) {
  const IteratorChecksOff off;
  list_t list;
  list.push_back(data_t(decimal_t()));
  HostCalls calls;
  calls.onRender = [&list] { list.push_back(data_t(1)); };
  EXPECT_EQ(Data_tToString()(list).substr(1 + toText(data_t(decimal_t())).size()), ", 1]");
}

}  // namespace
}  // namespace connectivity
