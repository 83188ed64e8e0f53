#include "orrery/runtime/Utf8.hpp"

#include <gtest/gtest.h>

namespace runtime {
namespace {

TEST(Utf8, AcceptsTheFirstAndLastCharacterOfEveryLength) {
  EXPECT_TRUE(isUtf8(""));
  EXPECT_TRUE(isUtf8("plain ASCII, longer than a word"));
  EXPECT_TRUE(isUtf8("\x7F"));
  EXPECT_TRUE(isUtf8("\xC2\x80"));
  EXPECT_TRUE(isUtf8("\xDF\xBF"));
  EXPECT_TRUE(isUtf8("\xE0\xA0\x80"));
  EXPECT_TRUE(isUtf8("\xED\x9F\xBF"));
  EXPECT_TRUE(isUtf8("\xEF\xBF\xBF"));
  EXPECT_TRUE(isUtf8("\xF0\x90\x80\x80"));
  EXPECT_TRUE(isUtf8("\xF4\x8F\xBF\xBF"));
}

TEST(Utf8, RefusesOverlongForms) {
  EXPECT_FALSE(isUtf8("\xC0\x80"));
  EXPECT_FALSE(isUtf8("\xC1\xBF"));
  EXPECT_FALSE(isUtf8("\xE0\x9F\xBF"));
  EXPECT_FALSE(isUtf8("\xF0\x8F\xBF\xBF"));
}

TEST(Utf8, RefusesSurrogatesAndWhatLiesBeyondUnicode) {
  EXPECT_FALSE(isUtf8("\xED\xA0\x80"));
  EXPECT_FALSE(isUtf8("\xF4\x90\x80\x80"));
  EXPECT_FALSE(isUtf8("\xF5\x80\x80\x80"));
  EXPECT_FALSE(isUtf8("\xFF"));
}

TEST(Utf8, RefusesSequencesThatEndEarly) {
  EXPECT_FALSE(isUtf8("12345678\xC3"));
  EXPECT_FALSE(isUtf8("\xE2\x82"));
  EXPECT_FALSE(isUtf8("\xE2\x82x"));
  EXPECT_FALSE(isUtf8("\xF0\x9F\x98"));
  EXPECT_FALSE(isUtf8("\x80"));
}

TEST(Utf8, TellsTheLengthOfTheSequenceAtTheFront) {
  EXPECT_EQ(utf8SequenceLength("a\xC3\xA4"), 1U);
  EXPECT_EQ(utf8SequenceLength("\xC3\xA4z"), 2U);
  EXPECT_EQ(utf8SequenceLength("\xE2\x82\xAC"), 3U);
  EXPECT_EQ(utf8SequenceLength("\xF0\x9F\x98\x80"), 4U);
  EXPECT_EQ(utf8SequenceLength("\xC3z"), 0U);
}

TEST(Utf8, WritesOutEveryControlCharacterAndNothingElse) {
  EXPECT_EQ(withoutControls(""), "");
  EXPECT_EQ(withoutControls("one\r\ntwo\t\x1B[2J\x01\x7F"), "one\\r\\ntwo\\t\\x1b[2J\\x01\\x7f");
  EXPECT_EQ(withoutControls("\xC2\x80 \xC2\x9B \xC2\x9F"), "\\u0080 \\u009b \\u009f");
  // A no-break space, letters whose second byte is one of C1's, and what is no UTF-8.
  for (const char* text : {"\xC2\xA0", "\xC3\x9B", "\xE2\x82\x9B", "\x9B", "\xC2", "a\\n"}) {
    EXPECT_EQ(withoutControls(text), text);
  }
}

}  // namespace
}  // namespace runtime
