// A bounded, blocking queue with one lane for each consumer.
//
// An element with an affinity stands on one lane, and only that lane's consumer takes it. An
// element without one stands on every lane at its place in the order of arrival, and whichever
// consumer reaches it first takes it off all of them. Each lane is first in, first out.
//
// Producers open a LockPushBatch, which holds the queue's mutex, and push through it; consumers are
// woken when it closes. A producer waits while the queue is full, and lets go of the mutex
// meanwhile, so that other batches may come between its elements. The queue never calls its logger
// or a batch's listener, and never destroys a value, while the mutex is held.
//
// Any thread may call anything. Before the queue is destroyed, all of them have left it.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <utility>
#include <vector>

#include "orrery/Mutex.hpp"
#include "plugins/http_client/dispatch/LaneElement.hpp"

namespace connectivity::plugins {

// What a consumer gets of a queue that was terminated.
class QueueTerminated : public std::runtime_error {
 public:
  QueueTerminated() : std::runtime_error("This queue has been terminated") {}
};

template <typename Value, typename LoggerType>
class AffinityQueue {
 public:
  class LockPushBatch;

  // Full at this many elements. Once a producer has found it full, it counts as full, and is not
  // reported again, until it has shrunk to fewer than `notFullBelow`.
  static constexpr std::uint32_t capacity = 2048;
  static constexpr std::uint32_t notFullBelow = 1849;

  // Throws std::runtime_error "Must have at least one consumer". The logger is borrowed.
  AffinityQueue(std::uint32_t consumers, const LoggerType& logger);
  // Destroys what is still queued, lane by lane.
  ~AffinityQueue();
  AffinityQueue(const AffinityQueue&) = delete;
  AffinityQueue& operator=(const AffinityQueue&) = delete;

  // Queues a value behind everything that its lane (`affinity` modulo the consumers), or every
  // lane, holds; waits for space unless `noWait`. False, and `value` untouched, where the batch is
  // abandoned.
  template <typename Given>
  bool enqueue(LockPushBatch& batch, Given&& value, bool noWait,
               std::optional<std::uint32_t> affinity = std::nullopt);
  // Queues one value on each of the first `rowLength` lanes, all in one step, so that any two such
  // rows stand in the same order on every lane. `make` is called for each value, after the wait for
  // space. False, and nothing made, where the batch is abandoned.
  template <typename Make>
  bool enqueueOnEachLane(LockPushBatch& batch, std::uint32_t rowLength, bool noWait, Make&& make);

  // The oldest value of the consumer's lane (`consumer` modulo the consumers); waits for one. Calls
  // `onTaken`, where given, under the mutex; an empty one is std::bad_function_call. Throws
  // QueueTerminated once the queue is terminated, also where the lane holds elements.
  Value dequeue(std::uint32_t consumer,
                const std::optional<std::function<void()>>& onTaken = std::nullopt);

  // From now on nobody takes anything, and no producer waits.
  void terminate() ORRERY_EXCLUDES(mutex);
  // Has every producer that waits for space look again whether its batch is abandoned.
  void wakeProducers() ORRERY_EXCLUDES(mutex);
  // Elements, each counted once, however many lanes it stands on.
  std::uint32_t size() ORRERY_EXCLUDES(mutex);

 private:
  using Element = LaneElement<Value>;
  using Owner = typename Element::Owner;
  struct Lane {
    LinkPair head;
    std::uint32_t waiting = 0;  // consumers that sleep in front of this lane
  };

  bool waitForSpace(LockPushBatch& batch) ORRERY_REQUIRES(mutex);
  bool lookForSpace() ORRERY_REQUIRES(mutex);
  void sleepForSpace() ORRERY_REQUIRES(mutex);
  // These let go of the mutex meanwhile: an element that was waited for is linked before endWait.
  void reportFull() ORRERY_REQUIRES(mutex);
  void reportWait(LockPushBatch& batch, bool waiting) ORRERY_REQUIRES(mutex);
  void endWait(LockPushBatch& batch) ORRERY_REQUIRES(mutex);
  void append(Element& element, std::uint32_t pair, Lane& lane, LockPushBatch& batch)
      ORRERY_REQUIRES(mutex);
  Owner take(std::uint32_t consumer, const std::optional<std::function<void()>>& onTaken)
      ORRERY_EXCLUDES(mutex);
  void waitForElement(Lane& lane) ORRERY_REQUIRES(mutex);

  const std::uint32_t numConsumers;
  const LoggerType& logger;

