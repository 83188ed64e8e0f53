#include "orrery/runtime/Decimal.hpp"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include <gtest/gtest.h>

namespace {

using runtime::decimalFromText;
using runtime::decimalToText;

struct Known {
  std::uint64_t bits;
  std::string_view text;
};

// Numbers whose encoding and text are one to one.
constexpr Known knownNumbers[] = {
    Known{0x31C0000000000000, "0"}, Known{0xB1C0000000000000, "-0"}, Known{0x31C0000000000001, "1"},
    Known{0xB1C0000000000001, "-1"}, Known{0x3180000000000096, "1.50"},
    Known{0x31A000000000000F, "1.5"}, Known{0x3180000000000000, "0.00"},
    Known{0xB180000000000000, "-0.00"}, Known{0x3160000000000001, "0.001"},
    Known{0x3100000000000001, "0.000001"}, Known{0x30E0000000000001, "1E-7"},
    Known{0x30E000000000000F, "0.0000015"}, Known{0x30C000000000000F, "1.5E-7"},
    Known{0x31E0000000000001, "1E+1"}, Known{0x3420000000000096, "1.50E+21"},
    Known{0x31E0000000000000, "0E+1"},
    // The largest coefficient of the short form, and the smallest of the long one.
    Known{0x31DFFFFFFFFFFFFF, "9007199254740991"}, Known{0x6C70000000000000, "9007199254740992"},
    Known{0x6C7386F26FC0FFFF, "9999999999999999"}, Known{0xEC7386F26FC0FFFF, "-9999999999999999"},
    Known{0x77FB86F26FC0FFFF, "9.999999999999999E+384"}, Known{0x0000000000000001, "1E-398"},
    Known{0x0000000000000000, "0E-398"}, Known{0x7800000000000000, "Infinity"},
    Known{0xF800000000000000, "-Infinity"}, Known{0x7C00000000000000, "NaN"}};

// Other spellings of a number, and numbers that must move into the range of exponents.
constexpr Known spelledNumbers[] = {
    Known{0x31C0000000000001, "+1"}, Known{0x31C0000000000001, "0001"},
    Known{0x31C0000000000001, "1."}, Known{0x31A0000000000005, ".5"},
    Known{0x31C0000000000001, "1e0"}, Known{0x31C000000000000F, "1.5E1"},
    Known{0x31C0000000000001, "00000000000000000000000000001"}, Known{0x7800000000000000, "inf"},
    Known{0x7800000000000000, "+INFINITY"}, Known{0x7C00000000000000, "nan"},
    // 1E+384 does not fit as 1 * 10^384, but as 10^15 * 10^369.
    Known{0x5FE38D7EA4C68000, "1E+384"}, Known{0x5FE0000000000000, "0E+99999999999"},
    Known{0x0000000000000001, "1000E-401"}, Known{0x0000000000000000, "0E-99999999999"}};

constexpr std::string_view noNumbers[] = {"", "-", ".", "e5", "1e", "1e+", "1..2", "1 ", " 1", "1x",
                                          "--1", "+-1", "0x10", "1,5", "infinit", "nanx", "1.5.2",
                                          // 17 digits
                                          "12345678901234567", "1.2345678901234567",
                                          "10000000000000000",
                                          // beyond the range, or only with rounding within
                                          "1E+385", "9999999999999999E+370", "1E-399", "15E-399",
                                          "1E+99999999999999999999", "1E-99999999999999999999"};

TEST(Decimal, IsWrittenWithItsQuantum) {
  for (const Known& known : knownNumbers) EXPECT_EQ(decimalToText(known.bits), known.text);
}

TEST(Decimal, IsReadWithItsQuantum) {
  for (const Known& known : knownNumbers) EXPECT_EQ(decimalFromText(known.text), known.bits);
}

TEST(Decimal, IsReadInOtherSpellings) {
  for (const Known& known : spelledNumbers) {
    EXPECT_EQ(decimalFromText(known.text), known.bits) << known.text;
  }
}

TEST(Decimal, IsRefusedWhereItIsNoNumberOrWouldBeRounded) {
  for (const std::string_view text : noNumbers) {
    EXPECT_EQ(decimalFromText(text), std::nullopt) << text;
  }
}

TEST(Decimal, EveryNaNIsWrittenAlike) {
  EXPECT_EQ(decimalToText(0xFC00000000000000), "NaN");
  EXPECT_EQ(decimalToText(0x7E00000000000000), "NaN");
  EXPECT_EQ(decimalToText(0x7C00000000000001), "NaN");
}

TEST(Decimal, ACoefficientThatIsTooLargeCountsAsZero) {
  EXPECT_EQ(decimalToText(0x6C7386F26FC10000), "0");
  EXPECT_EQ(decimalToText(0x6C77FFFFFFFFFFFF), "0");
}

TEST(Decimal, EveryExponentComesBackWithItsQuantum) {
  for (std::uint64_t exponent = 0; exponent <= 767; ++exponent) {
    const std::uint64_t bits = exponent << 53 | 120;
    ASSERT_EQ(decimalFromText(decimalToText(bits)), bits) << decimalToText(bits);
  }
}

}  // namespace
