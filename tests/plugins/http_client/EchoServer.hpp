// A server that answers every request with its target. A target that begins with "/stall" is
// answered once the test releases the server.
#pragma once

#include <cstddef>

#include "tests/support/ScriptedServer.hpp"

namespace test_support {

class EchoServer {
 public:
  EchoServer() = default;
  ~EchoServer() { release(); }
  EchoServer(const EchoServer&) = delete;
  EchoServer& operator=(const EchoServer&) = delete;

  void release() { _released.set(); }
  int port() const noexcept { return _server.port(); }
  std::size_t requestCount() const { return _server.requestCount(); }
  std::size_t connectionCount() const { return _server.connectionCount(); }
  void waitForRequests(std::size_t howMany) const { _server.waitForRequests(howMany); }

 private:
  Event _released{"the server to be released"};
  ScriptedServer _server{[this](Connection& connection) {
    while (const auto request = connection.readRequest()) {
      if (request->target.starts_with("/stall")) connection.stallUntil(_released);
      connection.sendResponse(200, {}, request->target);
    }
  }};
};

}  // namespace test_support
