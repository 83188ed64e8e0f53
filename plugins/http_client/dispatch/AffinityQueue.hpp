// A bounded, blocking queue with one lane for each consumer.
//
// An element with an affinity stands on one lane, and only that lane's consumer takes it. An
// element without one stands on the lane that all share, and whichever consumer reaches it first
// takes it. Elements are numbered as they arrive, and a consumer takes the older of what its own
// lane and the shared one begin with: to each consumer the two are one lane, first in, first out.
//
// Producers open a LockPushBatch, which holds the queue's mutex, and push through it. When it
// closes it wakes whom it has brought something, and nobody else; who wakes whom, and why nobody
// sleeps for ever, is told in waking.md. A producer waits while the queue is full, and lets go of
// the mutex meanwhile, so that other batches may come between its elements. The queue never calls
// its logger or a batch's listener, and never destroys a value, while the mutex is held.
//
// Any thread may push. One thread at a time takes for a lane. Before the queue is destroyed, all of
// them have left it.
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <utility>
#include <vector>

#include "orrery/Mutex.hpp"
#include "plugins/http_client/dispatch/Lane.hpp"

namespace connectivity::plugins {

// What a consumer gets of a queue that was terminated.
class QueueTerminated : public std::runtime_error {
 public:
  QueueTerminated() : std::runtime_error("This queue has been terminated") {}
};

// What happens to a value for which there is no room.
enum class WhenFull {
  Wait,
  Grow,    // beyond the capacity, for producers that must not wait
  Refuse,  // std::runtime_error "The queue is full, and nobody takes anything yet"
};

template <typename Value, typename LoggerType>
class AffinityQueue {
 public:
  class LockPushBatch;

  // Full at this many elements. Once a producer has found it full, it counts as full, and is not
  // reported again, until it has shrunk to fewer than `notFullBelow`.
  static constexpr std::uint32_t capacity = 2048;
  static constexpr std::uint32_t notFullBelow = 1849;
  // A producer that waits is woken when there is room and so many were taken since the last time;
  // at once while a consumer sleeps.
  static constexpr std::uint32_t takenBeforeWaking = 32;

  // Throws std::runtime_error "Must have at least one consumer". The logger is borrowed.
  AffinityQueue(std::uint32_t consumers, const LoggerType& logger);
  // Destroys what is still queued, as drop() does.
  ~AffinityQueue();
  AffinityQueue(const AffinityQueue&) = delete;
  AffinityQueue& operator=(const AffinityQueue&) = delete;

  // Queues a value behind everything that its lane (`affinity` modulo the consumers), or every
  // lane, holds. False, and `value` untouched, where the batch is abandoned.
  template <typename Given>
  bool enqueue(LockPushBatch& batch, Given&& value, WhenFull whenFull,
               std::optional<std::uint32_t> affinity = std::nullopt);
  // Queues one value on each of the first `rowLength` lanes, all in one step, so that any two such
  // rows stand in the same order on every lane. `make` is called for each value, after the wait for
  // space. False, and nothing made, where the batch is abandoned.
  template <typename Make>
  bool enqueueOnEachLane(LockPushBatch& batch, std::uint32_t rowLength, WhenFull whenFull,
                         Make&& make);

  // The oldest value of the consumer's lane (`consumer` modulo the consumers); waits for one. Calls
  // `onTaken`, where given, under the mutex; an empty one is std::bad_function_call. Throws
  // QueueTerminated once the queue is terminated, also where the lane holds elements.
  Value dequeue(std::uint32_t consumer,
                const std::optional<std::function<void()>>& onTaken = std::nullopt);

  // From now on nobody takes anything, and no producer waits.
  void terminate() ORRERY_EXCLUDES(mutex);
  // Has every producer that waits for space look again whether its batch is abandoned.
  void wakeProducers() ORRERY_EXCLUDES(mutex);
  // Destroys what is queued, lane by lane, each in its order; how many elements that were.
  std::uint32_t drop() ORRERY_EXCLUDES(mutex);
  // Elements, on all lanes.
  std::uint32_t size() ORRERY_EXCLUDES(mutex);

