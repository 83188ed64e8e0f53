#include "orrery/runtime/Decimal.hpp"

#include <algorithm>
#include <cstddef>

namespace runtime {

namespace {

constexpr std::uint64_t signBit = std::uint64_t{1} << 63;
constexpr std::uint64_t nanBits = std::uint64_t{0x1F} << 58;
constexpr std::uint64_t infinityBits = std::uint64_t{0x1E} << 58;
constexpr std::uint64_t largeForm = std::uint64_t{3} << 61;  // the coefficient needs 54 bits
constexpr std::uint64_t largeFormLead = std::uint64_t{1} << 53;
constexpr std::uint64_t largestCoefficient = 9'999'999'999'999'999;
constexpr std::uint64_t exponentMask = 0x3FF;
constexpr int exponentBias = 398;
constexpr int smallestExponent = -exponentBias;
constexpr int largestExponent = 369;
constexpr std::size_t mostDigits = 16;
// Beyond every exponent that matters, and far from overflow.
constexpr int exponentCap = 100'000'000;

// coefficient * 10^exponent
struct Parts {
  std::uint64_t coefficient = 0;
  int exponent = 0;
};

Parts decode(std::uint64_t bits) {
  const bool large = (bits & largeForm) == largeForm;
  const int shift = large ? 51 : 53;
  Parts parts;
  parts.coefficient = bits & ((std::uint64_t{1} << shift) - 1);
  if (large) parts.coefficient |= largeFormLead;
  if (parts.coefficient > largestCoefficient) parts.coefficient = 0;
  parts.exponent = static_cast<int>((bits >> shift) & exponentMask) - exponentBias;
  return parts;
}

std::uint64_t encode(Parts parts) {
  const auto biased = static_cast<std::uint64_t>(std::int64_t{parts.exponent} + exponentBias);
  if (parts.coefficient < largeFormLead) return biased << 53 | parts.coefficient;
  return largeForm | biased << 51 | (parts.coefficient & (largeFormLead / 4 - 1));
}

std::string plainText(std::string digits, int exponent) {
  if (exponent == 0) return digits;
  const auto fraction = static_cast<std::size_t>(-exponent);
  if (digits.size() <= fraction) digits.insert(0, fraction - digits.size() + 1, '0');
  digits.insert(digits.size() - fraction, 1, '.');
  return digits;
}

std::string scientificText(std::string digits, int adjusted) {
  if (digits.size() > 1) digits.insert(1, 1, '.');
  return digits + (adjusted < 0 ? "E-" : "E+") + std::to_string(std::abs(adjusted));
}

// --- Reading -------------------------------------------------------------------------------------

bool isDigit(char c) { return c >= '0' && c <= '9'; }

bool equalsIgnoringCase(std::string_view text, std::string_view lower) {
  return std::equal(text.begin(), text.end(), lower.begin(), lower.end(), [](char a, char b) {
    return (a >= 'A' && a <= 'Z' ? static_cast<char>(a - 'A' + 'a') : a) == b;
  });
}

// Takes one of the characters off the front.
bool take(std::string_view& text, std::string_view oneOf) {
  if (text.empty() || oneOf.find(text.front()) == std::string_view::npos) return false;
  text.remove_prefix(1);
  return true;
}

// Takes a sign off the front; true for minus.
bool takeSign(std::string_view& text) {
  const bool negative = take(text, "-");
  if (!negative) take(text, "+");
  return negative;
}

std::string_view takeDigits(std::string_view& text) {
  const auto* const end = std::find_if_not(text.begin(), text.end(), isDigit);
  const std::string_view digits = text.substr(0, static_cast<std::size_t>(end - text.begin()));
  text.remove_prefix(digits.size());
  return digits;
}

std::optional<int> takeExponent(std::string_view& text) {
  if (!take(text, "eE")) return 0;
  const bool negative = takeSign(text);
  const std::string_view digits = takeDigits(text);
  if (digits.empty()) return std::nullopt;
  int exponent = 0;
  for (const char digit : digits) {
    exponent = std::min(exponent * 10 + (digit - '0'), exponentCap);
  }
  return negative ? -exponent : exponent;
}

std::optional<Parts> takeNumber(std::string_view& text) {
  std::string digits(takeDigits(text));
  std::size_t fraction = 0;
  if (take(text, ".")) {
    const std::string_view after = takeDigits(text);
    digits += after;
    fraction = std::min(after.size(), static_cast<std::size_t>(exponentCap));
  }
  if (digits.empty()) return std::nullopt;
  const std::optional<int> exponent = takeExponent(text);
  if (!exponent) return std::nullopt;

  digits.erase(0, std::min(digits.find_first_not_of('0'), digits.size()));
  if (digits.size() > mostDigits) return std::nullopt;
  const auto coefficient = digits.empty() ? 0 : std::stoull(digits);
  return Parts{coefficient, *exponent - static_cast<int>(fraction)};
}

// Moves the exponent into its range where that changes nothing but the quantum.
std::optional<Parts> fit(Parts parts) {
  if (parts.coefficient == 0) {
    parts.exponent = std::clamp(parts.exponent, smallestExponent, largestExponent);
    return parts;
  }
  while (parts.exponent > largestExponent && parts.coefficient <= largestCoefficient / 10) {
    parts.coefficient *= 10;
    --parts.exponent;
  }
  while (parts.exponent < smallestExponent && parts.coefficient % 10 == 0) {
    parts.coefficient /= 10;
    ++parts.exponent;
  }
  if (parts.exponent < smallestExponent || parts.exponent > largestExponent) return std::nullopt;
  return parts;
}

std::optional<std::uint64_t> magnitudeFromText(std::string_view text) {
  if (equalsIgnoringCase(text, "infinity") || equalsIgnoringCase(text, "inf")) return infinityBits;
  if (equalsIgnoringCase(text, "nan")) return nanBits;
  const std::optional<Parts> number = takeNumber(text);
  if (!number || !text.empty()) return std::nullopt;
  const std::optional<Parts> fitted = fit(*number);
  if (!fitted) return std::nullopt;
  return encode(*fitted);
}

}  // namespace

std::string decimalToText(std::uint64_t bits) {
  if ((bits & nanBits) == nanBits) return "NaN";
  const std::string sign = (bits & signBit) != 0 ? "-" : "";
  if ((bits & infinityBits) == infinityBits) return sign + "Infinity";

  const Parts parts = decode(bits);
  const std::string digits = std::to_string(parts.coefficient);
  const int adjusted = parts.exponent + static_cast<int>(digits.size()) - 1;
  if (parts.exponent <= 0 && adjusted >= -6) return sign + plainText(digits, parts.exponent);
  return sign + scientificText(digits, adjusted);
}

std::optional<std::uint64_t> decimalFromText(std::string_view text) {
  const bool negative = takeSign(text);
  const std::optional<std::uint64_t> magnitude = magnitudeFromText(text);
  if (!magnitude) return std::nullopt;
  return negative ? *magnitude | signBit : *magnitude;
}

}  // namespace runtime
