#include "tests/docs/Values.hpp"

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <variant>

#include <yaml-cpp/yaml.h>

#include "connectivity/value_access.hpp"
#include "host/chain/YamlValues.hpp"
#include "host/messages/JsonReader.hpp"
#include "host/messages/JsonWriter.hpp"
#include "host/messages/MessageReader.hpp"
#include "host/messages/MessageWriter.hpp"
#include "tests/docs/Markdown.hpp"
#include "tests/support/TemporaryDirectory.hpp"

namespace docs_tests {

using connectivity::data_t;
using connectivity::get;
using connectivity::map_t;
using connectivity::Message;

map_t configOf(const std::string& yaml) {
  data_t value = host::yamlValue(YAML::Load(yaml), {"example", ""});
  return std::move(get<map_t>(value));
}

data_t jsonOf(const std::string& text) {
  const bool isPair = text.starts_with('"') && text.find("\":") != std::string::npos;
  return host::JsonReader(host::JsonReader::Forms::Extended).read(isPair ? "{" + text + "}" : text);
}

Message messageOf(const std::string& line) {
  host::MessageReader reader(host::Codec::Text, false);
  return std::get<Message>(reader.read(line, 1));
}

std::string lineOf(const data_t& payload, const map_t& metadata) {
  std::string line;
  host::MessageWriter(host::Codec::Text, line).writeResponse({payload.copy(), metadata.copy()});
  return line;
}

void merge(map_t& into, const map_t& from) {
  for (const auto entry : from) {
    data_t* there = into.find(entry.first);
    if (there == nullptr) {
      into.insert(entry.first.copy(), entry.second.copy());
    } else if (there->tag() == QOR_MAP && entry.second.tag() == QOR_MAP) {
      merge(get<map_t>(*there), get<map_t>(entry.second));
    } else {
      *there = entry.second.copy();
    }
  }
}

bool matches(std::string_view text, std::string_view pattern) {
  constexpr std::string_view dots = "...";
  constexpr std::string_view ellipsis = "…";
  const auto ascii = pattern.find(dots);
  const auto wide = pattern.find(ellipsis);
  const auto gap = std::min(ascii, wide);
  if (gap == std::string_view::npos) return text == pattern;
  if (!text.starts_with(pattern.substr(0, gap))) return false;
  const auto rest = pattern.substr(gap + (gap == wide ? ellipsis.size() : dots.size()));
  for (std::size_t from = gap; from <= text.size(); ++from) {
    if (matches(text.substr(from), rest)) return true;
  }
  return false;
}

bool holds(const data_t& value, const data_t& expected) {
  if (expected.tag() == QOR_MAP && value.tag() == QOR_MAP) {
    const map_t& map = get<map_t>(value);
    for (const auto entry : get<map_t>(expected)) {
      const data_t* found = map.find(entry.first);
      if (found == nullptr || !holds(*found, entry.second)) return false;
    }
    return true;
  }
  if (expected.tag() == QOR_LIST && value.tag() == QOR_LIST) {
    const auto& list = get<connectivity::list_t>(value);
    const auto& wanted = get<connectivity::list_t>(expected);
    return std::equal(list.begin(), list.end(), wanted.begin(), wanted.end(), holds);
  }
  if (expected.isString() && value.isString()) return matches(value.text(), expected.text());
  return host::toJson(value) == host::toJson(expected);
}

namespace {

class LiteralScanner {
 public:
  LiteralScanner(std::string_view source, std::vector<std::string>& out)
      : _source(source), _out(out) {}

  void run() {
    while (_at < _source.size()) step();
    flush();
  }

 private:
  void step() {
    const char c = _source[_at];
    if (_source.substr(_at).starts_with("//")) {
      skipTo("\n");
    } else if (_source.substr(_at).starts_with("/*")) {
      skipTo("*/");
    } else if (c == '\'') {
      skipCharacter();
    } else if (_source.substr(_at).starts_with("R\"")) {
      takeRawLiteral();
    } else if (c == '"') {
      takeLiteral();
    } else {
      // Literals with white space between them are one.
      if (std::isspace(static_cast<unsigned char>(c)) == 0) flush();
      ++_at;
    }
  }

  void skipTo(std::string_view end) {
    const auto found = _source.find(end, _at);
    _at = found == std::string_view::npos ? _source.size() : found + end.size();
  }

  // A character, or the separator of a number's digits.
  void skipCharacter() {
    if (_source.substr(_at).starts_with("'\\")) {
      skipTo("\\");
      skipTo("'");
      _at = _source[_at] == '\'' ? _at + 1 : _at;
    } else {
      _at += _at + 2 < _source.size() && _source[_at + 2] == '\'' ? 3 : 1;
    }
  }

  // R"delimiter(text)delimiter"
  void takeRawLiteral() {
    _open = true;
    const auto open = _source.find('(', _at);
    const std::string end = ")" + std::string(_source.substr(_at + 2, open - _at - 2)) + "\"";
    const auto close = _source.find(end, open);
    _literal += _source.substr(open + 1, close - open - 1);
    _at = close + end.size();
  }

  void takeLiteral() {
    _open = true;
    for (++_at; _at < _source.size() && _source[_at] != '"'; ++_at) {
      if (_source[_at] != '\\') {
        _literal += _source[_at];
        continue;
      }
      ++_at;
      _literal += _source[_at] == 'n' ? '\n' : _source[_at];
    }
    ++_at;
  }

  void flush() {
    if (_open) _out.push_back(_literal);
    _open = false;
    _literal.clear();
  }

  const std::string_view _source;
  std::vector<std::string>& _out;
  std::size_t _at = 0;
  bool _open = false;
  std::string _literal;
};

bool looksLikeKey(const std::string& text) {
  return !text.empty() && std::isalpha(static_cast<unsigned char>(text.front())) != 0 &&
         std::ranges::all_of(
             text, [](unsigned char c) { return std::isalnum(c) != 0 || c == '/' || c == '.'; });
}

}  // namespace

std::vector<std::string> sourcesBelow(const std::vector<std::string>& folders) {
  std::vector<std::string> sources;
  for (const std::string& folder : folders) {
    for (const auto& entry : std::filesystem::recursive_directory_iterator(projectFile(folder))) {
      const auto extension = entry.path().extension();
      if (extension != ".cpp" && extension != ".hpp" && extension != ".h") continue;
      sources.push_back(test_support::readFile(entry.path().string()));
    }
  }
  return sources;
}

std::vector<std::string> literalsBelow(const std::vector<std::string>& folders) {
  std::vector<std::string> literals;
  for (const std::string& source : sourcesBelow(folders)) LiteralScanner(source, literals).run();
  return literals;
}

std::set<std::string> keyLiteralsBelow(const std::vector<std::string>& folders) {
  std::set<std::string> keys;
  for (std::string& literal : literalsBelow(folders)) {
    if (looksLikeKey(literal)) keys.insert(std::move(literal));
  }
  return keys;
}

}  // namespace docs_tests
