#include <cmath>
#include <limits>
#include <string>

#include <gtest/gtest.h>

#include "connectivity/value_access.hpp"
#include "host/messages/JsonReader.hpp"
#include "host/messages/JsonWriter.hpp"
#include "orrery/runtime/Decimal.hpp"

namespace host {
namespace {

using connectivity::buffer_t;
using connectivity::data_t;
using connectivity::decimal_t;
using connectivity::get;
using connectivity::list_t;
using connectivity::map_t;

data_t read(std::string_view text, JsonReader::Forms forms = JsonReader::Forms::Extended) {
  return JsonReader(forms).read(text);
}

bool boolIn(std::string_view text) {
  const data_t value = read(text);
  return get<bool>(value);
}

long long integerIn(std::string_view text) {
  const data_t value = read(text);
  return get<long long>(value);
}

double doubleIn(std::string_view text) {
  const data_t value = read(text);
  return get<double>(value);
}

bool isEmptyList(const data_t& value) { return get<list_t>(value).empty(); }
bool isEmptyMap(const data_t& value) { return get<map_t>(value).empty(); }

// The text of the error, or "" where the text is taken.
std::string errorOf(const std::string& text) {
  try {
    read(text);
    return {};
  } catch (const JsonError& error) {
    return error.what();
  }
}

bool isRefused(const std::string& text) { return !errorOf(text).empty(); }

TEST(JsonReader, ReadsNullAsAnEmptyValue) { EXPECT_TRUE(read("null").empty()); }

TEST(JsonReader, ReadsBooleans) {
  EXPECT_TRUE(boolIn("true"));
  EXPECT_FALSE(boolIn("false"));
}

TEST(JsonReader, ReadsAWholeNumberWithin64BitsAsInteger) {
  EXPECT_EQ(integerIn("0"), 0);
  EXPECT_EQ(integerIn("-1"), -1);
  EXPECT_EQ(integerIn("9223372036854775807"), std::numeric_limits<long long>::max());
  EXPECT_EQ(integerIn("-9223372036854775808"), std::numeric_limits<long long>::min());
  EXPECT_EQ(integerIn("-0"), 0);
}

TEST(JsonReader, ReadsAWholeNumberBeyond64BitsAsDouble) {
  EXPECT_EQ(doubleIn("9223372036854775808"), 9223372036854775808.0);
  EXPECT_EQ(doubleIn("18446744073709551615"), 18446744073709551615.0);
  EXPECT_EQ(doubleIn("-9223372036854775809"), -9223372036854775809.0);
  EXPECT_EQ(doubleIn("123456789012345678901234567890"), 123456789012345678901234567890.0);
}

TEST(JsonReader, ReadsANumberWithFractionOrExponentAsDouble) {
  EXPECT_EQ(doubleIn("1.0"), 1.0);
  EXPECT_EQ(doubleIn("1e3"), 1000.0);
  EXPECT_EQ(doubleIn("-2.5E-3"), -0.0025);
  EXPECT_TRUE(std::signbit(doubleIn("-0.0")));
  EXPECT_EQ(doubleIn("1e-400"), 0.0);
}

TEST(JsonReader, ReadsTheNearestDouble) {
  EXPECT_EQ(doubleIn("2.2250738585072011e-308"), 2.2250738585072011e-308);
  EXPECT_EQ(doubleIn("0.1"), 0.1);
  EXPECT_EQ(doubleIn("1797693134862315700000e287"), 1797693134862315700000e287);
  EXPECT_EQ(doubleIn("9007199254740993.0"), 9007199254740992.0);
}

TEST(JsonReader, RefusesANumberTooLargeForADouble) {
  EXPECT_TRUE(isRefused("1e400"));
  EXPECT_TRUE(isRefused("-1e400"));
  EXPECT_TRUE(isRefused("1" + std::string(400, '0')));
}

TEST(JsonReader, ReadsStringsWithEscapes) {
  EXPECT_STREQ(read(R"("a\"b\\c\/d\n\t")").text(), "a\"b\\c/d\n\t");
  EXPECT_STREQ(read(R"("\u00e4\u20ac\ud83d\ude00")").text(),
               "\xC3\xA4\xE2\x82\xAC\xF0\x9F\x98\x80");
  EXPECT_STREQ(read("\"\"").text(), "");
  const std::string longText(100000, 'x');
  EXPECT_EQ(read('"' + longText + '"').text(), longText);
}

TEST(JsonReader, RefusesTheCharacterZeroInStringsAndKeys) {
  EXPECT_EQ(errorOf(R"("a\u0000b")"), "a string holds \\u0000");
  EXPECT_EQ(errorOf(R"({"a\u0000b": 1})"), "a string holds \\u0000");
}

TEST(JsonReader, RefusesLoneSurrogatesAndBytesThatAreNotUtf8) {
  EXPECT_TRUE(isRefused(R"("\ud83d")"));
  EXPECT_TRUE(isRefused(R"("\ude00")"));
  EXPECT_TRUE(isRefused("\"\xFF\""));
  EXPECT_TRUE(isRefused("\"\xC0\x80\""));
}

TEST(JsonReader, ReadsArraysInOrder) {
  const data_t value = read(R"([1, "two", [3], {}])");
  const auto& list = get<list_t>(value);
  ASSERT_EQ(list.size(), 4U);
  EXPECT_EQ(get<long long>(list[0]), 1);
  EXPECT_STREQ(list[1].text(), "two");
  EXPECT_EQ(get<list_t>(list[2]).size(), 1U);
  EXPECT_TRUE(get<map_t>(list[3]).empty());
  EXPECT_TRUE(isEmptyList(read("[]")));
}

TEST(JsonReader, ReadsObjectsAsMaps) {
  const data_t value = read(R"({"a": 1, "b": {"c": [true]}})");
  const auto& map = get<map_t>(value);
  EXPECT_EQ(map.size(), 2U);
  EXPECT_EQ(get<long long>(*map.findText("a")), 1);
  const auto& inner = get<map_t>(*map.findText("b"));
  EXPECT_TRUE(get<bool>(get<list_t>(*inner.findText("c"))[0]));
}

TEST(JsonReader, RefusesARepeatedKeyAtAnyLevel) {
  EXPECT_EQ(errorOf(R"({"a": 1, "a": 1})"), "the key \"a\" is repeated");
  EXPECT_EQ(errorOf(R"([{"x": {"b": 1, "c": 2, "\u0062": 3}}])"), "the key \"b\" is repeated");
}

TEST(JsonReader, RefusesWhatIsNotOneJsonValue) {
  for (const char* text : {"", " ", "{", "[1,]", "{\"a\":}", "{'a':1}", "nul", "1 2", "01", "+1",
                           ".5", "1.", "NaN", "Infinity", "// x\n1", "\"a\nb\"", "[1}",
                           "\xEF\xBB\xBF"
                           "1"}) {
    EXPECT_TRUE(isRefused(text)) << text;
  }
}

TEST(JsonReader, TellsTheByteWhereJsonEnds) {
  EXPECT_EQ(errorOf("[1, x]").substr(0, 26), "not valid JSON at byte 5: ");
  EXPECT_EQ(errorOf("1 2").substr(0, 26), "not valid JSON at byte 3: ");
}

TEST(JsonReader, ReadsAThousandLevelsAndRefusesMore) {
  const auto nested = [](std::size_t levels) {
    return std::string(levels, '[') + std::string(levels, ']');
  };
  EXPECT_FALSE(isRefused(nested(1000)));
  EXPECT_TRUE(isRefused(nested(1001)));
  EXPECT_TRUE(isRefused(nested(1000000)));
}

TEST(JsonReader, ReadsNumberDouble) {
  EXPECT_TRUE(std::isnan(doubleIn(R"({"$numberDouble": "NaN"})")));
  EXPECT_EQ(doubleIn(R"({"$numberDouble": "Infinity"})"), HUGE_VAL);
  EXPECT_EQ(doubleIn(R"({"$numberDouble": "-Infinity"})"), -HUGE_VAL);
  EXPECT_EQ(doubleIn(R"({"$numberDouble": "-1.5"})"), -1.5);
}

TEST(JsonReader, RefusesOtherNumberDoubles) {
  for (const char* inner : {"1.5", "null", "\"\"", "\"nan\"", "\"inf\"", "\"1.5x\"",
                            "\"+Infinity\"", "\" 1\"", "\"1e999\"", "[]"}) {
    EXPECT_TRUE(isRefused(std::string(R"({"$numberDouble": )") + inner + "}")) << inner;
  }
}

TEST(JsonReader, ReadsNumberDecimalWithItsQuantum) {
  const data_t value = read(R"({"$numberDecimal": "1.50"})");
  EXPECT_EQ(runtime::decimalToText(get<decimal_t>(value).bits), "1.50");
}

TEST(JsonReader, RefusesADecimalOfMoreThan16DigitsAndOtherText) {
  EXPECT_FALSE(isRefused(R"({"$numberDecimal": "1234567890.123456"})"));
  EXPECT_EQ(errorOf(R"({"$numberDecimal": "1234567890.1234567"})"),
            "$numberDecimal must be a decimal number of at most 16 digits");
  for (const char* inner : {"1.5", "\"\"", "\"x\"", "\"1,5\"", "null", "{}"}) {
    EXPECT_TRUE(isRefused(std::string(R"({"$numberDecimal": )") + inner + "}")) << inner;
  }
}

TEST(JsonReader, ReadsBinary) {
  const data_t value = read(R"({"$binary": {"base64": "AP8=", "subType": "00"}})");
  EXPECT_EQ(get<buffer_t>(value).view(), std::string_view("\0\xFF", 2));
  const data_t empty = read(R"({"$binary": {"subType": "00", "base64": ""}})");
  EXPECT_TRUE(get<buffer_t>(empty).empty());
}

TEST(JsonReader, RefusesOtherBinaries) {
  for (const char* inner :
       {"\"AP8=\"", "null", "{}", R"({"base64": "AP8="})", R"({"subType": "00"})",
        R"({"base64": "AP8", "subType": "00"})", R"({"base64": "AP8=", "subType": "01"})",
        R"({"base64": "AP8=", "subType": 0})", R"({"base64": 1, "subType": "00"})",
        R"({"base64": "AP8=", "subType": "00", "more": 1})",
        R"({"base64": "A*8=", "subType": "00"})"}) {
    EXPECT_TRUE(isRefused(std::string(R"({"$binary": )") + inner + "}")) << inner;
  }
}

TEST(JsonReader, ReadsAMapWithKeysOfOtherKinds) {
  const data_t value = read(R"({"$map": [[1, "one"], [null, 2], [[3], true], ["x", 4]]})");
  const auto& map = get<map_t>(value);
  EXPECT_EQ(map.size(), 4U);
  EXPECT_STREQ(map.find(data_t(1))->text(), "one");
  EXPECT_EQ(get<long long>(*map.findText("x")), 4);
  EXPECT_TRUE(isEmptyMap(read(R"({"$map": []})")));
}

TEST(JsonReader, RefusesOtherMaps) {
  for (const char* inner : {"{}", "null", "[1]", "[[]]", "[[1]]", "[[1, 2, 3]]", "[{}]",
                            "[[1, 2], [1, 3]]", "[[\"a\", 1], [\"a\", 1]]"}) {
    EXPECT_TRUE(isRefused(std::string(R"({"$map": )") + inner + "}")) << inner;
  }
}

TEST(JsonReader, RefusesAFormWithAnotherKeyBesideIt) {
  EXPECT_EQ(errorOf(R"({"$numberDouble": "NaN", "x": 1})"),
            "$numberDouble must be the only key of its object");
  EXPECT_TRUE(isRefused(R"({"x": 1, "$numberDecimal": "1"})"));
  EXPECT_TRUE(isRefused(R"({"x": 1, "$binary": {"base64": "", "subType": "00"}})"));
  EXPECT_TRUE(isRefused(R"({"$map": [], "x": 1})"));
}

std::string pairs(int texts, int numbers) {
  std::string text;
  const auto add = [&text](const std::string& key) {
    text += (text.empty() ? "[" : ",[") + key + ",0]";
  };
  for (int i = 0; i < numbers; ++i) add(std::to_string(i));
  for (int i = 0; i < texts; ++i) add("\"" + std::to_string(i) + "\"");
  return R"({"$map": [)" + text + "]}";
}

// Their hashes are no secret. Texts have one.
TEST(JsonReader, TakesTenThousandKeysThatAreNoTextsInAMap) {
  const data_t value = read(pairs(20'000, 10'000));
  EXPECT_EQ(get<map_t>(value).size(), 30'000U);
  const auto error = "a $map holds more than 10000 keys that are no texts";
  EXPECT_EQ(errorOf(pairs(0, 10'001)), error);
  EXPECT_EQ(errorOf("[" + pairs(0, 10'000) + "," + pairs(0, 10'000) + "]"), "");
}

TEST(JsonReader, KeepsOtherKeysThatBeginWithADollar) {
  const data_t value = read(R"({"$set": 1, "$numberLong": "5", "$": 2})");
  EXPECT_EQ(get<map_t>(value).size(), 3U);
}

TEST(JsonReader, ReadsFormsInsideFormsAndContainers) {
  const data_t value = read(R"([{"$map": [[{"$numberDecimal": "1"}, {"$numberDouble": "NaN"}]]}])");
  const auto& map = get<map_t>(get<list_t>(value)[0]);
  ASSERT_EQ(map.size(), 1U);
  EXPECT_EQ(map.begin().key().tag(), static_cast<std::uint32_t>(QOR_DECIMAL));
}

TEST(JsonReader, PlainFormsTakeEveryObjectAsItIs) {
  const data_t value = read(R"({"$binary": 5})", JsonReader::Forms::Plain);
  EXPECT_EQ(get<long long>(*get<map_t>(value).findText("$binary")), 5);
  const data_t mixed = read(R"({"$numberDouble": "NaN", "x": 1})", JsonReader::Forms::Plain);
  EXPECT_EQ(get<map_t>(mixed).size(), 2U);
}

TEST(JsonReader, ReadsOnAfterAnError) {
  JsonReader reader(JsonReader::Forms::Extended);
  EXPECT_THROW(reader.read(R"({"a": [1, 2, "b)"), JsonError);
  EXPECT_THROW(reader.read(R"({"a": 1, "a": 2})"), JsonError);
  EXPECT_EQ(toJson(reader.read(R"({"c": [3]})")), R"({"c":[3]})");
}

}  // namespace
}  // namespace host
