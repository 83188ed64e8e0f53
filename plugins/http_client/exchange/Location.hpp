// The place that a Location header names.
//
// Works on the encoded text (RFC 3986): what came percent-encoded stays as it was. Pure functions;
// any thread may call them.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace connectivity::plugins {

// An absolute URI in its parts.
struct Location {
  std::string scheme;      // lower case
  std::string host;        // an IPv6 address without its brackets
  std::uint16_t port = 0;  // the scheme's own where the URI names none; 0 for other than http(s)
  std::string target;      // path and query, percent-encoded
};

// What `location`, bytes as they were sent, means in the response to a request for `current`
// (RFC 3986, 5.2): an absolute URI, or one relative to the scheme, the server, the path, or the
// query. Its fragment and user information are dropped; where it names no host, the host stays as
// it is in `current`. A host that it names comes in lower case.
//   http://a/b/c, "../d?e#f" -> http://a/d?e
// Throws std::runtime_error "Invalid Location header (<reason>): <text>".
Location resolveLocation(const Location& current, std::string_view location);

// "http://host/x", the port only where it is not the scheme's own.
std::string toString(const Location& location);

}  // namespace connectivity::plugins
