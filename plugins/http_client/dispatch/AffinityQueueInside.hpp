// How AffinityQueue.hpp does what it says; included from there alone.
#pragma once

#include <memory>
#include <stdexcept>
#include <utility>
#include <vector>

#include "plugins/http_client/dispatch/AffinityQueue.hpp"

namespace connectivity::plugins {

// --- Making, and the end -------------------------------------------------------------------------

template <typename Value, typename LoggerType>
AffinityQueue<Value, LoggerType>::AffinityQueue(std::uint32_t consumers,
                                                const LoggerType& queueLogger)
    : numConsumers(consumers), logger(queueLogger) {
  if (consumers == 0) throw std::runtime_error("Must have at least one consumer");
  for (std::uint32_t i = 0; i < consumers; ++i) lanes.emplace_back(mutex);
}

template <typename Value, typename LoggerType>
AffinityQueue<Value, LoggerType>::~AffinityQueue() {
  terminate();
  drop();
}

template <typename Value, typename LoggerType>
std::uint32_t AffinityQueue<Value, LoggerType>::drop() {
  Elements dropped;  // outlives the lock: a value is never destroyed under it
  const orrery::AutoMutex lock(mutex);
  for (Lane& lane : lanes) {
    while (!lane.elements.empty() || !common.empty()) dropped.append(takeOldest(lane));
  }
  return std::exchange(count, 0);
}

template <typename Value, typename LoggerType>
void AffinityQueue<Value, LoggerType>::terminate() {
  const orrery::AutoMutex lock(mutex);
  terminated = true;
  while (!sleepers.empty()) {
    Sleeper& sleeper = sleepers.top();
    sleepers.choose(sleeper);
    sleeper.wake.signal();
  }
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

// --- Pushing -------------------------------------------------------------------------------------

// The batch proves that the mutex is held, which the analysis cannot see.
template <typename Value, typename LoggerType>
template <typename Given>
bool AffinityQueue<Value, LoggerType>::enqueue(
    LockPushBatch& batch, Given&& value, WhenFull whenFull,
    std::optional<std::uint32_t> affinity) ORRERY_NO_THREAD_SAFETY_ANALYSIS {
  if (!findSpace(batch, whenFull)) return false;
  auto element = std::make_unique<Element>(std::in_place, std::forward<Given>(value));
  if (affinity) {
    appendToLane(*affinity, std::move(element), batch);
  } else {
    append(common, std::move(element));
    ++batch._common;
  }
  endWait(batch);
  return true;
}

// As above. Everything that can wait or fail comes before the first link.
template <typename Value, typename LoggerType>
template <typename Make>
bool AffinityQueue<Value, LoggerType>::enqueueOnEachLane(
    LockPushBatch& batch, std::uint32_t rowLength, WhenFull whenFull,
    Make&& make) ORRERY_NO_THREAD_SAFETY_ANALYSIS {
  if (!findSpace(batch, whenFull)) return false;
  std::vector<Owner> row;
  row.reserve(rowLength);
  for (std::uint32_t i = 0; i < rowLength; ++i)
    row.push_back(std::make_unique<Element>(std::in_place, make()));
  for (std::uint32_t i = 0; i < rowLength; ++i) appendToLane(i, std::move(row[i]), batch);
  endWait(batch);
  return true;
}

template <typename Value, typename LoggerType>
void AffinityQueue<Value, LoggerType>::append(Elements& lane, Owner&& element) {
  element->order = ++arrivals;
  lane.append(std::move(element));
  ++count;
}

template <typename Value, typename LoggerType>
void AffinityQueue<Value, LoggerType>::appendToLane(std::uint32_t index, Owner&& element,
                                                    LockPushBatch& batch) {
  Lane& lane = lanes[index % numConsumers];
  append(lane.elements, std::move(element));
  if (lane.state == Sleeper::State::Asleep) choose(lane, batch);
}

template <typename Value, typename LoggerType>
void AffinityQueue<Value, LoggerType>::choose(Sleeper& sleeper, LockPushBatch& batch) {
  sleepers.choose(sleeper);
  if (batch._chosenCount < batch._chosen.size()) {
    batch._chosen[batch._chosenCount++] = &sleeper;
  } else {
    sleeper.wake.signal();
  }
}

// A sleeper for each element: those that fell asleep last.
template <typename Value, typename LoggerType>
void AffinityQueue<Value, LoggerType>::chooseForCommon(LockPushBatch& batch) {
  for (; batch._common > 0 && !sleepers.empty(); --batch._common) choose(sleepers.top(), batch);
  batch._common = 0;
}

// --- Waiting for space ---------------------------------------------------------------------------

template <typename Value, typename LoggerType>
bool AffinityQueue<Value, LoggerType>::findSpace(LockPushBatch& batch, WhenFull whenFull) {
  if (batch.isAbandoned()) return false;
  if (whenFull == WhenFull::Grow) return true;
  if (whenFull == WhenFull::Wait) return waitForSpace(batch);
  if (lookForSpace()) return true;
  throw std::runtime_error("The queue is full, and nobody takes anything yet");
}

template <typename Value, typename LoggerType>
bool AffinityQueue<Value, LoggerType>::waitForSpace(LockPushBatch& batch) {
  while (!batch.isAbandoned()) {
    if (lookForSpace()) return true;
    // Each of these lets go of the mutex: look again.
    if (!fullWarned) {
      fullWarned = true;
      reportFull(batch);
    } else if (!batch._waiting) {
      reportWait(batch, true);
    } else if (batch.hasSomebodyToWake()) {
      // Nobody else wakes those who are to make the space: this batch is not closed yet.
      wakeChosen(batch);
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
  ++waitingProducers;
  space.wait();
  --waitingProducers;
}

template <typename Value, typename LoggerType>
void AffinityQueue<Value, LoggerType>::wakeChosen(LockPushBatch& batch)
    ORRERY_NO_THREAD_SAFETY_ANALYSIS {
  batch.letGo();
  mutex.lock();
}

template <typename Value, typename LoggerType>
void AffinityQueue<Value, LoggerType>::endWait(LockPushBatch& batch) {
  if (batch._waiting) reportWait(batch, false);
}

template <typename Value, typename LoggerType>
void AffinityQueue<Value, LoggerType>::reportWait(LockPushBatch& batch,
                                                  bool waiting) ORRERY_NO_THREAD_SAFETY_ANALYSIS {
  batch._waiting = waiting;
  if (!batch._onWait) return;
  batch.letGo();
  batch._onWait(waiting);
  mutex.lock();
}

template <typename Value, typename LoggerType>
void AffinityQueue<Value, LoggerType>::reportFull(LockPushBatch& batch)
    ORRERY_NO_THREAD_SAFETY_ANALYSIS {
  const auto full = static_cast<int>(count);
  batch.letGo();
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

// --- Taking --------------------------------------------------------------------------------------

template <typename Value, typename LoggerType>
Value AffinityQueue<Value, LoggerType>::dequeue(
    std::uint32_t consumer, const std::optional<std::function<void()>>& onTaken) {
  Owner taken;  // outlives the lock: a value is never destroyed under it
  bool wakesProducers = false;
  {
    const orrery::AutoMutex lock(mutex);
    Lane& lane = lanes[consumer % numConsumers];
    waitForElement(lane);
    taken = takeOldest(lane);
    --count;
    wakesProducers = countTaken();
    if (onTaken) (*onTaken)();
  }
  if (wakesProducers) space.broadcast();
  return std::move(taken->value);
}

template <typename Value, typename LoggerType>
void AffinityQueue<Value, LoggerType>::waitForElement(Lane& lane) {
  while (lane.elements.empty() && common.empty() && !terminated) fallAsleep(lane);
  if (terminated) throw QueueTerminated();
}

template <typename Value, typename LoggerType>
void AffinityQueue<Value, LoggerType>::fallAsleep(Lane& lane) {
  sleepers.push(lane);
  if (waitingProducers > 0 && count < capacity) {
    takenMeanwhile = 0;
    space.broadcast();
  }
  while (lane.state == Sleeper::State::Asleep) lane.wake.wait();
  lane.state = Sleeper::State::Awake;
}

// REQUIRES: the lane or the common one has an element.
template <typename Value, typename LoggerType>
typename AffinityQueue<Value, LoggerType>::Owner AffinityQueue<Value, LoggerType>::takeOldest(
    Lane& lane) {
  const bool own = common.empty() ||
                   (!lane.elements.empty() && lane.elements.oldest().order < common.oldest().order);
  return (own ? lane.elements : common).takeOldest();
}

// Whether producers are to be woken, once the mutex was let go of.
template <typename Value, typename LoggerType>
bool AffinityQueue<Value, LoggerType>::countTaken() {
  if (waitingProducers == 0 || count >= capacity) return false;
  if (++takenMeanwhile < takenBeforeWaking && sleepers.empty()) return false;
  takenMeanwhile = 0;
  return true;
}

}  // namespace connectivity::plugins
