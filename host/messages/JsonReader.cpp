#include "host/messages/JsonReader.hpp"

#include <array>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <limits>
#include <optional>
#include <span>
#include <utility>
#include <vector>

#include <boost/json/basic_parser_impl.hpp>

#include "connectivity/value_access.hpp"
#include "host/messages/Base64.hpp"
#include "host/messages/ExtendedJson.hpp"
#include "orrery/runtime/Decimal.hpp"

namespace host {

using connectivity::data_t;
using connectivity::decimal_t;
using connectivity::list_t;
using connectivity::map_t;

namespace {

constexpr std::size_t maxDepth = 1000;
// Their hashes are no secret: more could be chosen so that each is compared with all others.
constexpr std::size_t maxOtherKeys = 10000;

map_t mapForEntries(std::uint64_t count) {
  if (count == 0) return {};
  // Twice the entries: short probes, and room for a request id without growing.
  map_t map(qor_allocate_map(count * 2 + 2));
  if (map.table() == nullptr) throw JsonError("an object is too large");
  return map;
}

std::string_view textIn(const data_t& value, const char* form) {
  if (!value.isString()) throw JsonError(std::string(form) + " must be a string");
  return value.text();
}

double finiteDouble(const std::string& digits) {
  double value = 0;
  const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), value);
  if (error == std::errc::result_out_of_range) value = std::strtod(digits.c_str(), nullptr);
  if (!std::isfinite(value)) throw JsonError("the number " + digits + " is too large for a double");
  return value;
}

bool isNumber(std::string_view text) {
  double ignored = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), ignored);
  const bool startsRight = !text.empty() && text.find_first_of("iInN") == std::string_view::npos;
  return startsRight && error != std::errc::invalid_argument && end == text.data() + text.size();
}

data_t readNumberDouble(const data_t& value) {
  const std::string_view text = textIn(value, numberDoubleKey);
  if (text == "NaN") return data_t(std::numeric_limits<double>::quiet_NaN());
  if (text == "Infinity") return data_t(std::numeric_limits<double>::infinity());
  if (text == "-Infinity") return data_t(-std::numeric_limits<double>::infinity());
  if (!isNumber(text)) {
    throw JsonError("$numberDouble must be NaN, Infinity, -Infinity or a number");
  }
  return data_t(finiteDouble(std::string(text)));
}

data_t readNumberDecimal(const data_t& value) {
  const std::string_view text = textIn(value, numberDecimalKey);
  const auto decimal = runtime::decimalFromText(text);
  if (!decimal) throw JsonError("$numberDecimal must be a decimal number of at most 16 digits");
  return data_t(decimal_t{*decimal});
}

data_t readBinary(data_t& value) {
  constexpr auto shape = "$binary must be an object of base64 and subType";
  if (value.tag() != QOR_MAP) throw JsonError(shape);
  auto& fields = connectivity::get<map_t>(value);
  const data_t* base64 = fields.findText("base64");
  const data_t* subType = fields.findText("subType");
  if (fields.size() != 2 || base64 == nullptr || subType == nullptr) throw JsonError(shape);
  if (textIn(*subType, "subType") != "00") throw JsonError("subType must be 00");
  auto bytes = decodeBase64(textIn(*base64, "base64"));
  if (!bytes) throw JsonError("base64 is not valid");
  return data_t(std::move(*bytes));
}

std::span<data_t> elementsOf(list_t& list) {
  if (list.empty()) return {};
  return {&list[0], static_cast<std::size_t>(list.size())};
}

data_t readMap(data_t& value) {
  constexpr auto shape = "$map must be an array of [key, value] arrays";
  if (value.tag() != QOR_LIST) throw JsonError(shape);
  auto& pairs = connectivity::get<list_t>(value);
  map_t map = mapForEntries(pairs.size());
  std::size_t otherKeys = 0;
  for (data_t& element : elementsOf(pairs)) {
    if (element.tag() != QOR_LIST) throw JsonError(shape);
    auto& pair = connectivity::get<list_t>(element);
    if (pair.size() != 2) throw JsonError(shape);
    if (!pair[0].isString() && ++otherKeys > maxOtherKeys) {
      throw JsonError("a $map holds more than " + std::to_string(maxOtherKeys) +
                      " keys that are no texts");
    }
    const auto hash = static_cast<long long>(connectivity::hashes::hashByStored(pair[0]));
    if (!map.insert({std::move(pair[0]), std::move(pair[1])}, hash).second) {
      throw JsonError("a key is repeated in $map");
    }
  }
  return data_t(std::move(map));
}

// The value that an object's only entry stands for, where its key is that of a form.
std::optional<data_t> readForm(std::string_view key, data_t& value) {
  if (key == numberDoubleKey) return readNumberDouble(value);
  if (key == numberDecimalKey) return readNumberDecimal(value);
  if (key == binaryKey) return readBinary(value);
  if (key == mapKey) return readMap(value);
  return std::nullopt;
}

bool isFormKey(std::string_view key) {
  return key == numberDoubleKey || key == numberDecimalKey || key == binaryKey || key == mapKey;
}

// Builds values from the parser's events. The stack holds finished values; an object's are its keys
// and values in turn.
class Builder {
 public:
  using string_view = boost::json::string_view;
  using error_code = boost::json::error_code;

  static constexpr std::size_t max_object_size = std::numeric_limits<std::size_t>::max();
  static constexpr std::size_t max_array_size = std::numeric_limits<std::size_t>::max();
  static constexpr std::size_t max_key_size = std::numeric_limits<std::size_t>::max();
  static constexpr std::size_t max_string_size = std::numeric_limits<std::size_t>::max();

