// YAML as values of the data model: the configuration that a transport receives.
//
// Plain scalars are read by YAML 1.2's core schema: null, true and false, integers (decimal, 0o,
// 0x) as 64-bit integers, and numbers with a fraction or an exponent, .inf and .nan, and integers
// beyond 64 bits as doubles. A decimal integer with a leading zero stays a text, so that nothing of
// a password or a code is lost. Everything else, and whatever is quoted, is text. The tags !!str,
// !!int, !!float, !!bool and !!null hold. Keys are texts as they are written.
#pragma once

#include <string>

#include <yaml-cpp/yaml.h>

#include "connectivity/data_t.hpp"
#include "host/chain/ChainFileError.hpp"

namespace host {

// Where a node stands, for errors.
struct YamlPlace {
  std::string file;
  std::string key;  // as a path: chains[0].config.port
  int depth = 0;    // levels above the node
};

FilePosition yamlPosition(const YAML::Mark& mark);
inline FilePosition yamlPosition(const YAML::Node& node) { return yamlPosition(node.Mark()); }

// ChainFileError: a repeated key, a key that is no scalar, text with U+0000, more than 200 levels
// (an alias may lead back to a list or a map that holds it).
connectivity::data_t yamlValue(const YAML::Node& node, const YamlPlace& place);

// Throws ChainFileError where a key of the map stands twice or is no scalar. REQUIRES: a map.
void refuseRepeatedKeys(const YAML::Node& map, const YamlPlace& place);

// Whether the node is a scalar that the core schema takes for a text.
bool isYamlText(const YAML::Node& node);

}  // namespace host
