// What a worker needs of its transport. Everything is borrowed and outlives the workers.
#pragma once

#include "connectivity/Logger.hpp"
#include "plugins/http_client/config/ConfiguredOptions.hpp"
#include "plugins/http_client/config/DataTConstants.hpp"
#include "plugins/http_client/dispatch/Dispatcher.hpp"
#include "plugins/http_client/response/Answers.hpp"
#include "plugins/http_client/shared/Cookies.hpp"
#include "plugins/http_client/shared/Metrics.hpp"
#include "plugins/http_client/wire/Resolver.hpp"
#include "plugins/http_client/wire/TlsContexts.hpp"

namespace connectivity::plugins {

// The transport, as its workers see it.
class WorkerOwner {
 public:
  WorkerOwner() = default;
  WorkerOwner(const WorkerOwner&) = delete;
  WorkerOwner& operator=(const WorkerOwner&) = delete;
  virtual ~WorkerOwner() = default;

  // Marks the calling thread as one of the transport's workers.
  virtual void adoptCurrentThread() = 0;
  // Hands one answer to the host. Whatever fails is logged: the request is answered by this call,
  // and must not be answered again.
  virtual void deliver(Answer&& answer) noexcept = 0;
};

struct Workplace {
  WorkerOwner& owner;
  const ConfiguredOptions& options;
  const DataTConstants& keys;
  const Logger& logger;
  Dispatcher& dispatcher;
  Metrics& metrics;
  Cookies& cookies;
  TlsContexts& tlsContexts;
  Resolver& resolver;
};

}  // namespace connectivity::plugins
