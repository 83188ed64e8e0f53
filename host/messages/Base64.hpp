// Base64 (RFC 4648, section 4: the standard alphabet, with padding).
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "connectivity/data_t.hpp"

namespace host {

// Appends the encoded bytes to `out`.
void appendBase64(std::string_view bytes, std::string& out);

// The decoded bytes; nothing where the text is not exactly what the encoder would have written:
// characters outside the alphabet, missing padding, or bits left over.
std::optional<connectivity::buffer_t> decodeBase64(std::string_view text);

}  // namespace host
