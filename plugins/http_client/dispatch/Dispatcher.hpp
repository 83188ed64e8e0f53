// From a batch to the workers' lanes, and from a lane to its worker.
//
// A batch is read first, without a lock, because reading it logs, and the host may do anything in
// its log function. Then it is pushed, under the queue's mutex and without any call of the host.
//
// Any thread may push; each worker takes for itself. It knows messages by what their metadata asks
// of the dispatch, and nothing of requests.
#pragma once

#include <atomic>
#include <cstddef>
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
#include "plugins/http_client/dispatch/Sentinel.hpp"

namespace connectivity::plugins {

class Dispatcher {
 public:
  // What became of a batch.
  struct Pushed {
    std::size_t serialized = 0;  // messages that had everything before them finished first
    std::exception_ptr failure;  // what is wrong with the first message that was not taken, or null
  };

  // Throws std::runtime_error "Must have at least one consumer". Keys, logger and flag are
  // borrowed: the flag is true once no further messages are to be taken.
  Dispatcher(std::uint32_t workers, const DataTConstants& keys, const Logger& logger,
             void* hostHandle, const std::atomic<bool>& shuttingDown);

  bool isShuttingDown() const noexcept { return _shuttingDown.load(); }

  // --- Batches

  // Queues the messages, in order. Takes nothing more once the flag is true. Failures (the
  // messages before the one at fault are queued): "Couldn't locate queue flush object in message",
  // "Cannot use custom values as a key", and that of a queue that is full.
  Pushed push(Message* start, Message* end, WhenFull whenFull);
  std::uint32_t queueSize() { return _queue.size(); }

  // --- Workers

  // The next message for the worker. Waits for it, and at barriers. Throws QueueTerminated once
  // the transport stops; std::runtime_error "Unexpected index" for an element of no kind.
  Message getNextMessageRequest(unsigned worker);

  // --- The end

  // Has batches that wait for space look at the flag.
  void wakeBatches() { _queue.wakeProducers(); }
  // Waits until the first `running` workers have finished what is queued, or until the host itself
  // shuts down. A host that cannot tell is taken to be running, so that nothing accepted is lost;
  // its failure is thrown at the end: "An error occurred while checking if host is shutting down".
  void drain(std::uint32_t running);
  // Not every worker will reach a barrier, so that nobody waits at one; or every one will again.
  void abandonBarriers(bool abandoned) { _barriers.abandon(abandoned); }
  // From now on no worker takes anything.
  void terminate();
  // Destroys what is queued; how many elements that were.
  std::uint32_t drop() { return _queue.drop(); }

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
  bool pushMessage(Queue::LockPushBatch& batch, Message& message, const Wish& wish,
                   WhenFull whenFull, Sentinels& sentinels);
  // Puts one barrier for the first `workers` workers on their lanes. Takes the flush object of
  // `metadata` (null: none) once the barrier is certain to be placed. Null where the batch is
  // abandoned, or there are no workers.
  std::shared_ptr<Sentinel> enqueueSentinel(Queue::LockPushBatch& batch, std::uint32_t workers,
                                            WhenFull whenFull, map_t* metadata);
  void waitAtBarrier(unsigned worker, Sentinel& sentinel) const;
  bool isHostShuttingDown() const;

  const std::uint32_t _workers;
  const DataTConstants& _keys;
  const Logger& _logger;
  void* const _hostHandle;
  const std::atomic<bool>& _shuttingDown;
  Barriers _barriers;
  Queue _queue;
};

}  // namespace connectivity::plugins
