// From a batch to the workers' lanes, and from a lane to its worker.
//
// A batch is read first, without a lock, because reading it logs, and the host may do anything in
// its log function. Then it is pushed, under the queue's mutex and without any call of the host.
#include <cstring>
#include <stdexcept>
#include <string>
#include <utility>

#include "connectivity/value_access.hpp"
#include "orrery/SchedulableQueue.hpp"
#include "plugins/http_client/HTTPClient.hpp"
#include "plugins/http_client/worker/ClientSessionThread.hpp"

namespace connectivity::plugins {

namespace {

bool isText(const data_t& value, const char* text) {
  return value.isString() && std::strcmp(value.text(), text) == 0;
}

// Present, and neither an empty value nor the empty string.
const data_t* given(const map_t& metadata, const Constant& key) {
  const data_t* value = key.in(metadata);
  return value == nullptr || value->empty() || isText(*value, "") ? nullptr : value;
}

}  // namespace

void HTTPClient::sendBatchTowardsTransport(Message* start, Message* end) {
  const BatchGate::Pass inside(batchGate);
  if (!inside) return;
  // A worker must not wait for space: it may be the one that is to make it.
  const bool noWait = isOnOwnWorker();
  // Nor may it need the sessions mutex, which is held while workers are joined.
  if (!noWait) captureSchedulableQueue();
  const Batch batch = readBatch(start, end);
  push(start, batch, noWait);
  metrics.updateConcurrencyUtilizationStatus();
  metrics.setQueueSize(queue->size());
  if (batch.failure) std::rethrow_exception(batch.failure);
}

// Has the workers run their requests in the queue of the host's scheduler that the first batch came
// from.
void HTTPClient::captureSchedulableQueue() {
  if (!needSchedulableQueue.load(std::memory_order_relaxed)) return;
  orrery::SchedulableQueue* current = orrery::SchedulableQueue::current();
  if (current == nullptr) return;
  const orrery::AutoMutex lock(sessionsMutex);
  if (!needSchedulableQueue.exchange(false)) return;
  for (const auto& worker : clientSessionThreads) {
    worker->schedulableQueue.store(current, std::memory_order_release);
  }
}

HTTPClient::Batch HTTPClient::readBatch(Message* start, Message* end) const {
  Batch batch;
  batch.messages.reserve(static_cast<std::size_t>(end - start));
  try {
    for (Message* message = start; message != end; ++message) {
      batch.messages.push_back(readMessage(message->metadata));
    }
  } catch (...) {
    batch.failure = std::current_exception();
  }
  return batch;
}

HTTPClient::Dispatch HTTPClient::readMessage(const map_t& metadata) const {
  Dispatch dispatch;
  if (isQueueFlush(metadata)) {
    if (constants.controlObject.in(metadata) == nullptr) {
      throw std::runtime_error("Couldn't locate queue flush object in message");
    }
    dispatch.queueFlush = true;
  } else if (workerCount() > 1) {
    dispatch.flushFirst = shouldFlush(metadata);
    dispatch.affinity = readAffinity(metadata);
  }
  return dispatch;
}

std::optional<std::uint32_t> HTTPClient::readAffinity(const map_t& metadata) const {
  const data_t* key = given(metadata, constants.concurrencyControlKey);
  if (key == nullptr) {
    getLogger().debug("HTTPClient - No concurrencyControlKey");
    return std::nullopt;
  }
  if (getLogger().enabled(Level::Debug)) {
    getLogger().debug("HTTPClient - concurrencyControlKey set: %s", toText(*key).c_str());
  }
  return static_cast<std::uint32_t>(hashes::hash(*key));
}

bool HTTPClient::isQueueFlush(const map_t& metadata) const {
  const data_t* type = constants.controlType.in(metadata);
  return type != nullptr && isText(*type, "QueueFlush");
}

bool HTTPClient::shouldFlush(const map_t& metadata) const {
  const data_t* flag = given(metadata, constants.concurrencyControlFlush);
  if (flag == nullptr || isText(*flag, "false")) return false;
  if (flag->tag() == QOR_BOOL && !get<bool>(*flag)) return false;
  if (getLogger().enabled(Level::Debug)) {
    getLogger().debug("HTTPClient - concurrencyControlFlush set: %s", toText(*flag).c_str());
  }
  return true;
}

data_t HTTPClient::getQueueFlushObject(map_t& metadata) const {
  data_t* object = constants.controlObject.in(metadata);
  if (object == nullptr) throw std::runtime_error("Couldn't locate queue flush object in message");
  return std::move(*object);
}

void HTTPClient::push(Message* start, const Batch& batch, bool noWait) {
  // Let go of after the batch is closed: the last one frees the host's flush object.
  std::vector<std::shared_ptr<Sentinel>> sentinels;
  std::size_t serialized = 0;
  {
    Queue::LockPushBatch open(*queue, &batchGate.closed());
    for (std::size_t i = 0; i < batch.messages.size(); ++i) {
      const Dispatch& dispatch = batch.messages[i];
      if (!pushMessage(open, start[i], dispatch, noWait, sentinels)) break;
      if (dispatch.flushFirst) ++serialized;
    }
  }
  for (; serialized > 0; --serialized) metrics.countSerializedRequest();
}

// False where the transport is shutting down and takes no more; the message is then untouched.
bool HTTPClient::pushMessage(Queue::LockPushBatch& batch, Message& message,
                             const Dispatch& dispatch, bool noWait,
                             std::vector<std::shared_ptr<Sentinel>>& sentinels) {
  if (dispatch.queueFlush || dispatch.flushFirst) {
    sentinels.push_back(enqueueSentinel(batch, workerCount(), noWait,
                                        dispatch.queueFlush ? &message.metadata : nullptr));
    if (sentinels.back() == nullptr) return false;
    if (dispatch.queueFlush) return true;
  }
  return queue->enqueue(batch, std::move(message), noWait, dispatch.affinity);
}

std::shared_ptr<Sentinel> HTTPClient::enqueueSentinel(Queue::LockPushBatch& batch,
                                                      std::uint32_t workers, bool noWait,
                                                      map_t* metadata) {
  std::shared_ptr<Sentinel> sentinel;
  const auto shareOne = [&] {
    if (sentinel == nullptr) {
      sentinel = std::make_shared<Sentinel>(
          workers, metadata == nullptr ? data_t() : getQueueFlushObject(*metadata));
    }
    return sentinel;
  };
  queue->enqueueOnEachLane(batch, workers, noWait, shareOne);
  return sentinel;
}

Message HTTPClient::getNextMessageRequest(unsigned worker) {
  for (;;) {
    QueueElement element = queue->dequeue(worker);
    if (auto* message = std::get_if<Message>(&element)) return std::move(*message);
    auto* sentinel = std::get_if<std::shared_ptr<Sentinel>>(&element);
    if (sentinel == nullptr || *sentinel == nullptr) throw std::runtime_error("Unexpected index");
    waitAtBarrier(worker, **sentinel);
  }
}

// Arrives first, so that nobody else waits for this worker whatever the host answers. A host that
// cannot tell whether it is shutting down is reported once, and the barrier still holds.
void HTTPClient::waitAtBarrier(unsigned worker, Sentinel& sentinel) const {
  sentinel.arrive();
  bool reported = false;
  while (!barriersAbandoned) {
    try {
      if (isHostShuttingDown()) return;
    } catch (const std::exception& exception) {
      if (!reported) {
        getLogger().logForWorker(worker, isShuttingDown() ? Level::Debug : Level::Error,
                                 "HTTPClient - Caught exception during processing - %s",
                                 exception.what());
      }
      reported = true;
    }
    if (sentinel.waitUntilComplete(barrierPassMillis)) return;
  }
}

}  // namespace connectivity::plugins
