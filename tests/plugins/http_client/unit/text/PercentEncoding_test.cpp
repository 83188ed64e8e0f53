#include "plugins/http_client/text/PercentEncoding.hpp"

#include <optional>
#include <string>
#include <string_view>

#include <gtest/gtest.h>

namespace connectivity::plugins {
namespace {

// What may stand in a path as it is; the percent sign is a matter of its own.
const std::string plainInPath =
    "0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz-._~!$&'()*+,;=:@/";

std::string withTwoDigits(int byte) {
  const std::string digits = "0123456789ABCDEF";
  return {'%', digits.at(static_cast<std::size_t>(byte / 16)),
          digits.at(static_cast<std::size_t>(byte % 16))};
}

using Encode = std::optional<std::string>(std::string_view);

// Every byte but the percent sign stays, or becomes its two digits.
void expectPlain(Encode encode, const std::string& plain) {
  for (int byte = 0; byte < 256; ++byte) {
    if (byte == '%') continue;
    const std::string text(1, static_cast<char>(byte));
    const bool stays = plain.find(text) != std::string::npos;
    EXPECT_EQ(encode(text), stays ? text : withTwoDigits(byte)) << byte;
  }
}

TEST(PercentEncoding, PathKeepsWhatMayStandThereAndEncodesEveryOtherByte) {
  expectPlain(encodedPath, plainInPath);
}

TEST(PercentEncoding, QueryMayHoldAQuestionMarkToo) {
  expectPlain(encodedQuery, plainInPath + "?");
}

TEST(PercentEncoding, EncodesByteByByteInPlace) {
  EXPECT_EQ(encodedPath("/a b/caf\xC3\xA9?#[]"), "/a%20b/caf%C3%A9%3F%23%5B%5D");
  EXPECT_EQ(encodedQuery("a=b c&d=?#"), "a=b%20c&d=?%23");
  EXPECT_EQ(encodedPath(""), "");
  EXPECT_EQ(encodedQuery(""), "");
}

TEST(PercentEncoding, WhatCameEncodedStaysAsItWas) {
  for (const std::string text : {"%2F", "/a%2fb%2F", "%00", "%7e%7E", "%aF%Fa", "%25%32%46"}) {
    EXPECT_EQ(encodedPath(text), text);
    EXPECT_EQ(encodedQuery(text), text);
  }
}

TEST(PercentEncoding, PercentSignWithoutTwoDigitsIsRefused) {
  for (const char* text : {"%", "%2", "a%", "a%4", "%%", "%%41", "%g1", "%1g", "% 1", "%1 ", "%-1",
                           "%4%41", "/%4/", "%41%zz"}) {
    EXPECT_EQ(encodedPath(text), std::nullopt) << text;
    EXPECT_EQ(encodedQuery(text), std::nullopt) << text;
  }
}

// What lies behind the end of the view is no part of the escape.
TEST(PercentEncoding, EscapeEndsWithTheText) {
  EXPECT_EQ(encodedPath(std::string_view("%41", 2)), std::nullopt);
  EXPECT_EQ(encodedPath(std::string_view("a%4142", 4)), "a%41");
}

void expectSplit(std::string_view text, std::string_view path,
                 std::optional<std::string_view> query) {
  const PathAndQuery split = splitQuery(text);
  EXPECT_EQ(split.path, path) << text;
  EXPECT_EQ(split.query, query) << text;
}

TEST(SplitQuery, SplitsAtTheFirstQuestionMark) {
  expectSplit("/a?b=c", "/a", "b=c");
  expectSplit("/a?b?c", "/a", "b?c");
  expectSplit("?b", "", "b");
}

TEST(SplitQuery, AnEmptyQueryIsNotNoQuery) {
  expectSplit("/a?", "/a", "");
  expectSplit("/a", "/a", std::nullopt);
  expectSplit("", "", std::nullopt);
}

TEST(SplitQuery, LosesTheFragment) {
  expectSplit("/a?b#c", "/a", "b");
  expectSplit("/a#b?c", "/a", std::nullopt);
  expectSplit("/a?b#c#d", "/a", "b");
  expectSplit("#a", "", std::nullopt);
  expectSplit("/a?#b", "/a", "");
}

TEST(SplitQuery, LeavesEscapesAlone) { expectSplit("/a%3Fb%23?c%3F", "/a%3Fb%23", "c%3F"); }

}  // namespace
}  // namespace connectivity::plugins
