// A proxy's tunnel to a server (RFC 9110, 9.3.6) over a connection to that proxy. Once it is open
// all bytes pass as they are.
#pragma once

#include <memory>
#include <stdexcept>
#include <string>

#include <Poco/Net/NetException.h>

#include "plugins/http_client/wire/Layer.hpp"
#include "plugins/http_client/wire/Route.hpp"
#include "plugins/http_client/wire/TcpLayer.hpp"

namespace connectivity::plugins {

// The proxy answered, and opens no tunnel. Asking it again would count as another failed log-in.
class TunnelRefused final : public Poco::Net::HTTPException {
 public:
  using Poco::Net::HTTPException::HTTPException;
};

class TunnelLayer final : public Layer {
 public:
  // To the route's server through its proxy. REQUIRES: the route has one.
  TunnelLayer(std::unique_ptr<TcpLayer> proxy, const Route& route);

  // The credentials of the next connection; empty: none.
  void authorizeWith(std::string authorization) { _authorization = std::move(authorization); }
  // Those of the latest one.
  const std::string& authorization() const noexcept { return _authorization; }

  // Errors, beside those of the connection to the proxy:
  //   TunnelRefused "The proxy squid:3128 refused a tunnel to example.org:443: 403 Forbidden"
  //   Poco::Net::NoMessageException "The proxy squid:3128 closed the connection without an answer"
  // and TunnelRefused, too, where the proxy's answer cannot be used:
  //   "The proxy squid:3128 sent no usable answer for a tunnel to example.org:443: <reason>"
  //   "The proxy squid:3128 sent more than its answer for a tunnel to example.org:443"
  void connect() override;
  std::size_t send(std::span<const std::string_view> pieces) override {
    return _proxy->send(pieces);
  }
  std::optional<std::size_t> receive(char* data, std::size_t size, Wait wait) override {
    return _proxy->receive(data, size, wait);
  }
  void awaitEither() override { _proxy->awaitEither(); }
  void awaitRoom() override { _proxy->awaitRoom(); }
  bool quiet() noexcept override { return _proxy->quiet(); }
  void close() noexcept override { _proxy->close(); }

 private:
  void ask();
  void readAnswer();

  const std::unique_ptr<TcpLayer> _proxy;
  const std::string _name;    // "the proxy squid:3128"
  const std::string _target;  // "example.org:443"
  std::string _authorization;
};

}  // namespace connectivity::plugins