  explicit Builder(JsonReader::Forms forms) : _forms(forms) {}

  void clear() {
    _stack.clear();
    _text.clear();
  }
  data_t take() {
    data_t value = std::move(_stack.back());
    _stack.clear();
    return value;
  }

  bool on_document_begin(error_code&) { return true; }
  bool on_document_end(error_code&) { return true; }
  bool on_object_begin(error_code&) { return true; }
  bool on_array_begin(error_code&) { return true; }
  bool on_comment_part(string_view, error_code&) { return true; }
  bool on_comment(string_view, error_code&) { return true; }

  bool on_key_part(string_view part, std::size_t, error_code&) { return append(part); }
  bool on_key(string_view rest, std::size_t, error_code&) { return pushText(rest); }
  bool on_string_part(string_view part, std::size_t, error_code&) { return append(part); }
  bool on_string(string_view rest, std::size_t, error_code&) { return pushText(rest); }
  bool on_number_part(string_view part, error_code&) { return append(part); }

  bool on_int64(std::int64_t value, string_view, error_code&) {
    _text.clear();
    _stack.emplace_back(static_cast<long long>(value));
    return true;
  }
  bool on_uint64(std::uint64_t, string_view rest, error_code&) { return pushDouble(rest); }
  // The parser's own conversion is not always the nearest double, so the digits are read again.
  bool on_double(double, string_view rest, error_code&) { return pushDouble(rest); }
  bool on_bool(bool value, error_code&) {
    _stack.emplace_back(value);
    return true;
  }
  bool on_null(error_code&) {
    _stack.emplace_back();
    return true;
  }

  bool on_array_end(std::size_t count, error_code&) {
    auto* block = qor_allocate_list(count);
    if (block == nullptr) throw JsonError("an array is too large");
    list_t list(block);
    const std::size_t first = _stack.size() - count;
    for (std::size_t i = first; i < _stack.size(); ++i) list.push_back(std::move(_stack[i]));
    _stack.resize(first);
    _stack.emplace_back(std::move(list));
    return true;
  }

  bool on_object_end(std::size_t count, error_code&) {
    const std::size_t first = _stack.size() - 2 * count;
    data_t value = objectFrom(first, count);
    _stack.resize(first);
    _stack.push_back(std::move(value));
    return true;
  }

 private:
  bool append(string_view part) {
    _text.append(part.data(), part.size());
    return true;
  }

  bool pushText(string_view rest) {
    append(rest);
    if (_text.find('\0') != std::string::npos) throw JsonError("a string holds \\u0000");
    _stack.emplace_back(_text.c_str());
    _text.clear();
    return true;
  }

  bool pushDouble(string_view rest) {
    append(rest);
    _stack.emplace_back(finiteDouble(_text));
    _text.clear();
    return true;
  }

  data_t objectFrom(std::size_t first, std::size_t count) {
    if (_forms == JsonReader::Forms::Extended && count == 1) {
      if (auto form = readForm(_stack[first].text(), _stack[first + 1])) return std::move(*form);
    }
    map_t map = mapForEntries(count);
    // A large table does not fit into the processor's cache: each slot is asked for ahead.
    constexpr std::size_t ahead = 8;
    std::array<std::uint64_t, ahead> hashes{};
    for (std::size_t i = 0; i < count + ahead; ++i) {
      std::uint64_t& hash = hashes[i % ahead];
      if (i >= ahead) insert(map, first + 2 * (i - ahead), hash);
      if (i >= count) continue;
      hash = connectivity::hashes::hash(_stack[first + 2 * i]);
      __builtin_prefetch(qor_map_entries(map.table()) + hash % map.table()->capacity, 1);
    }
    return data_t(std::move(map));
  }

  void insert(map_t& map, std::size_t at, std::uint64_t hash) {
    if (_forms == JsonReader::Forms::Extended) refuseFormKey(_stack[at].text());
    std::pair<data_t, data_t> entry(std::move(_stack[at]), std::move(_stack[at + 1]));
    const auto [present, isNew] = map.insert(std::move(entry), static_cast<long long>(hash));
    if (!isNew)
      throw JsonError("the key \"" + std::string(present.key().text()) + "\" is repeated");
  }

  static void refuseFormKey(std::string_view key) {
    if (key.starts_with('$') && isFormKey(key)) {
      throw JsonError(std::string(key) + " must be the only key of its object");
    }
  }

  const JsonReader::Forms _forms;
  std::vector<data_t> _stack;
  std::string _text;  // the string or number that is being read
};

boost::json::parse_options parseOptions() {
  boost::json::parse_options options;
  options.max_depth = maxDepth;
  return options;
}

std::string describe(const boost::json::error_code& error, std::size_t consumed) {
  const bool endsEarly = error == boost::json::error::incomplete;
  return "not valid JSON at byte " + std::to_string(consumed + 1) + ": " + error.message() +
         (endsEarly ? " (a message is one whole line)" : "");
}

}  // namespace

class JsonReader::Parser : public boost::json::basic_parser<Builder> {
 public:
  explicit Parser(Forms forms) : basic_parser(parseOptions(), forms) {}

  data_t read(std::string_view text) {
    reset();
    handler().clear();
    boost::json::error_code error;
    const std::size_t consumed = write_some(false, text.data(), text.size(), error);
    if (!error && consumed < text.size()) error = boost::json::error::extra_data;
    if (error) throw JsonError(describe(error, consumed));
    return handler().take();
  }
};

JsonReader::JsonReader(Forms forms) : _parser(std::make_unique<Parser>(forms)) {}
JsonReader::~JsonReader() = default;

data_t JsonReader::read(std::string_view text) { return _parser->read(text); }

}  // namespace host
