#include "plugins/http_client/text/CharacterSets.hpp"

#include <stdexcept>
#include <string>

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

// The substitute's own code is a character like any other here.
TEST(HeaderText, MayHoldTheControlCharacterThatStandsForASubstitute) {
  EXPECT_EQ(tryHeaderToWire("\x1A" + eAcute), "\x1A\xE9");
}

}  // namespace
}  // namespace connectivity::plugins
