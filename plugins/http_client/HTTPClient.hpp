// The transport: takes batches of request messages from the host, spreads them over a fixed pool of
// workers, and hands back one answer for each.
//
// The host's threads send batches, its control thread starts, shuts down and destroys. A worker
// that delivers an answer may be given new batches by the host, on the same thread. Locks are taken
// in the order: response mutex, queue. No call of the host is made under the queue's mutex.
//
// Ownership: the transport owns its workers (by reference count), the dispatcher and everything
// that the workers share; all of it is there until the last of them has been joined.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <vector>

#include "connectivity/Plugin.hpp"
#include "orrery/Mutex.hpp"
#include "orrery/RefCountedObject.hpp"
#include "orrery/ThreadLocal.hpp"
#include "plugins/http_client/config/ConfiguredOptions.hpp"
#include "plugins/http_client/config/DataTConstants.hpp"
#include "plugins/http_client/dispatch/Dispatcher.hpp"
#include "plugins/http_client/dispatch/Life.hpp"
#include "plugins/http_client/shared/Cookies.hpp"
#include "plugins/http_client/shared/Metrics.hpp"
#include "plugins/http_client/wire/Resolver.hpp"
#include "plugins/http_client/wire/TlsContexts.hpp"
#include "plugins/http_client/worker/ClientSessionThread.hpp"
#include "plugins/http_client/worker/Workplace.hpp"

namespace connectivity::plugins {

class HTTPClient final : public AbstractTransport, private WorkerOwner {
 public:
  using ClientSessionThread = plugins::ClientSessionThread;

  // Reads the configuration and makes the workers, each with its session, without starting them.
  // Errors: those of ConfiguredOptions::parse, of the status items and of the sessions.
  explicit HTTPClient(
      const PluginConstructorParameters::TransportConstructorParameters& parameters);
  // Stops and joins workers that still run; what is still queued is dropped.
  ~HTTPClient() override;

  // Each entry point is counted there while it is inside. What may not be called from inside
  // another call of this transport, its caller refuses.
  Life& life() noexcept { return _life; }

  // Starts the workers. Errors: "HTTPClient cannot be started before it has a host side",
  // "HTTPClient cannot be started after shutdown", and a thread's own; where that happened, another
  // start goes on with the worker that failed.
  void start() override;

  // Lets every accepted request be answered, then stops and joins the workers. Where the host says
  // that it is shutting down itself, or the workers were never started, what is queued is dropped.
  // A second call does nothing. Error, once the workers are stopped: "An error occurred while
  // checking if host is shutting down".
  void shutdown() override;

  // What comes before destruction: waits for the calls that are inside, but `own`, and stops as
  // shutdown does, except that what is queued is dropped.
  void end(const Life::Call& own);

  // Waits for what is being delivered.
  void setNextTowardsHost(std::unique_ptr<HostSide>&& side) override;

  // Queues the messages, in order, for the workers. Waits while the queue is full, except on one of
  // the transport's own workers. Takes nothing once shutdown has begun. Errors (the messages before
  // the one at fault are queued): "Couldn't locate queue flush object in message", "Cannot use
  // custom values as a key"; before start: "The queue is full, and nobody takes anything yet".
  void sendBatchTowardsTransport(Message* start, Message* end) override;

  // Whether the calling thread is one of this transport's workers.
  bool isOnOwnWorker() const noexcept { return sourceThread.get() == this; }

 private:
  void adoptCurrentThread() override { sourceThread.set(this); }
  void deliver(Answer&& answer) noexcept override;
  // Hands one answer to the host. `size` is that of its payload. Whatever fails, before or after,
  // is logged: the request is answered by this call and must not be answered again.
  void sendResponse(Message&& message, double requestStartTime, int status,
                    unsigned int size) noexcept;
  int handOver(Message& message) ORRERY_REQUIRES(responseMutex);

  void enableQueueFlushMessages() const;
  void captureSchedulableQueue();
  void startWorkers();
  void startEach() ORRERY_REQUIRES(sessionsMutex);
  bool beginToStop(std::uint32_t& running) ORRERY_EXCLUDES(sessionsMutex);
  void stopWorkers();

  std::uint32_t workerCount() const noexcept {
    return static_cast<std::uint32_t>(options.numClients);
  }

  // Where each worker notes whose it is; null on all other threads.
  static orrery::ThreadLocal<AbstractTransport> sourceThread;

  // Constant after construction, or guarded by themselves.
  const DataTConstants constants;
  const ConfiguredOptions options;

  orrery::Mutex responseMutex{"TransportResponseMutex"};  // one hand-over at a time; also hostSide
  orrery::Mutex sessionsMutex{"ClientSessionsMutex"};     // held while workers are joined
  std::vector<orrery::IntrusivePtr<ClientSessionThread>> clientSessionThreads
      ORRERY_GUARDED_BY(sessionsMutex);
  std::uint32_t runningWorkers ORRERY_GUARDED_BY(sessionsMutex) = 0;  // the first so many

  Life _life;
  std::atomic<bool> needSchedulableQueue{true};
  Dispatcher dispatcher;
  Metrics metrics;
  Cookies cookies;
  TlsContexts tlsContexts;
  Resolver resolver;
  const Workplace workplace;
};

}  // namespace connectivity::plugins
