// The JSON text of values that hold no others. The form of each is told in JsonWriter.hpp.
#pragma once

#include <string>
#include <string_view>

#include "connectivity/data_t.hpp"

namespace host {

// Appends the text as a JSON string.
void appendJsonString(std::string_view text, std::string& out);
// Appends a value. REQUIRES: it is no list and no map.
void appendJsonLeaf(const connectivity::data_t& value, std::string& out);

}  // namespace host
