// One Set-Cookie line, read as browsers do (RFC 6265, 5.2).
//
// Pure functions; any thread may call them. They take time in proportion to the line.
#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <string_view>

namespace connectivity::plugins {

struct SetCookie {
  enum class Outcome { Usable, WithoutName, BadName, BadValue };
  Outcome outcome = Outcome::WithoutName;
  // As received; without the blanks around them. Also where the cookie is not usable, but for one
  // without a name.
  std::string name;
  std::string value;
  std::string path;  // "" where none is given
  int maxAge = -1;   // the lifetime in seconds: -1 for a session cookie, 0 for one that has expired
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
