// One connection to a server or a proxy: plain TCP, or TLS over it.
//
// Used by the thread of the session that owns it; may be destroyed by another once that is done
// with it. Never raises SIGPIPE, whatever the thread's signal mask says. Closed when destroyed; TLS
// says goodbye first, without waiting.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include <Poco/Net/Context.h>
#include <Poco/Net/SocketAddress.h>
#include <Poco/Net/StreamSocket.h>
#include <Poco/Timespan.h>

#include "plugins/http_client/wire/InputBuffer.hpp"
#include "plugins/http_client/wire/RequestBodyStream.hpp"

namespace connectivity::plugins {

class Connection : public ByteSource, public ByteSink {
 public:
  // Nothing to read: no stray bytes, and the peer has not closed. One system call. REQUIRES: what
  // was received so far ended with a whole message.
  virtual bool quiet() noexcept = 0;
};

// The addresses of a host name or an IP address: IPv4 before IPv6, else in the resolver's order.
// Throws Poco::Net::HostNotFoundException and the like.
std::vector<Poco::Net::SocketAddress> addressesOf(const std::string& host, std::uint16_t port);

// Opens a TCP connection to the first address that takes one. Together they take at most
// `timeout`, which is also the socket's limit for each send and receive afterwards. Throws the
// first address's failure where none can be reached (Poco::Net::ConnectionRefusedException,
// Poco::TimeoutException "connect timed out", ...). REQUIRES: there is an address.
Poco::Net::StreamSocket connectToFirst(const std::vector<Poco::Net::SocketAddress>& addresses,
                                       const Poco::Timespan& timeout);

std::unique_ptr<Connection> plainConnection(const Poco::Net::StreamSocket& socket);

// Performs the TLS handshake over a connected socket within `timeout`. `serverName` is announced to
// the server where it is a name; the context says what is verified. Throws Poco::TimeoutException,
// Poco::Net::SSLException; for a certificate that is refused with the text "certificate verify
// failed: <reason>", where the reason is OpenSSL's ("certificate has expired", "hostname
// mismatch").
std::unique_ptr<Connection> tlsConnection(const Poco::Net::StreamSocket& socket,
                                          const Poco::Net::Context::Ptr& context,
                                          const std::string& serverName,
                                          const Poco::Timespan& timeout);

}  // namespace connectivity::plugins
