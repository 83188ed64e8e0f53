#include "plugins/http_client/text/Ascii.hpp"

#include <string>
#include <string_view>

#include <gtest/gtest.h>

namespace connectivity::plugins {
namespace {

std::string everyByte() {
  std::string all;
  for (int byte = 0; byte < 256; ++byte) all.push_back(static_cast<char>(byte));
  return all;
}

// Those of all bytes that a predicate picks.
template <typename Predicate>
std::string picked(Predicate predicate) {
  std::string result;
  for (const char c : everyByte()) {
    if (predicate(c)) result.push_back(c);
  }
  return result;
}

TEST(Ascii, LowerChangesCapitalLettersAndNothingElse) {
  EXPECT_EQ(picked([](char c) { return lower(c) != c; }), "ABCDEFGHIJKLMNOPQRSTUVWXYZ");
  EXPECT_EQ(lower('A'), 'a');
  EXPECT_EQ(lower('Z'), 'z');
}

TEST(Ascii, LowerCasedKeepsWhatIsNoCapitalLetter) {
  EXPECT_EQ(lowerCased("Content-TYPE"), "content-type");
  EXPECT_EQ(lowerCased(std::string_view("\xC9\0[", 3)), std::string("\xC9\0[", 3));
  EXPECT_EQ(lowerCased(""), "");
}

TEST(Ascii, CaseDoesNotCountInAComparison) {
  EXPECT_TRUE(equalsIgnoringCase("Keep-Alive", "kEEP-aLIVE"));
  EXPECT_TRUE(equalsIgnoringCase("", ""));
}

TEST(Ascii, LengthAndEveryOtherDifferenceCountInAComparison) {
  EXPECT_FALSE(equalsIgnoringCase("keep", "keep-alive"));
  EXPECT_FALSE(equalsIgnoringCase("keep-alive", "keep"));
  EXPECT_FALSE(equalsIgnoringCase("a@b", "a`b"));  // as far apart as a letter's two cases
  EXPECT_FALSE(equalsIgnoringCase("\xE9", "\xC9"));
}

TEST(Ascii, LettersAndDigitsAreAlphanumeric) {
  EXPECT_EQ(picked(isAlphanumeric),
            "0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz");
}

TEST(Ascii, HexDigitsOfBothCasesHaveTheirValues) {
  int expected = 0;
  for (const char c : std::string_view("0123456789abcdef")) EXPECT_EQ(hexDigit(c), expected++) << c;
  EXPECT_EQ(hexDigit('A'), 10);
  EXPECT_EQ(hexDigit('F'), 15);
}

TEST(Ascii, WhatIsNoHexDigitHasNoValue) {
  EXPECT_EQ(picked([](char c) { return hexDigit(c) >= 0; }), "0123456789ABCDEFabcdef");
  EXPECT_EQ(hexDigit('g'), -1);
}

TEST(Ascii, TrimmedLosesTheBlanksAndTabsAroundIt) {
  EXPECT_EQ(trimmed("\t a b \t"), "a b");
  EXPECT_EQ(trimmed("a"), "a");
  EXPECT_EQ(trimmed(" \t "), "");
  EXPECT_EQ(trimmed(""), "");
}

TEST(Ascii, TrimmedKeepsEveryOtherSpace) {
  EXPECT_EQ(trimmed("\r\n\v\f a"), "\r\n\v\f a");
  EXPECT_EQ(trimmed(std::string_view(" \0 ", 3)), std::string_view("\0", 1));
}

TEST(Ascii, PercentEncodingAppendsTwoCapitalDigits) {
  std::string text = "a";
  appendPercentEncoded(text, ' ');
  text += "b";
  EXPECT_EQ(text, "a%20b");
  appendPercentEncoded(text, '\xE9');
  appendPercentEncoded(text, '\x0F');
  appendPercentEncoded(text, 'c');
  EXPECT_EQ(text, "a%20b%E9%0F%63");
}

}  // namespace
}  // namespace connectivity::plugins
