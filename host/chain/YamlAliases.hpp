// How much the aliases of a YAML text stand for: a few lines of them can stand for more values than
// any machine holds.
#pragma once

#include <cstdint>
#include <string>

#include <yaml-cpp/yaml.h>

namespace host {

inline constexpr std::uint64_t maxAliasedNodes = 100000;

// Where the aliases so far expand to more than that; a null mark where none do. An alias to the
// list or the map that it stands in counts nothing. Throws YAML::Exception where the text is no
// YAML.
YAML::Mark excessiveAlias(const std::string& text);

}  // namespace host