 private:
  friend struct AffinityQueueTestPeer;
  using Element = LaneElement<Value>;
  using Elements = ElementList<Element>;
  using Owner = typename Elements::Owner;
  struct Lane : Sleeper {
    using Sleeper::Sleeper;
    Elements elements;
  };

  bool findSpace(LockPushBatch& batch, WhenFull whenFull) ORRERY_REQUIRES(mutex);
  bool waitForSpace(LockPushBatch& batch) ORRERY_REQUIRES(mutex);
  bool lookForSpace() ORRERY_REQUIRES(mutex);
  void sleepForSpace() ORRERY_REQUIRES(mutex);
  // These let go of the mutex meanwhile: an element that was waited for is linked before endWait.
  void reportFull(LockPushBatch& batch) ORRERY_REQUIRES(mutex);
  void reportWait(LockPushBatch& batch, bool waiting) ORRERY_REQUIRES(mutex);
  void wakeChosen(LockPushBatch& batch) ORRERY_REQUIRES(mutex);
  void endWait(LockPushBatch& batch) ORRERY_REQUIRES(mutex);

  void append(Elements& lane, Owner&& element) ORRERY_REQUIRES(mutex);
  void appendToLane(std::uint32_t index, Owner&& element, LockPushBatch& batch)
      ORRERY_REQUIRES(mutex);
  void choose(Sleeper& sleeper, LockPushBatch& batch) ORRERY_REQUIRES(mutex);
  void chooseForCommon(LockPushBatch& batch) ORRERY_REQUIRES(mutex);

  void waitForElement(Lane& lane) ORRERY_REQUIRES(mutex);
  void fallAsleep(Lane& lane) ORRERY_REQUIRES(mutex);
  Owner takeOldest(Lane& lane) ORRERY_REQUIRES(mutex);
  bool countTaken() ORRERY_REQUIRES(mutex);

  const std::uint32_t numConsumers;
  const LoggerType& logger;

  orrery::Mutex mutex{"AffinityQueue"};
  orrery::Condition space{mutex};  // producers wait here; consumers each on their lane
  bool terminated ORRERY_GUARDED_BY(mutex) = false;
  bool fullWarned ORRERY_GUARDED_BY(mutex) = false;
  std::uint32_t count ORRERY_GUARDED_BY(mutex) = 0;
  std::uint64_t arrivals ORRERY_GUARDED_BY(mutex) = 0;
  std::uint32_t waitingProducers ORRERY_GUARDED_BY(mutex) = 0;
  std::uint32_t takenMeanwhile ORRERY_GUARDED_BY(mutex) = 0;  // since producers were woken
  std::deque<Lane> lanes ORRERY_GUARDED_BY(mutex);
  Elements common ORRERY_GUARDED_BY(mutex);
  SleeperStack sleepers ORRERY_GUARDED_BY(mutex);
};

// What a producer pushes through: holds the queue's mutex from construction to destruction, and
// then wakes those that it has chosen.
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
    letGo();
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

  bool hasSomebodyToWake() const noexcept { return _chosenCount > 0 || _common > 0; }
  // Unlocks, and wakes those who were chosen: not before, for they would have to wait for the
  // mutex.
  void letGo() ORRERY_NO_THREAD_SAFETY_ANALYSIS {
    _queue.chooseForCommon(*this);
    _queue.mutex.unlock();
    while (_chosenCount > 0) _chosen[--_chosenCount]->wake.signal();
  }

  AffinityQueue& _queue;
  const std::atomic<bool>* const _abandon;
  const WaitListener _onWait;
  bool _waiting = false;      // as was reported last
  std::uint32_t _common = 0;  // elements for anybody, nobody chosen for them yet
  // To be signalled. Whoever has no place here is signalled at once.
  std::array<Sleeper*, 16> _chosen;
  std::size_t _chosenCount = 0;
};

}  // namespace connectivity::plugins

#include "plugins/http_client/dispatch/AffinityQueueInside.hpp"
