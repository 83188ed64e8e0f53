// Paths and queries as they go over the wire (RFC 3986, 2.1, 3.3 and 3.4).
//
// Works on the encoded text: what came percent-encoded stays as it was, and only characters that
// may not stand there are encoded. Pure functions; any thread may call them.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace connectivity::plugins {

// "/a b/%2F" -> "/a%20b/%2F"; nothing where a "%" has no two hexadecimal digits behind it.
std::optional<std::string> encodedPath(std::string_view path);
// The same for a query, where a "?" may stand too.
std::optional<std::string> encodedQuery(std::string_view query);

// A reference without its fragment, split before its query.
struct PathAndQuery {
  std::string_view path;
  std::optional<std::string_view> query;  // without the "?"
};

// "/a?b=c#d" -> "/a" and "b=c". Parts of `text`, which must outlive them.
PathAndQuery splitQuery(std::string_view text) noexcept;

}  // namespace connectivity::plugins
