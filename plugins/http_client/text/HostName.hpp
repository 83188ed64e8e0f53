// Names of hosts as a configuration gives them: what may stand there, and which part of it is
// verified.
//
// Pure functions; any thread may call them.
#pragma once

#include <string>
#include <string_view>

namespace connectivity::plugins {

// What is wrong with a host's name or address, or null. A host is a name, an IPv4 address, or an
// IPv6 address, with or without brackets: two colons or more mean one. The phrases, each of which
// continues a sentence that begins with the option:
//   "must not hold blanks or control characters"
//   "must not have a scheme"                                      http://server.test
//   "must be a name or an address alone"                          server.test/x, ada@server.test
//   "must hold an IPv6 address between its brackets"              [server.test], [127.0.0.1]
//   "must not have a port, which is an option of its own"         server.test:8080, [::1]:8080
//   "must be an IPv6 address where it has two colons or more"     a:b:c
// No phrase holds the host itself: it may have been given with a password.
const char* faultOfHost(std::string_view host);

// A host in which there is no fault, as names are resolved: "[::1]" -> "::1", every other as it is.
std::string withoutBrackets(std::string_view host);

// The name that a certificate is verified for and that a TLS handshake names to the server:
// "Server.test." -> "Server.test".
std::string verifiedName(std::string_view host);

}  // namespace connectivity::plugins
