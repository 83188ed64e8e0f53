// An HTTP proxy for tests, on 127.0.0.1 and a port that the system picks: requests in absolute form
// are forwarded, CONNECT opens a tunnel. Wherever a client names a target, the proxy connects to a
// port on 127.0.0.1. Every request to the proxy itself is on record (not what passes a tunnel).
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "tests/support/ScriptedServer.hpp"

namespace test_support {

struct ProxyOptions {
  // Where to connect, whatever port the client names.
  std::optional<int> targetPort;
  // "user:password"; without it the answer is 407.
  std::optional<std::string> credentials;
  // Set: CONNECT is answered with this status instead of a tunnel.
  std::optional<int> refuseConnect;
};

class ScriptedProxy {
 public:
  explicit ScriptedProxy(ProxyOptions options = {});

  int port() const noexcept { return _server.port(); }
  std::vector<RecordedRequest> requests() const { return _server.requests(); }
  RecordedRequest request(std::size_t index) const { return _server.request(index); }
  std::size_t connectionCount() const { return _server.connectionCount(); }
  std::size_t tunnelCount() const;

 private:
  void serve(Connection& connection) const;
  bool allowed(const RecordedRequest& request) const;
  int portOf(const std::string& authority, int fallback) const;
  void forward(Connection& connection, const RecordedRequest& request) const;

  const ProxyOptions _options;
  ScriptedServer _server;
};

// Base64 as in basic authentication.
std::string base64(const std::string& text);

}  // namespace test_support
