// The transport: takes batches of request messages from the host, spreads them over a fixed pool of
// workers, and hands back one answer for each.
//
// The host's threads send batches, its control thread starts, shuts down and destroys. A worker
// that delivers an answer may be given new batches by the host, on the same thread. Locks are taken
// in the order: response mutex, queue. No call of the host is made under the queue's mutex.
//
// Ownership: the transport owns its workers (by reference count), the queue and everything that the
// workers share; all of it is there until the last of them has been joined.
#pragma once

#include <atomic>
#include <cstdint>
#include <exception>
#include <memory>
#include <optional>
#include <variant>
#include <vector>

#include <Poco/Net/HTTPResponse.h>

#include "connectivity/Plugin.hpp"
#include "orrery/Mutex.hpp"
#include "orrery/RefCountedObject.hpp"
#include "orrery/ThreadLocal.hpp"
#include "plugins/http_client/config/ConfiguredOptions.hpp"
#include "plugins/http_client/config/DataTConstants.hpp"
#include "plugins/http_client/dispatch/AffinityQueue.hpp"
#include "plugins/http_client/dispatch/BatchGate.hpp"
#include "plugins/http_client/dispatch/Sentinel.hpp"
#include "plugins/http_client/shared/Cookies.hpp"
#include "plugins/http_client/shared/Metrics.hpp"
#include "plugins/http_client/wire/TlsContexts.hpp"

namespace connectivity::plugins {

class HTTPClient final : public AbstractTransport {
 public:
  class ClientSessionThread;

  // Reads the configuration and makes the workers, each with its session, without starting them.
  // Errors: those of ConfiguredOptions::parse, of the status items and of the sessions.
  explicit HTTPClient(
      const PluginConstructorParameters::TransportConstructorParameters& parameters);
  // Stops and joins workers that still run; what is still queued is dropped.
  ~HTTPClient() override;

  // Starts the workers. Errors: "HTTPClient cannot be started before it has a host side",
  // "HTTPClient cannot be started after shutdown", and a thread's own; where that happened, another
  // start goes on with the worker that failed.
  void start() override;

  // Lets every accepted request be answered, then stops and joins the workers. Where the host says
  // that it is shutting down itself, what is queued is dropped and only what runs is answered. A
  // second call does nothing. Errors: "HTTPClient cannot be shut down from one of its own workers";
  // and, once the workers are stopped, "An error occurred while checking if host is shutting down".
  void shutdown() override;

  // Waits for what is being delivered. "HTTPClient cannot be connected from one of its own
  // workers".
  void setNextTowardsHost(std::unique_ptr<HostSide>&& side) override;

  // Queues the messages, in order, for the workers. Waits while the queue is full, except on one of
  // the transport's own workers. Takes nothing once shutdown has begun. Errors (the messages before
  // the one at fault are queued): "Couldn't locate queue flush object in message", "Cannot use
  // custom values as a key".
  void sendBatchTowardsTransport(Message* start, Message* end) override;

  // Whether the calling thread is one of this transport's workers.
  bool isOnOwnWorker() const noexcept { return sourceThread.get() == this; }

 private:
  using QueueElement = std::variant<Message, std::shared_ptr<Sentinel>>;
  using Queue = AffinityQueue<QueueElement, Logger>;
  // What the metadata of one message asks for.
  struct Dispatch {
    bool queueFlush = false;                // a control message of the host
    bool flushFirst = false;                // everything before it is to be finished first
    std::optional<std::uint32_t> affinity;  // none: any worker
  };
  struct Batch {
    std::vector<Dispatch> messages;  // up to the one at fault
    std::exception_ptr failure;      // what is wrong with that one, or null
  };

  // The next message for the worker. Waits for it, and at barriers. Throws QueueTerminated once
  // the transport stops; std::runtime_error "Unexpected index" for an element of no kind.
  Message getNextMessageRequest(unsigned worker);
  void waitAtBarrier(unsigned worker, Sentinel& sentinel) const;

  // Hands one answer to the host. `size` is that of its payload. Whatever fails, before or after,
  // is logged: the request is answered by this call and must not be answered again. T is int or
  // unsigned int.
  template <typename T>
  void sendResponse(Message&& message, double requestStartTime,
                    Poco::Net::HTTPResponse::HTTPStatus status, T size) noexcept;
  int handOver(Message& message) ORRERY_REQUIRES(responseMutex);

  void enableQueueFlushMessages() const;
  void captureSchedulableQueue();
  // Dispatch.cpp
  Batch readBatch(Message* start, Message* end) const;
  Dispatch readMessage(const map_t& metadata) const;
  std::optional<std::uint32_t> readAffinity(const map_t& metadata) const;
  void push(Message* start, const Batch& batch, bool noWait);
  bool pushMessage(Queue::LockPushBatch& batch, Message& message, const Dispatch& dispatch,
                   bool noWait, std::vector<std::shared_ptr<Sentinel>>& sentinels);
  bool isQueueFlush(const map_t& metadata) const;
  // Leaves an empty value in its place.
  data_t getQueueFlushObject(map_t& metadata) const;
  bool shouldFlush(const map_t& metadata) const;
  // Puts one barrier for the first `workers` workers on their lanes. Takes the flush object of
  // `metadata` (null: none) once the barrier is certain to be placed. Null where the batch is
  // abandoned, or there are no workers.
  std::shared_ptr<Sentinel> enqueueSentinel(Queue::LockPushBatch& batch, std::uint32_t workers,
                                            bool noWait, map_t* metadata);

  std::uint32_t workerCount() const noexcept {
    return static_cast<std::uint32_t>(options.numClients);
  }
  bool isShuttingDown() const noexcept { return batchGate.closed().load(); }
  bool isHostShuttingDown() const;
  void startWorkers();
  void finishBatches();
  void drain();
  std::shared_ptr<Sentinel> enqueueLastSentinel();
  void stopWorkers();

  // How often a wait at a barrier asks whether the host is shutting down.
  static constexpr std::int64_t barrierPassMillis = 1000;

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

  BatchGate batchGate;                         // closed: shutting down
  std::atomic<bool> barriersAbandoned{false};  // not every worker will reach a barrier
  std::atomic<bool> needSchedulableQueue{true};
  const std::unique_ptr<Queue> queue;
  Metrics metrics;
  Cookies cookies;
  TlsContexts tlsContexts;
};

}  // namespace connectivity::plugins
