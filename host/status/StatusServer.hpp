// The status server: what the chains of a run publish, over HTTP.
//
//   /             a page for people, which asks for /status.json every second (StatusPage)
//   /status.json  every status item as one object, key to text, the keys in ascending order
//   /history.json what they were over the last minutes (StatusHistory)
//   /metrics      the items in Prometheus' text exposition format (MetricsText)
//   /healthz      200 "OK" while the item .status of every chain is ONLINE, else 503
//
// Any other path is 404, any method but GET and HEAD 405. No request changes anything. A connection
// is closed after its answer.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "host/status/StatusDefinition.hpp"
#include "host/status/StatusHistory.hpp"
#include "host/status/StatusTable.hpp"

namespace Poco::Net {
class HTTPServer;
}

namespace host {

// Serves from construction to destruction, on threads of its own.
class StatusServer {
 public:
  // `table` is borrowed and outlives the server; `prefixes` are the chains' key prefixes
  // ("shop.orders"). std::runtime_error "cannot listen on <address>:<port>: <reason>".
  StatusServer(const StatusDefinition& definition, const StatusTable& table,
               std::vector<std::string> prefixes);
  ~StatusServer();
  StatusServer(const StatusServer&) = delete;
  StatusServer& operator=(const StatusServer&) = delete;

  // The port it listens on.
  int port() const;

 private:
  StatusHistory _history;
  std::unique_ptr<Poco::Net::HTTPServer> _server;
};

// Whether /healthz is 200.
bool areAllOnline(const StatusItems& items, const std::vector<std::string>& prefixes);

}  // namespace host
