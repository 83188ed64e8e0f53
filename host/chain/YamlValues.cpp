#include "host/chain/YamlValues.hpp"

#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <initializer_list>
#include <limits>
#include <optional>
#include <set>
#include <string_view>
#include <utility>

#include "host/messages/JsonWriter.hpp"

namespace host {

using connectivity::data_t;
using connectivity::list_t;
using connectivity::map_t;

namespace {

constexpr int maxDepth = 200;
constexpr std::string_view digits = "0123456789";

bool isOneOf(std::string_view text, std::initializer_list<std::string_view> words) {
  return std::find(words.begin(), words.end(), text) != words.end();
}

std::string_view withoutSign(std::string_view text) {
  if (text.starts_with('-') || text.starts_with('+')) text.remove_prefix(1);
  return text;
}

bool isDecimalInteger(std::string_view text) {
  text = withoutSign(text);
  if (text.size() > 1 && text.front() == '0') return false;
  return !text.empty() && text.find_first_not_of(digits) == std::string_view::npos;
}

// [-+]? ( \. [0-9]+ | [0-9]+ ( \. [0-9]* )? ) ( [eE] [-+]? [0-9]+ )?
bool isFloat(std::string_view text) {
  text = withoutSign(text);
  const std::size_t whole = std::min(text.find_first_not_of(digits), text.size());
  text.remove_prefix(whole);
  if (text.starts_with('.')) {
    text.remove_prefix(1);
    const std::size_t fraction = std::min(text.find_first_not_of(digits), text.size());
    if (whole + fraction == 0) return false;
    text.remove_prefix(fraction);
  } else if (whole == 0) {
    return false;
  }
  if (text.empty()) return true;
  if (text.front() != 'e' && text.front() != 'E') return false;
  text = withoutSign(text.substr(1));
  return !text.empty() && text.find_first_not_of(digits) == std::string_view::npos;
}

data_t integerOrDouble(const std::string& text, std::string_view number, int base) {
  if (number.starts_with('+')) number.remove_prefix(1);
  long long value = 0;
  const auto result = std::from_chars(number.data(), number.data() + number.size(), value, base);
  if (result.ec == std::errc()) return data_t(value);
  return data_t(std::strtod(text.c_str(), nullptr));
}

bool isNumberInBase(std::string_view text, std::string_view prefix, std::string_view alphabet) {
  return text.size() > prefix.size() && text.starts_with(prefix) &&
         text.find_first_not_of(alphabet, prefix.size()) == std::string_view::npos;
}

std::optional<data_t> integerIn(const std::string& text) {
  const std::string_view view = text;
  if (isDecimalInteger(view)) return integerOrDouble(text, view, 10);
  if (isNumberInBase(view, "0x", "0123456789abcdefABCDEF")) {
    return integerOrDouble(text, view.substr(2), 16);
  }
  if (isNumberInBase(view, "0o", "01234567")) return integerOrDouble(text, view.substr(2), 8);
  return std::nullopt;
}

std::optional<data_t> floatIn(const std::string& text) {
  constexpr double infinity = std::numeric_limits<double>::infinity();
  if (isOneOf(text, {".nan", ".NaN", ".NAN"})) {
    return data_t(std::numeric_limits<double>::quiet_NaN());
  }
  if (isOneOf(withoutSign(text), {".inf", ".Inf", ".INF"})) {
    return data_t(text.starts_with('-') ? -infinity : infinity);
  }
  if (withoutSign(text).find_first_not_of(digits) == std::string_view::npos) return std::nullopt;
  if (isFloat(text)) return data_t(std::strtod(text.c_str(), nullptr));
  return std::nullopt;
}

std::optional<data_t> boolIn(std::string_view text) {
  if (isOneOf(text, {"true", "True", "TRUE"})) return data_t(true);
  if (isOneOf(text, {"false", "False", "FALSE"})) return data_t(false);
  return std::nullopt;
}

std::optional<data_t> nullIn(std::string_view text) {
  if (isOneOf(text, {"", "~", "null", "Null", "NULL"})) return data_t();
  return std::nullopt;
}

// What the core schema makes of a plain scalar, where it is not a text. The parser itself knows
// null.
std::optional<data_t> coreValue(const std::string& text) {
  if (auto value = boolIn(text)) return value;
  if (auto value = integerIn(text)) return value;
  return floatIn(text);
}

// The same, where the value would be written as the text says it: nothing of it is lost.
std::optional<data_t> plainValue(const std::string& text) {
  auto value = coreValue(text);
  return value && toJson(*value) == text ? std::move(value) : std::nullopt;
}

bool isPlain(const YAML::Node& node) { return node.Tag().empty() || node.Tag() == "?"; }

std::optional<data_t> taggedValue(const YAML::Node& node) {
  constexpr std::string_view standard = "tag:yaml.org,2002:";
  std::string_view tag = node.Tag();
  const std::string& text = node.Scalar();
  if (!tag.starts_with(standard)) return std::nullopt;
  tag.remove_prefix(standard.size());
  if (tag == "int") return integerIn(text);
  if (tag == "float") {
    const auto integer = isDecimalInteger(text);
    return integer ? data_t(std::strtod(text.c_str(), nullptr)) : floatIn(text);
  }
  if (tag == "bool") return boolIn(text);
  if (tag == "null") return nullIn(text);
  return std::nullopt;
}

// The value of a scalar, where it is not a text.
std::optional<data_t> scalarValue(const YAML::Node& node) {
  return isPlain(node) ? plainValue(node.Scalar()) : taggedValue(node);
}

void refuseNul(const std::string& text, const YAML::Node& node, const YamlPlace& place) {
  if (text.find('\0') == std::string::npos) return;
  throw ChainFileError(place.file, yamlPosition(node), place.key, "a text holds U+0000");
}

data_t scalar(const YAML::Node& node, const YamlPlace& place) {
  if (auto value = scalarValue(node)) return std::move(*value);
  refuseNul(node.Scalar(), node, place);
  return data_t(node.Scalar());
}

data_t sequence(const YAML::Node& node, const YamlPlace& place) {
  list_t list;
  for (std::size_t i = 0; i < node.size(); ++i) {
    list.push_back(yamlValue(
        node[i], {place.file, place.key + "[" + std::to_string(i) + "]", place.depth + 1}));
  }
  return data_t(std::move(list));
}

data_t mapping(const YAML::Node& node, const YamlPlace& place) {
  refuseRepeatedKeys(node, place);
  map_t map;
  for (const auto& entry : node) {
    const std::string& key = entry.first.Scalar();
    map.insert(data_t(key),
               yamlValue(entry.second, {place.file, place.key + "." + key, place.depth + 1}));
  }
  return data_t(std::move(map));
}

}  // namespace

FilePosition yamlPosition(const YAML::Mark& mark) {
  if (mark.is_null()) return {};
  return {mark.line + 1, mark.column + 1};
}

std::optional<data_t> yamlCoreValue(const YAML::Node& node) {
  if (!node.IsScalar()) return std::nullopt;
  return isPlain(node) ? coreValue(node.Scalar()) : taggedValue(node);
}

bool isYamlText(const YAML::Node& node) { return node.IsScalar() && !scalarValue(node); }

void refuseRepeatedKeys(const YAML::Node& map, const YamlPlace& place) {
  std::set<std::string> seen;
  for (const auto& entry : map) {
    if (!entry.first.IsScalar()) {
      throw ChainFileError(place.file, yamlPosition(entry.first), place.key,
                           "a key must be a text");
    }
    const std::string& key = entry.first.Scalar();
    refuseNul(key, entry.first, place);
    if (!seen.insert(key).second) {
      const std::string path = place.key.empty() ? key : place.key + "." + key;
      throw ChainFileError(place.file, yamlPosition(entry.first), path, "the key stands twice");
    }
  }
}

data_t yamlValue(const YAML::Node& node, const YamlPlace& place) {
  if (place.depth > maxDepth) {
    throw ChainFileError(place.file, yamlPosition(node), "", "more than 200 levels");
  }
  switch (node.Type()) {
    case YAML::NodeType::Scalar:
      return scalar(node, place);
    case YAML::NodeType::Sequence:
      return sequence(node, place);
    case YAML::NodeType::Map:
      return mapping(node, place);
    default:
      return {};
  }
}

}  // namespace host
