#include "orrery/runtime/Escaping.hpp"

#include <string>
#include <string_view>

#include <gtest/gtest.h>

namespace runtime {
namespace {

using namespace std::string_view_literals;

TEST(Escaping, LeavesTextAsItIs) {
  EXPECT_EQ(escaped(""), "");
  EXPECT_EQ(escaped("plain \\n ~ text"), "plain \\n ~ text");
  EXPECT_EQ(escaped("caf\u00e9 \u20ac \U0001F600"), "caf\u00e9 \u20ac \U0001F600");
}

TEST(Escaping, NamesTheControlCharactersOfAscii) {
  EXPECT_EQ(escaped("\0a\x01\x1B[2J\x1F\x7F\n\r\t"sv), "\\x00a\\x01\\x1b[2J\\x1f\\x7f\\n\\r\\t");
}

TEST(Escaping, NamesThoseBehindAsciiAndNoOtherCharacterOfTheirBlock) {
  EXPECT_EQ(escaped("\u0080\u0085\u009B31m\u009F"), "\\u0080\\u0085\\u009b31m\\u009f");
  EXPECT_EQ(escaped("\u00A0\u00BF\u00C0\u00DB\u209B"), "\u00A0\u00BF\u00C0\u00DB\u209B");
}

TEST(Escaping, NamesBytesThatAreNoText) {
  EXPECT_EQ(escaped("a\x9B"
                    "31m\xC2"),
            "a\\x9b31m\\xc2");
  EXPECT_EQ(escaped("\xC0\x80\xED\xA0\x80"), "\\xc0\\x80\\xed\\xa0\\x80");
  EXPECT_EQ(escaped("\xF0\x9F\x98"), "\\xf0\\x9f\\x98");
}

TEST(Escaping, KeepsWhatItIsToldTo) {
  EXPECT_EQ(escaped("a\tb\nc\rd\x1B\u0085", "\n\t"), "a\tb\nc\\rd\\x1b\\u0085");
}

}  // namespace
}  // namespace runtime
