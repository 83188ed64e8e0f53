#include "host/messages/JsonWriter.hpp"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <compare>
#include <cstring>

#include "connectivity/value_access.hpp"
#include "host/messages/Base64.hpp"
#include "host/messages/ExtendedJson.hpp"
#include "orrery/runtime/Decimal.hpp"
#include "orrery/runtime/Utf8.hpp"

namespace host {

using connectivity::data_t;
using connectivity::decimal_t;
using connectivity::list_t;
using connectivity::map_t;

namespace {

constexpr std::string_view replacementCharacter = "\xEF\xBF\xBD";

bool isPlain(char character) {
  const auto byte = static_cast<unsigned char>(character);
  return byte >= 0x20 && byte < 0x80 && byte != '"' && byte != '\\';
}

std::size_t plainPrefix(std::string_view text) {
  std::size_t length = 0;
  while (length < text.size() && isPlain(text[length])) ++length;
  return length;
}

bool comesBefore(const data_t& left, const data_t& right) {
  using connectivity::get;
  if (left.tag() != right.tag()) return left.tag() < right.tag();
  if (left.tag() == QOR_INT64) return get<long long>(left) < get<long long>(right);
  if (left.tag() == QOR_DOUBLE) {
    return std::is_lt(std::strong_order(get<double>(left), get<double>(right)));
  }
  return toJson(left) < toJson(right);
}

// What opens the object of a form that holds a string.
std::string opening(const char* key) { return std::string("{\"") + key + "\":\""; }

}  // namespace

void JsonWriter::write(const data_t& value) {
  switch (value.tag()) {
    case QOR_BOOL:
      _out += connectivity::get<bool>(value) ? "true" : "false";
      return;
    case QOR_DOUBLE:
      return writeDouble(connectivity::get<double>(value));
    case QOR_INT64:
      return writeInteger(connectivity::get<long long>(value));
    case QOR_DECIMAL:
      return writeDecimal(connectivity::get<decimal_t>(value));
    case QOR_STRING:
    case QOR_BORROWED_STRING:
      return writeString(value.text());
    case QOR_LIST:
      return writeList(connectivity::get<list_t>(value));
    case QOR_MAP:
      return write(connectivity::get<map_t>(value));
    case QOR_BUFFER:
      return writeBinary(connectivity::get<connectivity::buffer_t>(value).view());
    case QOR_CUSTOM:
      return writeString(connectivity::toText(value));
    default:
      _out += "null";
  }
}

void JsonWriter::write(const map_t& map) {
  const std::size_t first = _entries.size();
  bool onlyTexts = true;
  for (auto entry = map.begin(); !entry.atEnd(); ++entry) {
    _entries.push_back({&entry.key(), &entry.value()});
    onlyTexts = onlyTexts && entry.key().isString();
  }
  if (onlyTexts) {
    writeObject(first);
  } else {
    writePairs(first);
  }
  _entries.resize(first);
}

void JsonWriter::writeObject(std::size_t firstEntry) {
  std::sort(_entries.begin() + static_cast<std::ptrdiff_t>(firstEntry), _entries.end(),
            [](const Entry& left, const Entry& right) {
              return std::strcmp(left.key->text(), right.key->text()) < 0;
            });
  _out += '{';
  const std::size_t end = _entries.size();
  for (std::size_t i = firstEntry; i < end; ++i) {
    if (i > firstEntry) _out += ',';
    writeString(_entries[i].key->text());
    _out += ':';
    write(*_entries[i].value);
  }
  _out += '}';
}

void JsonWriter::writePairs(std::size_t firstEntry) {
  std::sort(
      _entries.begin() + static_cast<std::ptrdiff_t>(firstEntry), _entries.end(),
      [](const Entry& left, const Entry& right) { return comesBefore(*left.key, *right.key); });
  _out += std::string("{\"") + mapKey + "\":[";
  const std::size_t end = _entries.size();
  for (std::size_t i = firstEntry; i < end; ++i) {
    _out += i > firstEntry ? ",[" : "[";
    write(*_entries[i].key);
    _out += ',';
    write(*_entries[i].value);
    _out += ']';
  }
  _out += "]}";
}

void JsonWriter::writeList(const list_t& list) {
  _out += '[';
  for (const data_t& element : list) {
    if (&element != list.begin()) _out += ',';
    write(element);
  }
  _out += ']';
}

void JsonWriter::writeDouble(double value) {
  if (!std::isfinite(value)) {
    const char* name = std::signbit(value) ? "-Infinity" : "Infinity";
    _out += opening(numberDoubleKey) + (std::isnan(value) ? "NaN" : name) + "\"}";
    return;
  }
  std::array<char, 32> digits{};
  const auto result = std::to_chars(digits.data(), digits.data() + digits.size(), value);
  const std::string_view text(digits.data(), static_cast<std::size_t>(result.ptr - digits.data()));
  _out += text;
  if (text.find_first_of(".e") == std::string_view::npos) _out += ".0";
}

void JsonWriter::writeInteger(long long value) {
  std::array<char, 24> digits{};
  const auto result = std::to_chars(digits.data(), digits.data() + digits.size(), value);
  _out.append(digits.data(), result.ptr);
}

void JsonWriter::writeDecimal(decimal_t value) {
  _out += opening(numberDecimalKey) + runtime::decimalToText(value.bits) + R"("})";
}

void JsonWriter::writeBinary(std::string_view bytes) {
  _out += std::string("{\"") + binaryKey + R"(":{"base64":")";
  appendBase64(bytes, _out);
  _out += R"(","subType":"00"}})";
}

void JsonWriter::writeString(std::string_view text) {
  _out += '"';
  while (!text.empty()) {
    const std::size_t plain = plainPrefix(text);
    _out += text.substr(0, plain);
    text.remove_prefix(plain);
    if (text.empty()) break;
    if (static_cast<unsigned char>(text.front()) >= 0x80) {
      writeNonAscii(text);
    } else {
      writeEscaped(static_cast<unsigned char>(text.front()));
      text.remove_prefix(1);
    }
  }
  _out += '"';
}

// Takes one character, or one byte that is none, from the front of `rest`.
void JsonWriter::writeNonAscii(std::string_view& rest) {
  const std::size_t length = runtime::utf8SequenceLength(rest);
  _out += length == 0 ? replacementCharacter : rest.substr(0, length);
  rest.remove_prefix(std::max<std::size_t>(length, 1));
}

void JsonWriter::writeEscaped(unsigned char character) {
  constexpr std::string_view named = "\"\\\b\f\n\r\t";
  constexpr std::string_view names = "\"\\bfnrt";
  constexpr std::string_view hexDigits = "0123456789abcdef";
  _out += '\\';
  if (const auto at = named.find(static_cast<char>(character)); at != std::string_view::npos) {
    _out += names[at];
    return;
  }
  _out += "u00";
  _out += hexDigits[character >> 4U];
  _out += hexDigits[character & 15U];
}

std::string toJson(const data_t& value) {
  std::string text;
  JsonWriter(text).write(value);
  return text;
}

}  // namespace host
