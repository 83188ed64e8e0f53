#include "host/chain/ChainFile.hpp"

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <initializer_list>
#include <set>
#include <span>
#include <sstream>
#include <string_view>
#include <utility>

#include <yaml-cpp/yaml.h>

#include "connectivity/value_access.hpp"
#include "host/chain/ChainFileError.hpp"
#include "host/chain/YamlAliases.hpp"
#include "host/chain/YamlValues.hpp"
#include "host/program/NearestWord.hpp"

namespace host {

namespace {

// One map of the file, read key by key.
class Section {
 public:
  Section(const YAML::Node& node, YamlPlace place) : _node(node), _place(std::move(place)) {
    if (!_node.IsMap()) failKind(_node, _place.key, "must be a map");
    refuseRepeatedKeys(_node, _place);
  }

  // Throws unless every key is one of these. `hint` is for a key that is near none of them.
  void allow(std::initializer_list<std::string_view> keys, const std::string& hint = {}) const {
    for (const auto& entry : _node) {
      const std::string& key = entry.first.Scalar();
      if (std::find(keys.begin(), keys.end(), key) != keys.end()) continue;
      const std::string near = didYouMean(key, std::span(keys.begin(), keys.size()));
      fail(entry.first, path(key), "unknown key" + (near.empty() ? listOf(keys) + hint : near));
    }
  }

  const YAML::Node& node() const { return _node; }
  YAML::Node find(const std::string& key) const { return _node[key]; }
  std::string path(const std::string& key) const {
    return _place.key.empty() ? key : _place.key + "." + key;
  }
  YamlPlace placeOf(const std::string& key) const { return {_place.file, path(key)}; }

  std::optional<PlacedText> optionalText(const std::string& key) const {
    const YAML::Node value = find(key);
    if (!value) return std::nullopt;
    if (!isYamlText(value)) {
      failKind(value, path(key),
               value.IsScalar() ? "must be a text: put it in quotes" : "must be a text");
    }
    if (value.Scalar().empty()) fail(value, path(key), "must not be empty");
    if (value.Scalar().find('\0') != std::string::npos) {
      fail(value, path(key), "must not hold U+0000");
    }
    return PlacedText{value.Scalar(), yamlPosition(value), path(key)};
  }

  PlacedText text(const std::string& key) const {
    auto value = optionalText(key);
    if (!value) fail(_node, path(key), "must be given");
    return std::move(*value);
  }

  bool boolean(const std::string& key, bool absent) const {
    const YAML::Node node = find(key);
    if (!node) return absent;
    const auto value = yamlCoreValue(node);
    if (!value || value->tag() != QOR_BOOL) failKind(node, path(key), "must be true or false");
    return connectivity::get<bool>(*value);
  }

  int level(const std::string& key, int absent) const {
    const auto name = optionalText(key);
    if (!name) return absent;
    const auto level = logLevelNamed(name->text);
    if (!level) {
      fail(find(key), path(key),
           "must be error, warn, info, debug or trace" + didYouMean(name->text, logLevelNames()));
    }
    return *level;
  }

  int port(const std::string& key) const {
    const YAML::Node node = find(key);
    if (!node) fail(_node, path(key), "must be given");
    const auto value = yamlCoreValue(node);
    const std::string range = "must be an integer between 0 and 65535";
    if (!value || value->tag() != QOR_INT64) failKind(node, path(key), range);
    const long long port = connectivity::get<long long>(*value);
    if (port < 0 || port > 65535) fail(node, path(key), range);
    return static_cast<int>(port);
  }

  // For a value of another kind. Where there is none, the key is the place to look at.
  [[noreturn]] void failKind(const YAML::Node& at, const std::string& key,
                             const std::string& text) const {
    if (!at.IsNull()) fail(at, key, text);
    const std::string actually = text + " but it's actually null";
    for (const auto& entry : _node) {
      if (entry.second.is(at)) fail(entry.first, key, actually);
    }
    fail(at, key, actually);
  }
  [[noreturn]] void fail(const YAML::Node& at, const std::string& key,
                         const std::string& text) const {
    throw ChainFileError(_place.file, yamlPosition(at), key, text);
  }

