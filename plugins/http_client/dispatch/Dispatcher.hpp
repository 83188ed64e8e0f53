// From a batch to the workers' lanes, and from a lane to its worker.
//
// A batch is read first, without a lock, because reading it logs, and the host may do anything in
// its log function. Then it is pushed, under the queue's mutex and without any call of the host.
//
// Any thread may push; each worker takes for itself. It knows messages by what their metadata asks
// of the dispatch, and nothing of requests.
#pragma once

#include <atomic>
#include <cstdint>
#include <exception>
#include <memory>
#include <optional>
#include <variant>
#include <vector>

#include "connectivity/Logger.hpp"
#include "connectivity/data_t.hpp"
#include "plugins/http_client/config/DataTConstants.hpp"
#include "plugins/http_client/dispatch/AffinityQueue.hpp"
#include "plugins/http_client/dispatch/BatchGate.hpp"
#include "plugins/http_client/dispatch/Sentinel.hpp"

namespace connectivity::plugins {

class Dispatcher {
 public:
  // What became of a batch.
  struct Pushed {
    std::size_t serialized = 0;  // messages that had everything before them finished first
    std::exception_ptr failure;  // what is wrong with the first message that was not taken, or null
  };

  // Throws std::runtime_error "Must have at least one consumer". Keys and logger are borrowed.
  Dispatcher(std::uint32_t workers, const DataTConstants& keys, const Logger& logger,
             void* hostHandle);

  // --- Batches

  // What a batch passes to be inside; closed once the transport is shutting down.
  BatchGate& gate() noexcept { return _gate; }
  bool isShuttingDown() const noexcept { return _gate.closed().load(); }

  // Queues the messages, in order. Waits while the queue is full, unless `noWait`. Takes nothing
  // more once the gate is closed. Failures (the messages before the one at fault are queued):
  // "Couldn't locate queue flush object in message", "Cannot use custom values as a key".
  Pushed push(Message* start, Message* end, bool noWait);
  std::uint32_t queueSize() { return _queue.size(); }

  // --- Workers

  // The next message for the worker. Waits for it, and at barriers. Throws QueueTerminated once
  // the transport stops; std::runtime_error "Unexpected index" for an element of no kind.
  Message getNextMessageRequest(unsigned worker);

  // --- The end

  // Keeps later batches out, and waits for those that are inside: what they queued is accepted.
  void finishBatches();
  // Waits until the first `running` workers have finished what is queued, or until the host itself
  // shuts down. A host that cannot tell is taken to be running, so that nothing accepted is lost;
  // its failure is thrown at the end: "An error occurred while checking if host is shutting down".
  void drain(std::uint32_t running);
  // Not every worker will reach a barrier, so that nobody waits at one; or every one will again.
  void abandonBarriers(bool abandoned) noexcept { _barriersAbandoned = abandoned; }
  // From now on no worker takes anything.
  void terminate();

 private:
  using Element = std::variant<Message, std::shared_ptr<Sentinel>>;
  using Queue = AffinityQueue<Element, Logger>;
  using Sentinels = std::vector<std::shared_ptr<Sentinel>>;
  // What the metadata of one message asks for.
  struct Wish {
    bool queueFlush = false;                // a control message of the host
    bool flushFirst = false;                // everything before it is to be finished first
    std::optional<std::uint32_t> affinity;  // none: any worker
  };
  struct Batch {
    std::vector<Wish> wishes;    // up to the message at fault
    std::exception_ptr failure;  // what is wrong with that one, or null
  };

  Batch readBatch(Message* start, Message* end) const;
  Wish readMessage(const map_t& metadata) const;
  std::optional<std::uint32_t> readAffinity(const map_t& metadata) const;
  bool isQueueFlush(const map_t& metadata) const;
  // Leaves an empty value in its place.
  data_t getQueueFlushObject(map_t& metadata) const;
  bool shouldFlush(const map_t& metadata) const;
  // Tells the host; what that throws is logged.
  void reportBatchWaits(bool waiting) const noexcept;
  bool pushMessage(Queue::LockPushBatch& batch, Message& message, const Wish& wish, bool noWait,
                   Sentinels& sentinels);
  // Puts one barrier for the first `workers` workers on their lanes. Takes the flush object of
  // `metadata` (null: none) once the barrier is certain to be placed. Null where the batch is
  // abandoned, or there are no workers.
  std::shared_ptr<Sentinel> enqueueSentinel(Queue::LockPushBatch& batch, std::uint32_t workers,
                                            bool noWait, map_t* metadata);
  void waitAtBarrier(unsigned worker, Sentinel& sentinel) const;
  bool isHostShuttingDown() const;

  const std::uint32_t _workers;
  const DataTConstants& _keys;
  const Logger& _logger;
  void* const _hostHandle;
  Queue _queue;
  BatchGate _gate;
  std::atomic<bool> _barriersAbandoned{false};
};

}  // namespace connectivity::plugins
