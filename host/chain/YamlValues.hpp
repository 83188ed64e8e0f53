// YAML as values of the data model: the configuration that a transport receives.
//
// A plain scalar is what YAML 1.2's core schema takes it for where its text would come back from
// the value: null (~, null, nothing), true and false, decimal integers of 64 bits, and numbers with
// a fraction as JSON has them. Everything else is text as it is written, so that nothing of a
// password, a version or a code is lost: 1.50, 0x1F, 1e5, +49, 007, integers beyond 64 bits, True,
// yes, .inf, dates; and so is whatever is quoted. The tags !!str, !!int, !!float, !!bool and !!null
// hold, with all that the core schema reads. Keys are texts as they are written.
#pragma once

#include <optional>
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

// ChainFileError: a repeated key, a key that is no scalar, a text or a key with U+0000, more than
// 200 levels (an alias may lead back to a list or a map that holds it).
connectivity::data_t yamlValue(const YAML::Node& node, const YamlPlace& place);

// Throws ChainFileError where a key of the map stands twice, is no scalar or holds U+0000.
// REQUIRES: a map.
void refuseRepeatedKeys(const YAML::Node& map, const YamlPlace& place);

// What the core schema takes the scalar for, True and 2.50 too: for a key that asks for a boolean
// or a number. Nothing where it is a text, or no scalar.
std::optional<connectivity::data_t> yamlCoreValue(const YAML::Node& node);

// Whether the node is a scalar that yamlValue() takes for a text.
bool isYamlText(const YAML::Node& node);

}  // namespace host
