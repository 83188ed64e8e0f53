// Options are found by the text of their key, whether the host owns or lends it.
#include "plugins/http_client/config/OptionReader.hpp"

#include <algorithm>
#include <charconv>
#include <cstring>
#include <stdexcept>
#include <utility>

#include "connectivity/value_access.hpp"

namespace connectivity::plugins {

namespace {

map_t::iterator findKey(map_t& map, std::string_view key) {
  auto entry = map.begin();
  while (!entry.atEnd() && !(entry.key().isString() && key == entry.key().text())) ++entry;
  return entry;
}

std::string joined(const std::string& path, std::string_view key) {
  return path.empty() ? std::string(key) : path + "/" + std::string(key);
}

std::string quoted(const std::string& value) { return "\"" + value + "\""; }

struct Integer {
  std::optional<std::int64_t> value;
  bool isTooLarge = false;  // it is one, but not of 64 bits
};

Integer wholeInteger(const data_t& value) {
  if (value.tag() == QOR_INT64) return {get<long long>(value)};
  if (!value.isString()) return {};
  const std::string_view text = value.text();
  std::int64_t number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (end != text.data() + text.size() || error == std::errc::invalid_argument) return {};
  if (error == std::errc::result_out_of_range) return {std::nullopt, true};
  return {number};
}

// "a", "a or b", "a, b or c".
std::string enumerated(std::span<const char* const> values) {
  std::string text;
  for (std::size_t i = 0; i < values.size(); ++i) {
    if (i > 0) text += i + 1 == values.size() ? " or " : ", ";
    text += values[i];
  }
  return text;
}

}  // namespace

OptionReader::OptionReader(std::string subject, const map_t& configuration)
    : _subject(std::move(subject)), _left(configuration.copy()) {}

std::string OptionReader::text(const Name& name, std::string absent) {
  std::string path;
  const auto value = take(name, path);
  if (!value) return absent;
  const bool hasText = value->isString() || value->tag() == QOR_BOOL ||
                       value->tag() == QOR_DOUBLE || value->tag() == QOR_INT64;
  if (!hasText) failKind(path, "a string", *value);
  return convert_to<std::string>(*value);
}

std::int64_t OptionReader::integer(const Name& name, std::int64_t absent, const Range& range) {
  std::string path;
  const auto value = take(name, path);
  if (!value) return absent;
  const auto [number, isTooLarge] = wholeInteger(*value);
  if (isTooLarge) fail(path, quoted(value->text()) + " is outside the range of 64 bits");
  if (!number) failKind(path, "an integer", *value);
  if (*number < range.least || *number > range.most) {
    const bool open = range.most == std::numeric_limits<std::int64_t>::max();
    fail(path, quoted(std::to_string(*number)) + " is not in the range " +
                   (open ? "at least " + std::to_string(range.least)
                         : "between " + std::to_string(range.least) + " and " +
                               std::to_string(range.most)));
  }
  return *number;
}

std::int64_t OptionReader::integer(const Name& name, std::int64_t absent) {
  return integer(name, absent, Range());
}

bool OptionReader::boolean(const Name& name, bool absent) {
  std::string path;
  const auto value = take(name, path);
  if (!value) return absent;
  if (value->tag() == QOR_BOOL) return get<bool>(*value);
  if (!value->isString()) failKind(path, "a boolean", *value);
  const std::string_view text = value->text();
  if (text != "true" && text != "false") fail(path, quoted(std::string(text)) + " is not a bool");
  return text == "true";
}

std::string OptionReader::oneOf(const Name& name, std::span<const char* const> values,
                                std::string absent) {
  std::string path;
  const auto value = take(name, path);
  if (!value) return absent;
  if (!value->isString()) failKind(path, "a string", *value);
  const std::string_view text = value->text();
  if (std::find(values.begin(), values.end(), text) == values.end()) {
    fail(path, quoted(std::string(text)) + " is not in the enumeration " + enumerated(values));
  }
  return std::string(text);
}

std::string_view OptionReader::spelling(const Name& name) {
  return name.older && !findKey(_left, *name.older).atEnd() ? *name.older : name.spelling;
}

void OptionReader::finish() const {
  std::vector<std::string> unknown;
  collectUnknown(_left, "", unknown);
  if (unknown.empty()) return;
  std::sort(unknown.begin(), unknown.end());
  std::string text = unknown.front();
  for (std::size_t i = 1; i < unknown.size(); ++i) text += "; " + unknown[i];
  throw std::runtime_error(text);
}

// The value under either spelling, and in `path` the spelling that was used.
std::optional<data_t> OptionReader::take(const Name& name, std::string& path) {
  auto value = take(name.spelling);
  path = name.spelling;
  if (!name.older) return value;
  auto olderValue = take(*name.older);
  if (value && olderValue) {
    throw std::runtime_error("You cannot specify both " + std::string(name.spelling) + " and " +
                             std::string(*name.older));
  }
  if (!olderValue) return value;
  path = *name.older;
  return olderValue;
}

std::optional<data_t> OptionReader::take(std::string_view path) {
  map_t* map = &_left;
  std::string entered;
  for (auto slash = path.find('/'); slash != std::string_view::npos; slash = path.find('/')) {
    map = enter(*map, path.substr(0, slash), entered);
    if (map == nullptr) return std::nullopt;
    entered = joined(entered, path.substr(0, slash));
    path.remove_prefix(slash + 1);
  }
  if (path.empty()) {
    throw std::runtime_error(_subject + " cannot specify an empty nested{} name");
  }
  const auto entry = findKey(*map, path);
  if (entry.atEnd()) return std::nullopt;
  data_t value = std::move(entry.value());
  map->erase(entry);
  return value;
}

// The map under `key` of the one at `path`, or null where there is none.
map_t* OptionReader::enter(map_t& map, std::string_view key, const std::string& path) {
  if (key.empty()) throw std::runtime_error(_subject + " cannot specify an empty nested{} name");
  const auto entry = findKey(map, key);
  if (entry.atEnd()) return nullptr;
  const std::string nestedPath = joined(path, key);
  if (entry.value().tag() != QOR_MAP) fail(nestedPath, "is an incorrectly nested map");
  _nested.insert(nestedPath);
  return &get<map_t>(entry.value());
}

void OptionReader::collectUnknown(const map_t& map, const std::string& path,
                                  std::vector<std::string>& unknown) const {
  for (const auto entry : map) {
    const std::string key = toText(entry.first);
    const std::string nestedPath = joined(path, key);
    if (entry.second.tag() == QOR_MAP && entry.first.isString() && _nested.contains(nestedPath)) {
      collectUnknown(get<map_t>(entry.second), nestedPath, unknown);
    } else {
      unknown.push_back("Unknown configuration element " + key +
                        (path.empty() ? "" : " in " + path));
    }
  }
}

void OptionReader::fail(std::string_view path, const std::string& text) const {
  throw std::runtime_error(_subject + " " + std::string(path) + " " + text);
}

void OptionReader::failKind(std::string_view path, const char* expected,
                            const data_t& value) const {
  // As a chain file or JSON has it: a key without a value.
  const char* const actual = value.empty() ? "null" : kindOf(value);
  fail(path, std::string("must be ") + expected + " but it's actually " + actual);
}

}  // namespace connectivity::plugins
