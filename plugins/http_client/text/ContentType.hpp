// What a response's Content-Type says. Values are bytes from the wire, in ISO-8859-1, and so are
// the results.
//
// An absent, empty or malformed value labels nothing. A value is well-formed where it begins with
// two tokens, joined by a slash, and then ends or goes on with a semicolon.
//
// Pure functions; any thread may call them. They take time in proportion to the value.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace connectivity::plugins {

struct ContentType {
  std::string type;     // without parameters, in the sender's case; "" where nothing is labelled
  std::string charset;  // in lower case; "utf-8" where none is named
};

// "Text/HTML; charset=\"UTF8\"" -> {"Text/HTML", "utf-8"}. Of several charsets the first counts;
// "utf8" is taken for "utf-8", and an empty one for none.
ContentType readContentType(std::optional<std::string_view> headerValue);

// The character set that decides whether a cut character at the end of a body is taken away, which
// is so for exactly "utf-8". By definition all that follows the last "charset=" of the lower-cased
// value, further parameters included; without "charset=", what follows the seventh byte:
//   "text/plain; charset=UTF-8" -> "utf-8"    absent, "", "nonsense" -> "utf-8"
//   "application/json" -> "tion/json"         "a/b" -> ""
std::string trimmingCharset(std::optional<std::string_view> headerValue);

}  // namespace connectivity::plugins
