// What a transport's configuration becomes that a chain file holds.
#include <string>
#include <utility>

#include <gtest/gtest.h>

#include "host/chain/ChainFile.hpp"
#include "host/chain/ChainFileError.hpp"
#include "host/messages/JsonWriter.hpp"

namespace host {
namespace {

using connectivity::data_t;

// The configuration stands in line 5, from column 13 on.
const std::string beforeConfig =
    "chains:\n"
    "  - id: orders\n"
    "    name: shop\n"
    "    transport: HTTPClient\n"
    "    config: ";

std::string configOf(const std::string& yaml) {
  ChainFile file = parseChainFile(beforeConfig + yaml + "\n", "x.yaml");
  return toJson(data_t(std::move(file.chains.front().config)));
}

std::string errorOf(const std::string& yaml) {
  try {
    parseChainFile(beforeConfig + yaml + "\n", "x.yaml");
    return {};
  } catch (const ChainFileError& error) {
    return error.what();
  }
}

TEST(ChainFileConfig, ReadsScalarsWhoseTextComesBackByTheCoreSchema) {
  EXPECT_EQ(configOf("{a: text, b: 5, c: -7, d: 1.5, e: true, f: false, g: null, h: ~, i: }"),
            R"({"a":"text","b":5,"c":-7,"d":1.5,"e":true,"f":false,"g":null,"h":null,"i":null})");
  EXPECT_EQ(configOf("{a: 0, b: 1.0, c: -0.25, d: 1e+22, e: 9223372036854775807}"),
            R"({"a":0,"b":1.0,"c":-0.25,"d":1e+22,"e":9223372036854775807})");
}

// Nothing of a password, a version or a code is lost.
TEST(ChainFileConfig, KeepsANumberThatWouldNotComeBackAsItIsWritten) {
  for (const char* text : {"1.50",
                           "0x1F",
                           "0o17",
                           "1e5",
                           "1E5",
                           "+49",
                           "12345678901234567890",
                           "-9223372036854775809",
                           "007",
                           "-0123",
                           "-0",
                           "00",
                           ".5",
                           "1.",
                           "+1.5",
                           "0.10",
                           "0.1000000000000000055511",
                           "1e999",
                           "1e3",
                           "12e0"}) {
    EXPECT_EQ(configOf("{a: " + std::string(text) + "}"), R"({"a":")" + std::string(text) + "\"}");
  }
}

TEST(ChainFileConfig, KeepsWordsAndDatesAsTheyAreWritten) {
  for (const char* text :
       {"True",     "TRUE",  "False", "FALSE", "yes",  "Yes",  "no",         "on",
        "off",      "y",     ".inf",  "-.Inf", ".nan", ".NaN", "2026-01-31", "2026-01-31T12:00:00Z",
        "12:30:45", "1.2.3", "12ab",  "."}) {
    EXPECT_EQ(configOf("{a: " + std::string(text) + "}"), R"({"a":")" + std::string(text) + "\"}");
  }
}

TEST(ChainFileConfig, KeepsWhatIsQuotedAsText) {
  EXPECT_EQ(configOf("{a: \"5\", b: 'true', c: '', d: \"~\", e: 'null'}"),
            R"({"a":"5","b":"true","c":"","d":"~","e":"null"})");
}

TEST(ChainFileConfig, FollowsTags) {
  EXPECT_EQ(
      configOf("{a: !!str 5, b: !!int \"7\", c: !!float 2, d: !!bool \"true\", e: !!null \"\"}"),
      R"({"a":"5","b":7,"c":2.0,"d":true,"e":null})");
  EXPECT_EQ(
      configOf("{a: !!int 0x1F, b: !!float 1.50, c: !!bool True, d: !!float .inf, e: !!str ~}"),
      R"({"a":31,"b":1.5,"c":true,"d":{"$numberDouble":"Infinity"},"e":"~"})");
  EXPECT_EQ(configOf("{a: !!int five, b: !!float many, c: !!bool yes}"),
            R"({"a":"five","b":"many","c":"yes"})");
}

TEST(ChainFileConfig, ReadsListsMapsAndAliases) {
  EXPECT_EQ(configOf("{a: [1, [2]], b: &x {c: d}, e: *x, 5: six}"),
            R"({"5":"six","a":[1,[2]],"b":{"c":"d"},"e":{"c":"d"}})");
}

TEST(ChainFileConfig, RefusesANulInATextAndInAKey) {
  EXPECT_EQ(errorOf(R"({a: "x\0y"})"), "x.yaml:5:17: chains[0].config.a: a text holds U+0000");
  EXPECT_EQ(errorOf(R"({"x\0y": 1})"), "x.yaml:5:14: chains[0].config: a text holds U+0000");
}

TEST(ChainFileConfig, RefusesAnAliasThatLeadsBackToItself) {
  EXPECT_NE(errorOf("{a: &x [*x]}").find("more than 200 levels"), std::string::npos);
  EXPECT_NE(errorOf("{a: &x [*x, *x, *x]}").find("more than 200 levels"), std::string::npos);
}

// `aliases` times a list of 999 scalars: 1,000 nodes.
std::string thousands(int aliases) {
  std::string text = "{a: &x [0";
  for (int i = 1; i < 999; ++i) text += ",0";
  text += "], b: [";
  for (int i = 0; i < aliases; ++i) text += i == 0 ? "*x" : ",*x";
  return text;
}

TEST(ChainFileConfig, TakesAliasesForAHundredThousandValues) {
  EXPECT_EQ(errorOf(thousands(100) + "]}"), "");
  const std::string tooMany = thousands(100) + ",*x]}";
  const std::size_t column = 13 + tooMany.rfind("*x");
  EXPECT_EQ(errorOf(tooMany), "x.yaml:5:" + std::to_string(column) +
                                  ": the aliases stand for more than 100000 values");
  // What stands in the file itself is not counted.
  EXPECT_EQ(errorOf(thousands(100) + ",0,0,0]}"), "");
}

TEST(ChainFileConfig, RefusesAliasesOfAliasesThatGrowWithoutEnd) {
  std::string text = "{a0: &a0 [0,0,0,0,0,0,0,0,0,0]";
  for (int i = 1; i < 100; ++i) {
    const std::string inner = "*a" + std::to_string(i - 1);
    text +=
        ", a" + std::to_string(i) + ": &a" + std::to_string(i) + " [" + inner + "," + inner + "]";
  }
  EXPECT_NE(errorOf(text + "}").find("the aliases stand for more than 100000 values"),
            std::string::npos);
}

TEST(ChainFileConfig, MayBeEmpty) { EXPECT_EQ(configOf(""), "{}"); }

}  // namespace
}  // namespace host
