// The lowest layer: a TCP connection to a server or a proxy.
#pragma once

#include <cstdint>
#include <string>

#include "plugins/http_client/wire/Layer.hpp"
#include "plugins/http_client/wire/Resolver.hpp"
#include "plugins/http_client/wire/SocketCalls.hpp"
#include "plugins/http_client/wire/TimeLimits.hpp"

namespace connectivity::plugins {

inline constexpr const char* theServer = "the server";
// "the proxy squid:3128" -> "The proxy squid:3128"
std::string sentenceStart(std::string phrase);

class TcpLayer final : public Layer {
 public:
  // The resolver and the limits are borrowed.
  TcpLayer(std::string host, std::uint16_t port, Resolver& resolver, const TimeLimits& limits);

  // Who is to blame for the failures from now on: "the server" (as at first), or
  // "the proxy squid:3128".
  void blame(std::string peer) { _peer = std::move(peer); }

  // Each address of the host in turn, within the one time-out. Errors: those of the resolver, and
  // the first address's where none takes a connection (Poco::Net::ConnectionRefusedException,
  // Poco::TimeoutException "connect timed out: 10.0.0.1:80", ...). What cannot be reached is named:
  // "10.0.0.1:80", or "the proxy squid:3128 at 10.0.0.1:3128".
  void connect() override;
  std::size_t send(std::span<const std::string_view> pieces) override;
  std::optional<std::size_t> receive(char* data, std::size_t size, Wait wait) override;
  void awaitEither() override;
  void awaitRoom() override;
  bool quiet() noexcept override { return !isReadable(_socket.descriptor()); }
  void close() noexcept override { _socket.close(); }

  bool isOpen() const noexcept { return _socket.isOpen(); }
  // Waits for one of poll's events, until `end` at the latest; false where it passes.
  bool await(short events, TimeLimits::Deadline end) const;

 private:
  Socket connectTo(const Poco::Net::SocketAddress& address, TimeLimits::Deadline end) const;
  void awaitOrThrow(short events, const char* otherwise) const;
  std::string shown(const Poco::Net::SocketAddress& address) const;

  const std::string _host;
  const std::uint16_t _port;
  Resolver& _resolver;
  const TimeLimits& _limits;
  std::string _peer = theServer;
  Socket _socket;
};

}  // namespace connectivity::plugins
