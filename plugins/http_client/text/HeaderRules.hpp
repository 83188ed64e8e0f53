// What may stand in a request's header, and what the transport keeps to itself.
//
// Pure functions; any thread may call them.
#pragma once

#include <string>
#include <string_view>

namespace connectivity::plugins {

// Each character through tolower of the C locale.
std::string lowerCased(std::string_view text);

// A token of RFC 9110, 5.6.2: what a method or a header name may be.
bool isToken(std::string_view text) noexcept;

// Whether a tab counts as a control character: it may stand in a header's value, nowhere else.
enum class Tab { Refused, Allowed };

// Whether `text` holds a control character: C0 or DEL.
bool hasControlCharacter(std::string_view text, Tab tab) noexcept;

// Headers that belong to the transport or to the connection, in lower case: content-length,
// transfer-encoding, connection, expect, upgrade, te and trailer. A user's are ignored.
bool belongsToTransport(std::string_view lowerCaseName) noexcept;

// Headers whose value is a secret: authorization, proxy-authorization and cookie. Logs show
// "<hidden>" in place of it.
bool isSecret(std::string_view headerName) noexcept;

// Headers meant for the configured server alone: authorization, proxy-authorization, cookie and
// host. A server that a redirect leads to does not get them.
bool isForConfiguredServerOnly(std::string_view lowerCaseName) noexcept;

}  // namespace connectivity::plugins
