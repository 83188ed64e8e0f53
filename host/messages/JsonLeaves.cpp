#include "host/messages/JsonLeaves.hpp"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>

#include "connectivity/value_access.hpp"
#include "host/messages/Base64.hpp"
#include "host/messages/ExtendedJson.hpp"
#include "orrery/runtime/Decimal.hpp"
#include "orrery/runtime/Utf8.hpp"

namespace host {

using connectivity::data_t;
using connectivity::decimal_t;

namespace {

constexpr std::string_view replacementCharacter = "\xEF\xBF\xBD";

// By byte: whether it stands in a JSON string as it is.
constexpr std::array<bool, 256> plainBytes = [] {
  std::array<bool, 256> plain{};
  for (std::size_t byte = 0x20; byte < 0x7F; ++byte) plain[byte] = byte != '"' && byte != '\\';
  return plain;
}();

std::size_t plainPrefix(std::string_view text) {
  const auto* const end = std::find_if_not(text.begin(), text.end(), [](char character) {
    return plainBytes[static_cast<unsigned char>(character)];
  });
  return static_cast<std::size_t>(end - text.begin());
}

// What opens the object of a form that holds a string.
std::string opening(const char* key) { return std::string("{\"") + key + "\":\""; }

void appendDouble(double value, std::string& out) {
  if (!std::isfinite(value)) {
    const char* name = std::signbit(value) ? "-Infinity" : "Infinity";
    out += opening(numberDoubleKey) + (std::isnan(value) ? "NaN" : name) + "\"}";
    return;
  }
  std::array<char, 32> digits{};
  const auto result = std::to_chars(digits.data(), digits.data() + digits.size(), value);
  const std::string_view text(digits.data(), static_cast<std::size_t>(result.ptr - digits.data()));
  out += text;
  if (text.find_first_of(".e") == std::string_view::npos) out += ".0";
}

void appendInteger(long long value, std::string& out) {
  std::array<char, 24> digits{};
  const auto result = std::to_chars(digits.data(), digits.data() + digits.size(), value);
  out.append(digits.data(), result.ptr);
}

void appendDecimal(decimal_t value, std::string& out) {
  out += opening(numberDecimalKey) + runtime::decimalToText(value.bits) + R"("})";
}

void appendBinary(std::string_view bytes, std::string& out) {
  out += std::string("{\"") + binaryKey + R"(":{"base64":")";
  appendBase64(bytes, out);
  out += R"(","subType":"00"}})";
}

void appendEscaped(unsigned char character, std::string& out) {
  constexpr std::string_view named = "\"\\\b\f\n\r\t";
  constexpr std::string_view names = "\"\\bfnrt";
  constexpr std::string_view hexDigits = "0123456789abcdef";
  out += '\\';
  if (const auto at = named.find(static_cast<char>(character)); at != std::string_view::npos) {
    out += names[at];
    return;
  }
  out += "u00";
  out += hexDigits[character >> 4U];
  out += hexDigits[character & 15U];
}

// U+0080 to U+009F are the bytes C2 80 to C2 9F.
bool isC1Control(std::string_view character) {
  return character[0] == '\xC2' && static_cast<unsigned char>(character[1]) < 0xA0;
}

// Takes one character, or one byte that is none, from the front of `rest`.
void appendNonAscii(std::string_view& rest, std::string& out) {
  const std::size_t length = runtime::utf8SequenceLength(rest);
  if (length == 2 && isC1Control(rest)) {
    appendEscaped(static_cast<unsigned char>(rest[1]), out);
    return rest.remove_prefix(length);
  }
  out += length == 0 ? replacementCharacter : rest.substr(0, length);
  rest.remove_prefix(std::max<std::size_t>(length, 1));
}

}  // namespace

void appendJsonString(std::string_view text, std::string& out) {
  out += '"';
  while (!text.empty()) {
    const std::size_t plain = plainPrefix(text);
    out += text.substr(0, plain);
    text.remove_prefix(plain);
    if (text.empty()) break;
    if (static_cast<unsigned char>(text.front()) >= 0x80) {
      appendNonAscii(text, out);
    } else {
      appendEscaped(static_cast<unsigned char>(text.front()), out);
      text.remove_prefix(1);
    }
  }
  out += '"';
}

void appendJsonLeaf(const data_t& value, std::string& out) {
  using connectivity::get;
  switch (value.tag()) {
    case QOR_BOOL:
      out += get<bool>(value) ? "true" : "false";
      return;
    case QOR_DOUBLE:
      return appendDouble(get<double>(value), out);
    case QOR_INT64:
      return appendInteger(get<long long>(value), out);
    case QOR_DECIMAL:
      return appendDecimal(get<decimal_t>(value), out);
    case QOR_STRING:
    case QOR_BORROWED_STRING:
      return appendJsonString(value.text(), out);
    case QOR_BUFFER:
      return appendBinary(get<connectivity::buffer_t>(value).view(), out);
    case QOR_CUSTOM:
      return appendJsonString(connectivity::toText(value), out);
    default:
      out += "null";
  }
}

}  // namespace host
