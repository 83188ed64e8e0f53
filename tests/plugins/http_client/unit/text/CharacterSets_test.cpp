#include "plugins/http_client/text/CharacterSets.hpp"

#include <stdexcept>
#include <string>
#include <string_view>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/ScarceAddressSpace.hpp"

namespace connectivity::plugins {
namespace {

using testing::ThrowsMessage;

const std::string eAcute = "\xC3\xA9";  // U+00E9, in ISO-8859-1 the byte E9
const std::string euro = "\xE2\x82\xAC";

TEST(CharacterSets, ConvertsToIso88591AndBack) {
  EXPECT_EQ(convertToISO88591("caf" + eAcute), "caf\xE9");
  EXPECT_EQ(convertFromISO88591("caf\xE9"), "caf" + eAcute);
}

TEST(CharacterSets, LeavesAsciiAsItIs) {
  const std::string text = "X-Header: value\t~\x7F";
  EXPECT_EQ(convertToISO88591(text), text);
  EXPECT_EQ(convertFromISO88591(text), text);
  EXPECT_EQ(convertToISO88591(""), "");
}

TEST(CharacterSets, EveryIso88591ByteComesBack) {
  std::string all;
  for (int byte = 1; byte < 256; ++byte) all.push_back(static_cast<char>(byte));
  EXPECT_EQ(convertToISO88591(convertFromISO88591(all)), all);
}

TEST(CharacterSets, TextOfTwoByteCharactersFitsItsOwnLength) {
  std::string text;
  for (int i = 0; i < 1000; ++i) text += eAcute;
  EXPECT_EQ(convertToISO88591(text), std::string(1000, '\xE9'));
}

TEST(CharacterSets, TwoByteCharactersNeedTwoBytesMoreThanTheirNumber) {
  std::string text;
  for (unsigned int count = 1; count <= 50; ++count) {
    text += eAcute;
    EXPECT_EQ(convertBetweenCharsets(text, "UTF-8", "iso8859-1", count + 2),
              std::string(count, '\xE9'));
  }
}

TEST(CharacterSets, TheResultGrowsToFourTimesTheText) {
  EXPECT_EQ(convertFromISO88591(std::string(1000, '\xE9')).size(), 2000U);
  EXPECT_EQ(convertFromCharset("\x81\x30\x81\x30", "GB18030"), "\xC2\x80");
}

TEST(CharacterSets, ConvertsFromANamedCharacterSet) {
  EXPECT_EQ(convertFromCharset("\x80", "windows-1252"), euro);
  EXPECT_EQ(convertFromCharset("\xA4", "iso-8859-15"), euro);
}

TEST(CharacterSets, ReportsACharacterSetThatNobodyKnows) {
  EXPECT_THAT(
      [] { convertFromCharset("x", "no-such-set"); },
      ThrowsMessage<std::runtime_error>("Could not convert argument from no-such-set to UTF-8"));
}

TEST(CharacterSets, ReportsAResultBeyondTheCapacity) {
  const auto message =
      ThrowsMessage<std::runtime_error>("Could not convert argument from UTF-8 to iso8859-1");
  EXPECT_THAT([] { convertBetweenCharsets("abcd", "UTF-8", "iso8859-1", 3); }, message);
  EXPECT_THAT([] { convertBetweenCharsets("abcd", "UTF-8", "iso8859-1", 0); }, message);
}

// ICU only warns that the NUL has no room.
TEST(CharacterSets, ReportsAResultThatLeavesNoRoomForItsNul) {
  EXPECT_THROW(convertBetweenCharsets("abcd", "UTF-8", "iso8859-1", 4), std::runtime_error);
  EXPECT_EQ(convertBetweenCharsets("abcd", "UTF-8", "iso8859-1", 5), "abcd");
}

#ifdef ADDRESS_SPACE_CAN_BE_LIMITED

TEST(CharacterSets, ReportsThatThereIsNoMemoryForTheResult) {
  const test_support::ScarceAddressSpace scarce;
  EXPECT_THAT([] { convertBetweenCharsets("a", "UTF-8", "iso8859-1", 4'000'000'000U); },
              ThrowsMessage<std::runtime_error>("Failed to allocate memory"));
}

#endif

TEST(CharacterSets, SubstitutesWhatIso88591Lacks) {
  EXPECT_EQ(convertToISO88591("5 " + euro), "5 \x1A");
}

TEST(CharacterSets, TextsEndAtTheirFirstNul) {
  EXPECT_EQ(convertToISO88591(std::string("a\0b", 3)), "a");
  EXPECT_EQ(convertFromISO88591(std::string("\xE9\0b", 3)), eAcute);
}

TEST(HeaderText, GoesToTheWireInIso88591) {
  EXPECT_EQ(headerToWire("plain"), "plain");
  EXPECT_EQ(headerToWire("caf" + eAcute), "caf\xE9");
  EXPECT_EQ(headerFromWire("caf\xE9"), "caf" + eAcute);
}

TEST(HeaderText, IsRefusedWhereIso88591LacksACharacter) {
  EXPECT_THAT([] { headerToWire("5 " + euro, "http.headers.price"); },
              ThrowsMessage<std::runtime_error>(
                  "http.headers.price holds a character that ISO-8859-1 lacks"));
  EXPECT_FALSE(tryHeaderToWire(euro));
}

TEST(HeaderText, IsRefusedWhereItIsNotUtf8OrHoldsANul) {
  EXPECT_FALSE(tryHeaderToWire("caf\xE9"));
  EXPECT_FALSE(tryHeaderToWire(std::string("a\0b", 3)));
}

TEST(HeaderText, HoldsEveryCharacterOfIso88591) {
  std::string all;
  for (int byte = 1; byte < 256; ++byte) all.push_back(static_cast<char>(byte));
  EXPECT_EQ(tryHeaderToWire(convertFromISO88591(all)), all);
}

// In UTF-8, whatever the code point.
std::string utf8Of(unsigned codePoint) {
  const auto tail = [codePoint](unsigned shift) {
    return static_cast<char>(0x80U | ((codePoint >> shift) & 0x3FU));
  };
  if (codePoint < 0x800) return {static_cast<char>(0xC0U | (codePoint >> 6U)), tail(0)};
  if (codePoint < 0x10000) return {static_cast<char>(0xE0U | (codePoint >> 12U)), tail(6), tail(0)};
  return {static_cast<char>(0xF0U | (codePoint >> 18U)), tail(12), tail(6), tail(0)};
}

// Also those that ICU leaves out in silence.
TEST(HeaderText, IsRefusedWithAnyCharacterBeyondIso88591) {
  for (unsigned codePoint = 0x100; codePoint <= 0x10FFFF; ++codePoint) {
    ASSERT_FALSE(tryHeaderToWire("a" + utf8Of(codePoint) + "b")) << codePoint;
  }
  for (const unsigned ignorable : {0x200BU, 0xFE0FU, 0xFEFFU, 0xE0100U}) {
    EXPECT_EQ(convertToISO88591("a" + utf8Of(ignorable)), "a") << "ICU drops " << ignorable;
  }
}

TEST(HeaderText, IsRefusedWhereUtf8IsCutOrOverlong) {
  for (const char* text :
       {"\xC3", "\xC3z", "\xC3\xC3\xA9", "\xA9", "\xC0\x80", "\xC1\xBF", "\xE0\x83\xA9", "\xFF"}) {
    EXPECT_FALSE(tryHeaderToWire(text)) << text;
  }
}

TEST(ShownFromWire, IsUtf8WhateverThePeerSent) {
  EXPECT_EQ(shownFromWire("caf\xE9"), "caf" + eAcute);
  EXPECT_EQ(shownFromWire(eAcute), "\xC3\x83\xC2\xA9");
  EXPECT_EQ(shownFromWire("a\r\n\x1B\x85"), "a\r\n\x1B\xC2\x85");
  EXPECT_EQ(shownFromWire(""), "");
}

TEST(ShownFromWire, EveryByteButNulIsItsOwnCharacter) {
  std::string all;
  for (int byte = 1; byte < 256; ++byte) all.push_back(static_cast<char>(byte));
  EXPECT_EQ(shownFromWire(all), convertFromISO88591(all));
}

TEST(ShownFromWire, NulIsWrittenOut) {
  EXPECT_EQ(shownFromWire(std::string_view("a\0b\0", 4)), "a\\x00b\\x00");
}

// The substitute's own code is a character like any other here.
TEST(HeaderText, MayHoldTheControlCharacterThatStandsForASubstitute) {
  EXPECT_EQ(tryHeaderToWire("\x1A" + eAcute), "\x1A\xE9");
}

}  // namespace
}  // namespace connectivity::plugins
