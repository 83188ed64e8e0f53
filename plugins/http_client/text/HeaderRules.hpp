// What may stand in a request's header, and what the transport keeps to itself.
//
// Pure functions; any thread may call them.
#pragma once

#include <string_view>

namespace connectivity::plugins {

// A token of RFC 9110, 5.6.2: what a method or a header name may be.
bool isToken(std::string_view text) noexcept;

// Whether a tab counts as a control character: it may stand in a header's value, nowhere else.
enum class Tab { Refused, Allowed };

// Whether `text`, in UTF-8, holds a control character that a header must not carry: C0, DEL, or C1
// (U+0080 to U+009F). For header values, cookies, character sets, content types, and the names of
// form fields and files.
bool hasControlCharacter(std::string_view text, Tab tab) noexcept;

// Whether `text` holds a control character of ASCII: C0, the tab included, or DEL. For methods and
// paths: what lies beyond ASCII no method holds, and a path holds it percent-encoded.
bool hasAsciiControlCharacter(std::string_view text) noexcept;

// Headers that belong to the transport or to the connection, in lower case: content-length,
// transfer-encoding, connection, proxy-connection, expect, upgrade, te and trailer. A user's are
// ignored.
bool belongsToTransport(std::string_view lowerCaseName) noexcept;

// Headers whose value is a secret: authorization, proxy-authorization and cookie. Logs show
// "<hidden>" in place of it.
bool isSecret(std::string_view headerName) noexcept;

// Headers meant for the configured server alone: authorization, cookie and host. A server that a
// redirect leads to does not get them. (Proxy-authorization is for the proxy, wherever that leads.)
bool isForConfiguredServerOnly(std::string_view lowerCaseName) noexcept;

}  // namespace connectivity::plugins
