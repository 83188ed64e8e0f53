// The examples of the documents as values: YAML for configurations, JSON for messages, and what is
// asked of an answer.
#pragma once

#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "connectivity/data_t.hpp"

namespace docs_tests {

// The configuration that a line (or a flow map) of YAML says, as a transport receives it.
connectivity::map_t configOf(const std::string& yaml);
// A JSON value; `"key": value` without braces around it is an object.
connectivity::data_t jsonOf(const std::string& text);
// A message as a line of JSON has it, for a transport.
connectivity::Message messageOf(const std::string& line);
// The line that the stand-alone host writes for an answer.
std::string lineOf(const connectivity::data_t& payload, const connectivity::map_t& metadata);

// Puts each entry over what is there; maps are merged.
void merge(connectivity::map_t& into, const connectivity::map_t& from);

// Whether `text` is the pattern, in which "..." and "…" stand for anything.
bool matches(std::string_view text, std::string_view pattern);
// Whether the value has all that the expected one has: maps may hold more, texts may be shortened
// with "...".
bool holds(const connectivity::data_t& value, const connectivity::data_t& expected);

// The source files below these folders of the project.
std::vector<std::string> sourcesBelow(const std::vector<std::string>& folders);
// The string literals of source files below these folders of the project, adjacent ones joined.
std::vector<std::string> literalsBelow(const std::vector<std::string>& folders);
// Those that look like keys: letters, digits, "/" and ".", beginning with a letter.
std::set<std::string> keyLiteralsBelow(const std::vector<std::string>& folders);

}  // namespace docs_tests
