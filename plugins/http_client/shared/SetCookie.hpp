// One Set-Cookie line, read as browsers do (RFC 6265, 5.2), into Poco's cookie class.
//
// Pure functions; any thread may call them.
#pragma once

#include <chrono>
#include <optional>
#include <string_view>

#include <Poco/Net/HTTPCookie.h>

namespace connectivity::plugins {

struct SetCookie {
  enum class Outcome { Usable, WithoutName, BadName, BadValue };
  Outcome outcome;
  // Name and value as received, the path ("" where none is given), and the lifetime in seconds: -1
  // for a session cookie, 0 for one that has expired. Holds name and value where it is not usable.
  Poco::Net::HTTPCookie cookie;
};

// The pair before the first semicolon is the cookie; of the attributes Path, Max-Age and Expires
// count, the last of each. Max-Age wins over Expires. Lifetimes saturate at 2^31-1 seconds. What
// cannot be read is left out, as is every other attribute.
// A cookie without "=" or with nothing before it has no name. A name or value with a control or
// non-ASCII character is a bad one.
SetCookie readSetCookie(std::string_view line, std::chrono::system_clock::time_point now);

// A date in any of the forms that cookies use (RFC 6265, 5.1.1), as UTC.
std::optional<std::chrono::sys_seconds> readCookieDate(std::string_view text);

}  // namespace connectivity::plugins
