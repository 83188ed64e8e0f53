// The content codings that the transport understands, by the names that they have on the wire.
//
// Immutable after loading; any thread may look up.
#pragma once

#include <map>
#include <string>

namespace connectivity::plugins {

enum class SupportedMediaType : int {
  empty = 0,     // no Content-Encoding header
  identity = 1,  // no coding
  gzip = 2,      // RFC 1952
  deflate = 3,   // zlib's format around deflate, RFC 1950
  unsupported = 4
};

// What a lookup uses where the header is absent.
inline constexpr char noContentEncoding[] = "empty";

// "empty", "identity", "gzip" and "deflate", in lower case. Built when the library is loaded.
extern const std::map<std::string, SupportedMediaType> mediaTypes;

// The coding of exactly this name, or unsupported. Case counts: "GZIP" is unsupported.
SupportedMediaType mediaTypeOf(const std::string& name) noexcept;

}  // namespace connectivity::plugins
