// Which server a worker talks to: its home, the configured one, or for the rest of a request the
// one that a permanent redirect pointed to. The session at home is kept meanwhile.
//
// Belongs to its worker: made on the host's control thread, used on the worker's.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "plugins/http_client/config/ConfiguredOptions.hpp"
#include "plugins/http_client/exchange/Location.hpp"
#include "plugins/http_client/request/Destination.hpp"
#include "plugins/http_client/shared/WorkerLog.hpp"
#include "plugins/http_client/wire/HttpSession.hpp"
#include "plugins/http_client/wire/Resolver.hpp"
#include "plugins/http_client/wire/TlsContexts.hpp"

namespace connectivity::plugins {

class SessionHome {
 public:
  // Opens the session at home, which connects with its first request. What is given is borrowed.
  // Errors: those of TlsContexts.
  SessionHome(const ConfiguredOptions& options, TlsContexts& contexts, Resolver& resolver,
              const WorkerLog& log);

  HttpSession& session() noexcept { return _away ? *_away : *_home; }
  bool atHome() const noexcept { return _away == nullptr; }

  // Whom a head is to be written for, and where the answer to `target` comes from.
  Destination destination() const;
  Location location(std::string target) const;

  // Serves the rest of the request from another server; from home where it is that one. Where it
  // throws, nothing has changed.
  void moveTo(const std::string& host, std::uint16_t port);
  void returnHome() noexcept { _away.reset(); }
  // Closes whatever connection is open. Called by the worker before it ends.
  void close() noexcept;

 private:
  // Logs where the session leads, and opens it.
  std::unique_ptr<HttpSession> setSession(const std::string& host, std::uint64_t port,
                                          bool configuredServer) const;
  void logSession(const std::string& host, std::uint64_t port) const;
  Route routeTo(const std::string& host, std::uint16_t port, bool configuredServer) const;
  bool isHome(const std::string& host, std::uint16_t port) const;
  const Route& route() const noexcept { return _away ? _away->route() : _home->route(); }
  const char* scheme() const noexcept { return _options.tls.enabled ? "https" : "http"; }

  const ConfiguredOptions& _options;
  TlsContexts& _contexts;
  Resolver& _resolver;
  const WorkerLog& _log;
  const std::string _proxyAuthorization;
  const std::unique_ptr<HttpSession> _home;
  std::unique_ptr<HttpSession> _away;
};

}  // namespace connectivity::plugins
