// Where a request goes: the target of its request line, and the place that a Location header names.
//
// Works on the encoded text (RFC 3986): what came percent-encoded stays as it was, and only
// characters that may not stand in a path or a query are encoded. Any thread may call.
#pragma once

#include <cstdint>
#include <map>
#include <string>

namespace connectivity::plugins {

// `basePath` and `path` as they stand, one behind the other, with a "/" in front if they have none.
// A query in them is kept and the parameters follow it, names and values encoded; a fragment is
// dropped. The result is always a path, also where it looks like "//host/x" or "http://host/x".
// A "%" without two hexadecimal digits behind it is a std::runtime_error "Invalid percent-encoding
// in http.path: <text>", or "... in the query of http.path: <text>".
std::string requestTarget(const std::string& basePath, const std::string& path,
                          const std::map<std::string, std::string>& query);

// An absolute URI in its parts.
struct Location {
  std::string scheme;      // lower case
  std::string host;        // an IPv6 address without its brackets
  std::uint16_t port = 0;  // the scheme's own where the URI names none; 0 for other than http(s)
  std::string target;      // path and query, percent-encoded
};

// What `location` means in the response to a request for `current` (RFC 3986, 5.2): an absolute
// URI, or one relative to the scheme, the server, the path, or the query. Its fragment and user
// information are dropped; where it names no host, the host stays as it is in `current`. A host
// that it names comes in lower case. Throws std::runtime_error "Invalid Location header (<reason>):
// <text>".
Location resolveLocation(const Location& current, const std::string& location);

// "http://host/x", the port only where it is not the scheme's own.
std::string toString(const Location& location);

}  // namespace connectivity::plugins