  orrery::Mutex mutex{"AffinityQueue"};
  // Consumers and producers sleep apart, so that neither are woken for the others' sake.
  orrery::Condition work{mutex};
  orrery::Condition space{mutex};
  bool terminated ORRERY_GUARDED_BY(mutex) = false;
  bool fullWarned ORRERY_GUARDED_BY(mutex) = false;
  std::uint32_t count ORRERY_GUARDED_BY(mutex) = 0;
  std::uint32_t waitingConsumers ORRERY_GUARDED_BY(mutex) = 0;
  std::uint32_t waitingProducers ORRERY_GUARDED_BY(mutex) = 0;
  std::vector<Lane> lanes ORRERY_GUARDED_BY(mutex);
};

// What a producer pushes through: holds the queue's mutex from construction to destruction, and
// then wakes the consumers that sleep in front of a lane that has grown.
template <typename Value, typename LoggerType>
class ORRERY_SCOPED_CAPABILITY AffinityQueue<Value, LoggerType>::LockPushBatch {
 public:
  // Told when the batch begins (true) and ends (false) to wait for space, once each for one wait,
  // without the mutex. Does not throw.
  using WaitListener = std::function<void(bool waiting)>;

  // Once `*abandon` is true the batch takes no more values; null: it takes them all.
  explicit LockPushBatch(AffinityQueue& queue, const std::atomic<bool>* abandon = nullptr,
                         WaitListener onWait = {}) ORRERY_ACQUIRE(queue.mutex)
      : _queue(queue), _abandon(abandon), _onWait(std::move(onWait)) {
    _queue.mutex.lock();
  }
  ~LockPushBatch() ORRERY_RELEASE() {
    _queue.mutex.unlock();
    if (_wakeConsumers) _queue.work.broadcast();
    // A wait that ended by an exception.
    if (_waiting && _onWait) _onWait(false);
  }
  LockPushBatch(const LockPushBatch&) = delete;
  LockPushBatch& operator=(const LockPushBatch&) = delete;

  bool isAbandoned() const noexcept {
    return _abandon != nullptr && _abandon->load(std::memory_order_acquire);
  }

