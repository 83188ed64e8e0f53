// The target of a request line.
//
// Works on the encoded text (RFC 3986): what came percent-encoded stays as it was, and only
// characters that may not stand in a path or a query are encoded. Any thread may call.
#pragma once

#include <map>
#include <string>
#include <string_view>

namespace connectivity::plugins {

// `basePath` and `path` as they stand, one behind the other, with a "/" in front if they have none.
// A query in them is kept and the parameters follow it, names and values encoded; a fragment is
// dropped. The result is always a path, also where it looks like "//host/x" or "http://host/x".
//   "/api", "/items?a=1#top", {b: "x y"} -> "/api/items?a=1&b=x%20y"
// A "%" without two hexadecimal digits behind it is a RefusedRequest "Invalid percent-encoding in
// http.path: <text>", or "... in the query of http.path: <text>".
std::string requestTarget(const std::string& basePath, const std::string& path,
                          const std::map<std::string, std::string>& query);

// `target` with an encoded query behind the one that it may have.
std::string withQuery(std::string target, std::string_view query);

}  // namespace connectivity::plugins
