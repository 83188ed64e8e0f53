#include <cmath>
#include <limits>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "connectivity/value_access.hpp"
#include "host/messages/JsonReader.hpp"
#include "host/messages/JsonWriter.hpp"

namespace host {
namespace {

using connectivity::data_t;
using connectivity::get;
using connectivity::list_t;
using connectivity::map_t;

std::string rewritten(std::string_view text) {
  return toJson(JsonReader(JsonReader::Forms::Extended).read(text));
}

TEST(JsonWriter, WritesEveryKindAsItWasRead) {
  for (const char* text : {"null",
                           "true",
                           "false",
                           "0",
                           "-9223372036854775808",
                           "9223372036854775807",
                           "1.5",
                           "-0.0",
                           "1e+300",
                           "5e-324",
                           "\"text\"",
                           "[]",
                           "[1,[2,[]]]",
                           "{}",
                           R"({"a":1,"b":{"c":null}})",
                           R"({"$numberDouble":"NaN"})",
                           R"({"$numberDouble":"Infinity"})",
                           R"({"$numberDouble":"-Infinity"})",
                           R"({"$numberDecimal":"1.50"})",
                           R"({"$binary":{"base64":"AP8=","subType":"00"}})",
                           R"({"$binary":{"base64":"","subType":"00"}})",
                           R"({"$map":[[1,2]]})"}) {
    EXPECT_EQ(rewritten(text), text);
  }
}

TEST(JsonWriter, WritesObjectKeysInAscendingOrderOfTheirBytes) {
  EXPECT_EQ(rewritten(R"({"b":1,"a":2,"B":3,"":4,"ä":5,"aa":6})"),
            R"({"":4,"B":3,"a":2,"aa":6,"b":1,"ä":5})");
}

TEST(JsonWriter, OrdersLongKeysThatBeginAlike) {
  const std::string same(20, 'x');
  const auto object = [&](const std::vector<std::string>& ends) {
    std::string text = "{";
    for (const std::string& end : ends) {
      text += (text.size() == 1 ? "\"" : ",\"") + same + end + "\":0";
    }
    return text + "}";
  };
  EXPECT_EQ(rewritten(object({"12345678b", "é", "2", "12345678", "", "1", "12345678a", "Z"})),
            object({"", "1", "12345678", "12345678a", "12345678b", "2", "Z", "é"}));
  EXPECT_EQ(rewritten(object({"b1", "a29"})), object({"a29", "b1"}));
}

TEST(JsonWriter, WritesADoubleSoThatItReadsBackAsADouble) {
  EXPECT_EQ(toJson(data_t(3.0)), "3.0");
  EXPECT_EQ(toJson(data_t(-0.0)), "-0.0");
  EXPECT_EQ(toJson(data_t(1e15)), "1e+15");
  EXPECT_EQ(toJson(data_t(0.1)), "0.1");
  for (const double value : {1.0 / 3, 123456789.0, 1e22, std::numeric_limits<double>::max(),
                             std::numeric_limits<double>::denorm_min()}) {
    const data_t back = JsonReader(JsonReader::Forms::Extended).read(toJson(data_t(value)));
    EXPECT_EQ(get<double>(back), value);
  }
}

TEST(JsonWriter, EscapesWhatAStringMayNotHold) {
  EXPECT_EQ(toJson(data_t("a\"b\\c/d\b\f\n\r\t\x01\x1F\x7F")),
            R"("a\"b\\c/d\b\f\n\r\t\u0001\u001f\u007f")");
}

// A terminal takes some of them for commands.
TEST(JsonWriter, EscapesTheControlCharactersBeyondAscii) {
  EXPECT_EQ(toJson(data_t("\u0080a\u009B2J\u009F\u00A0")), "\"\\u0080a\\u009b2J\\u009f\u00A0\"");
  EXPECT_EQ(rewritten("\"\\u009b\""), "\"\\u009b\"");
}

TEST(JsonWriter, WritesCharactersBeyondAsciiAsTheyAre) {
  EXPECT_EQ(toJson(data_t("ä€😀")), "\"ä€😀\"");
}

TEST(JsonWriter, ReplacesBytesThatAreNotUtf8) {
  EXPECT_EQ(toJson(data_t("a\xFF"
                          "b\xC3")),
            "\"a\xEF\xBF\xBD"
            "b\xEF\xBF\xBD\"");
}

TEST(JsonWriter, WritesABorrowedStringAsAString) {
  EXPECT_EQ(toJson(data_t::borrow("x")), "\"x\"");
}

TEST(JsonWriter, WritesAMapWithOnlyTextKeysAsAnObject) {
  EXPECT_EQ(rewritten(R"({"$map": [["b", 1], ["a", 2]]})"), R"({"a":2,"b":1})");
}

TEST(JsonWriter, OrdersTheKeysOfOtherMapsByKindThenValue) {
  EXPECT_EQ(rewritten(R"({"$map": [["b", 1], [10, 2], [9, 3], [null, 4], [2.5, 5], ["a", 6],
                          [true, 7], [-1, 8]]})"),
            R"({"$map":[[null,4],[true,7],[2.5,5],[-1,8],[9,3],[10,2],["a",6],["b",1]]})");
}

TEST(JsonWriter, WritesACustomValueAsItsText) {
  static constexpr qor_custom_operations_t operations{nullptr, [](void*) {}, nullptr};
  const data_t value(connectivity::custom_t(qor_allocate_custom(nullptr, &operations)));
  EXPECT_EQ(toJson(value), "\"(custom)\"");
}

TEST(JsonWriter, WritesNestedMapsInOrderWithOneWriter) {
  std::string out;
  JsonWriter writer(out);
  const data_t value = JsonReader(JsonReader::Forms::Extended)
                           .read(R"({"z":{"y":1,"x":{"b":1,"a":2}},"c":{"e":1,"d":2}})");
  writer.write(value);
  writer.write(value);
  const std::string once = R"({"c":{"d":2,"e":1},"z":{"x":{"a":2,"b":1},"y":1}})";
  EXPECT_EQ(out, once + once);
}

}  // namespace
}  // namespace host
