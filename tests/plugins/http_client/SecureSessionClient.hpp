// A session over TLS to a scripted server.
#pragma once

#include <string>

#include "plugins/http_client/wire/TlsContexts.hpp"
#include "tests/plugins/http_client/SessionClient.hpp"

namespace connectivity::plugins {

inline Route secureRouteTo(const test_support::ScriptedServer& server, TlsContexts& contexts,
                           const std::string& host = "localhost") {
  Route route = routeTo(server, host);
  route.tls = contexts.contextFor(host);
  return route;
}

struct SecureSessionClient : SessionClient {
  SecureSessionClient(const test_support::ScriptedServer& server, TlsContexts& contexts,
                      const std::string& host = "localhost")
      : SessionClient(secureRouteTo(server, contexts, host)) {}
};

}  // namespace connectivity::plugins