 private:
  friend class AffinityQueue;
  AffinityQueue& _queue;
  const std::atomic<bool>* const _abandon;
  const WaitListener _onWait;
  bool _waiting = false;  // as was reported last
  bool _wakeConsumers = false;
};

// --- Implementation ------------------------------------------------------------------------------

template <typename Value, typename LoggerType>
AffinityQueue<Value, LoggerType>::AffinityQueue(std::uint32_t consumers,
                                                const LoggerType& queueLogger)
    : numConsumers(consumers), logger(queueLogger), lanes(consumers) {
  if (consumers == 0) throw std::runtime_error("Must have at least one consumer");
}

template <typename Value, typename LoggerType>
AffinityQueue<Value, LoggerType>::~AffinityQueue() {
  terminate();
  LinkPair dropped;
  {
    const orrery::AutoMutex lock(mutex);
    for (Lane& lane : lanes) {
      while (!lane.head.isAlone()) {
        Element* element = Element::of(*lane.head.next);
        element->unlink();
        element->pair(0).appendTo(dropped);
      }
    }
    count = 0;
  }
  while (!dropped.isAlone()) {
    const Owner element(Element::of(*dropped.next));
    element->unlink();
  }
}

// The batch proves that the mutex is held, which the analysis cannot see.
template <typename Value, typename LoggerType>
template <typename Given>
bool AffinityQueue<Value, LoggerType>::enqueue(LockPushBatch& batch, Given&& value, bool noWait,
                                               std::optional<std::uint32_t> affinity)
    ORRERY_NO_THREAD_SAFETY_ANALYSIS {
  if (batch.isAbandoned() || (!noWait && !waitForSpace(batch))) return false;
  Element* element =
      Element::create(affinity ? 1 : numConsumers, std::forward<Given>(value)).release();
  // The lanes own it now, which the analyzer does not see.
  // NOLINTBEGIN(clang-analyzer-cplusplus.NewDeleteLeaks)
  if (affinity) {
    append(*element, 0, lanes[*affinity % numConsumers], batch);
  } else {
    for (std::uint32_t i = 0; i < numConsumers; ++i) append(*element, i, lanes[i], batch);
  }
  ++count;
  endWait(batch);
  return true;
  // NOLINTEND(clang-analyzer-cplusplus.NewDeleteLeaks)
}

// As above. Everything that can wait or fail comes before the first link.
template <typename Value, typename LoggerType>
template <typename Make>
bool AffinityQueue<Value, LoggerType>::enqueueOnEachLane(
    LockPushBatch& batch, std::uint32_t rowLength, bool noWait,
    Make&& make) ORRERY_NO_THREAD_SAFETY_ANALYSIS {
  if (batch.isAbandoned() || (!noWait && !waitForSpace(batch))) return false;
  std::vector<Owner> row;
  row.reserve(rowLength);
  for (std::uint32_t i = 0; i < rowLength; ++i) row.push_back(Element::create(1, make()));
  for (std::uint32_t i = 0; i < rowLength; ++i) {
    append(*row[i].release(), 0, lanes[i % numConsumers], batch);
  }
  count += rowLength;
  endWait(batch);
  return true;
}

template <typename Value, typename LoggerType>
void AffinityQueue<Value, LoggerType>::append(Element& element, std::uint32_t pair, Lane& lane,
                                              LockPushBatch& batch) {
  element.pair(pair).appendTo(lane.head);
  batch._wakeConsumers = batch._wakeConsumers || lane.waiting > 0;
}

template <typename Value, typename LoggerType>
bool AffinityQueue<Value, LoggerType>::waitForSpace(LockPushBatch& batch) {
  while (!batch.isAbandoned()) {
    if (lookForSpace()) return true;
    // Each of these lets go of the mutex: look again.
    if (!fullWarned) {
      fullWarned = true;
      reportFull();
    } else if (!batch._waiting) {
      reportWait(batch, true);
    } else {
      sleepForSpace();
    }
  }
  endWait(batch);
  return false;
}

template <typename Value, typename LoggerType>
bool AffinityQueue<Value, LoggerType>::lookForSpace() {
  if (count < notFullBelow) fullWarned = false;
  return count < capacity || terminated;
}

template <typename Value, typename LoggerType>
void AffinityQueue<Value, LoggerType>::sleepForSpace() {
  // Nobody else may wake those who are to make the space: this batch is not closed yet.
  if (waitingConsumers > 0) work.broadcast();
  ++waitingProducers;
  space.timedWait(1000);
  --waitingProducers;
}

template <typename Value, typename LoggerType>
void AffinityQueue<Value, LoggerType>::endWait(LockPushBatch& batch) {
  if (batch._waiting) reportWait(batch, false);
}

template <typename Value, typename LoggerType>
void AffinityQueue<Value, LoggerType>::reportWait(LockPushBatch& batch, bool waiting) {
  batch._waiting = waiting;
  if (!batch._onWait) return;
  mutex.unlock();
  batch._onWait(waiting);
  mutex.lock();
}

template <typename Value, typename LoggerType>
void AffinityQueue<Value, LoggerType>::reportFull() {
  const auto full = static_cast<int>(count);
  mutex.unlock();
  try {
    logger.debug(
        "AffinityQueue is full, must wait for something to be removed before adding more items - "
        "%d",
        full);
  } catch (...) {
    mutex.lock();
    throw;
  }
  mutex.lock();
}

template <typename Value, typename LoggerType>
Value AffinityQueue<Value, LoggerType>::dequeue(
    std::uint32_t consumer, const std::optional<std::function<void()>>& onTaken) {
  const Owner taken = take(consumer, onTaken);
  return std::move(taken->value);
}

template <typename Value, typename LoggerType>
typename AffinityQueue<Value, LoggerType>::Owner AffinityQueue<Value, LoggerType>::take(
    std::uint32_t consumer, const std::optional<std::function<void()>>& onTaken) {
  Owner taken;  // outlives the lock: a value is never destroyed under it
  const orrery::AutoMutex lock(mutex);
  Lane& lane = lanes[consumer % numConsumers];
  waitForElement(lane);
  taken.reset(Element::of(*lane.head.next));
  taken->unlink();
  --count;
  if (onTaken) (*onTaken)();
  if (waitingProducers > 0 && count < capacity) space.broadcast();
  return taken;
}

template <typename Value, typename LoggerType>
void AffinityQueue<Value, LoggerType>::waitForElement(Lane& lane) {
  while (lane.head.isAlone() && !terminated) {
    ++lane.waiting;
    ++waitingConsumers;
    work.wait();
    --waitingConsumers;
    --lane.waiting;
  }
  if (terminated) throw QueueTerminated();
}

template <typename Value, typename LoggerType>
void AffinityQueue<Value, LoggerType>::terminate() {
  const orrery::AutoMutex lock(mutex);
  terminated = true;
  work.broadcast();
  space.broadcast();
}

template <typename Value, typename LoggerType>
void AffinityQueue<Value, LoggerType>::wakeProducers() {
  const orrery::AutoMutex lock(mutex);
  space.broadcast();
}

template <typename Value, typename LoggerType>
std::uint32_t AffinityQueue<Value, LoggerType>::size() {
  const orrery::AutoMutex lock(mutex);
  return count;
}

}  // namespace connectivity::plugins