 private:
  static std::string listOf(std::initializer_list<std::string_view> keys) {
    std::string list;
    for (const std::string_view key : keys) list.append(list.empty() ? "; known: " : ", ") += key;
    return list;
  }

  const YAML::Node _node;
  const YamlPlace _place;
};

bool isIdentifier(std::string_view text) {
  const auto isWordCharacter = [](unsigned char c) { return std::isalnum(c) != 0 || c == '_'; };
  return !text.empty() && std::isdigit(static_cast<unsigned char>(text.front())) == 0 &&
         std::all_of(text.begin(), text.end(), isWordCharacter);
}

PlacedText readTransport(const Section& chain) {
  PlacedText transport = chain.text("transport");
  if (!isIdentifier(transport.text)) {
    chain.fail(chain.find("transport"), transport.key,
               "must be the name of a transport: letters, digits and _");
  }
  return transport;
}

Codec readCodec(const Section& chain) {
  const auto name = chain.optionalText("codec");
  if (!name) return Codec::Text;
  const auto codec = codecNamed(name->text);
  if (!codec) {
    chain.fail(chain.find("codec"), name->key,
               "must be text, json or none" + didYouMean(name->text, codecNames()));
  }
  return *codec;
}

connectivity::map_t readConfig(const Section& chain) {
  const YAML::Node node = chain.find("config");
  if (!node || node.IsNull()) return {};
  if (!node.IsMap()) chain.fail(node, chain.path("config"), "must be a map");
  auto value = yamlValue(node, chain.placeOf("config"));
  return std::move(connectivity::get<connectivity::map_t>(value));
}

ChainDefinition readChain(const Section& chain) {
  chain.allow({"id", "name", "transport", "library", "codec", "assignRequestIds", "config", "input",
               "output"},
              ". What the transport itself is told stands in config");
  ChainDefinition definition;
  definition.id = chain.text("id").text;
  definition.name = chain.text("name").text;
  definition.transport = readTransport(chain);
  definition.library = chain.optionalText("library");
  definition.codec = readCodec(chain);
  definition.assignRequestIds = chain.boolean("assignRequestIds", true);
  definition.config = readConfig(chain);
  if (auto input = chain.optionalText("input")) definition.input = std::move(*input);
  if (auto output = chain.optionalText("output")) definition.output = std::move(*output);
  return definition;
}

std::vector<ChainDefinition> readChains(const Section& file) {
  const YAML::Node list = file.find("chains");
  if (!list) file.fail(file.node(), "chains", "must be given");
  if (!list.IsSequence()) {
    file.failKind(list, "chains",
                  "must be a list: \"- \" stands before the first key of each chain");
  }
  if (list.size() == 0) file.fail(list, "chains", "must hold a chain");
  std::vector<ChainDefinition> chains;
  for (std::size_t i = 0; i < list.size(); ++i) {
    const YamlPlace place = file.placeOf("chains[" + std::to_string(i) + "]");
    chains.push_back(readChain(Section(list[i], place)));
  }
  return chains;
}

LogDefinition readLog(const Section& file) {
  LogDefinition definition;
  const YAML::Node node = file.find("log");
  if (!node) return definition;
  if (!node.IsMap()) file.failKind(node, "log", "must be a map, such as {level: info}");
  const Section log(node, file.placeOf("log"));
  log.allow({"level", "levels"});
  definition.level = log.level("level", definition.level);
  if (!log.find("levels")) return definition;
  const Section levels(log.find("levels"), log.placeOf("levels"));
  for (const auto& entry : levels.node()) {
    const std::string& category = entry.first.Scalar();
    definition.levels[category] = levels.level(category, definition.level);
  }
  return definition;
}

std::optional<StatusDefinition> readStatus(const Section& file) {
  const YAML::Node node = file.find("status");
  if (!node) return std::nullopt;
  if (!node.IsMap()) file.failKind(node, "status", "must be a map, such as {port: 9090}");
  const Section status(node, file.placeOf("status"));
  status.allow({"port", "address"});
  StatusDefinition definition;
  definition.port = status.port("port");
  if (auto address = status.optionalText("address")) definition.address = address->text;
  return definition;
}

// The line with that number, counted from 0.
std::string_view lineOf(std::string_view text, int number) {
  for (; number > 0; --number) {
    text.remove_prefix(std::min(text.find('\n'), text.size() - 1) + 1);
    if (text.empty()) return text;
  }
  return text.substr(0, text.find('\n'));
}

bool isIndentedWithTab(std::string_view line) {
  const auto tab = line.find('\t');
  return tab != std::string_view::npos && line.find_first_not_of(" \t") > tab;
}

// What probably makes the text no YAML.
std::string yamlHint(std::string_view text, const YAML::Exception& error) {
  if (!text.empty() && isIndentedWithTab(lineOf(text, error.mark.line))) {
    return " (indent with spaces, not with tabs)";
  }
  static const std::map<std::string, const char*> hints{
      {YAML::ErrorMsg::END_OF_MAP, " (the line is not indented as those above)"},
      {YAML::ErrorMsg::END_OF_SEQ, " (the line is not indented as those above)"},
      {YAML::ErrorMsg::END_OF_MAP_FLOW, " (a { has no })"},
      {YAML::ErrorMsg::END_OF_SEQ_FLOW, " (a [ has no ])"},
      {YAML::ErrorMsg::MAP_VALUE,
       " (the line above lacks its colon, or a text that holds a colon lacks its quotes)"}};
  const auto hint = hints.find(error.msg);
  return hint == hints.end() ? "" : hint->second;
}

YAML::Node loadYaml(const std::string& text, const std::string& path) {
  try {
    std::vector<YAML::Node> documents = YAML::LoadAll(text);
    const YAML::Mark excess = excessiveAlias(text);
    if (!excess.is_null()) {
      throw ChainFileError(path, yamlPosition(excess), "",
                           "the aliases stand for more than 100000 values");
    }
    if (documents.empty()) throw ChainFileError(path, {1, 1}, "chains", "must be given");
    if (documents.size() > 1) {
      throw ChainFileError(path, yamlPosition(documents[1]), "", "a second document");
    }
    return documents.front();
  } catch (const YAML::Exception& error) {
    throw ChainFileError(path, yamlPosition(error.mark), "",
                         "not valid YAML: " + error.msg + yamlHint(text, error));
  }
}

}  // namespace

std::span<const std::string_view> logLevelNames() {
  static constexpr std::array<std::string_view, 5> names{"error", "warn", "info", "debug", "trace"};
  return names;
}

std::optional<int> logLevelNamed(const std::string& name) {
  static const std::map<std::string, int> levels{{"error", QOR_LOG_ERROR},
                                                 {"warn", QOR_LOG_WARN},
                                                 {"info", QOR_LOG_INFO},
                                                 {"debug", QOR_LOG_DEBUG},
                                                 {"trace", QOR_LOG_TRACE}};
  const auto level = levels.find(name);
  if (level == levels.end()) return std::nullopt;
  return level->second;
}

ChainFile parseChainFile(const std::string& text, const std::string& path) {
  const YAML::Node root = loadYaml(text, path);
  const Section section(root, {path, ""});
  section.allow({"chains", "log", "status"});
  ChainFile file;
  file.path = path;
  file.chains = readChains(section);
  file.log = readLog(section);
  file.status = readStatus(section);
  return file;
}

ChainFile readChainFile(const std::string& path) {
  std::ifstream stream(path, std::ios::binary);
  if (!stream || std::filesystem::is_directory(path)) {
    const std::string reason = stream ? "it is a directory" : std::strerror(errno);
    throw ChainFileError(path, {}, "", "cannot read the chain file: " + reason);
  }
  std::ostringstream text;
  text << stream.rdbuf();
  return parseChainFile(text.str(), path);
}

}  // namespace host
