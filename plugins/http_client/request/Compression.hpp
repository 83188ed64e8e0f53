// Compressing the body of a request.
#pragma once

#include <istream>

#include "connectivity/data_t.hpp"
#include "plugins/http_client/text/MediaTypes.hpp"

namespace connectivity::plugins {

// The whole of `input`, compressed: as gzip, or in zlib's format for every other coding, at zlib's
// default level; in a new buffer. Throws orrery::StreamException "Serious I / O error" where a
// stream turns bad, "I/O error" where one stops before its end.
data_t getCompressedPayload(std::istream& input, const SupportedMediaType& coding);

}  // namespace connectivity::plugins
