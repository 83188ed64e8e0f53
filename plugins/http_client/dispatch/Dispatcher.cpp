#include "plugins/http_client/dispatch/Dispatcher.hpp"

#include <cstring>
#include <stdexcept>
#include <string>
#include <utility>

#include "connectivity/Plugin.hpp"
#include "connectivity/value_access.hpp"

namespace connectivity::plugins {

namespace {

// How often a wait at a barrier asks whether the host is shutting down.
constexpr std::int64_t barrierPassMillis = 1000;

bool isText(const data_t& value, const char* text) {
  return value.isString() && std::strcmp(value.text(), text) == 0;
}

// Present, and neither an empty value nor the empty string.
const data_t* given(const map_t& metadata, const Constant& key) {
  const data_t* value = key.in(metadata);
  return value == nullptr || value->empty() || isText(*value, "") ? nullptr : value;
}

}  // namespace

Dispatcher::Dispatcher(std::uint32_t workers, const DataTConstants& keys, const Logger& logger,
                       void* hostHandle, const std::atomic<bool>& shuttingDown)
    : _workers(workers),
      _keys(keys),
      _logger(logger),
      _hostHandle(hostHandle),
      _shuttingDown(shuttingDown),
      _queue(workers, logger) {}

// --- Batches -------------------------------------------------------------------------------------

Dispatcher::Pushed Dispatcher::push(Message* start, Message* end, WhenFull whenFull) {
  const Batch batch = readBatch(start, end);
  // Let go of after the batch is closed: the last one frees the host's flush object.
  Sentinels sentinels;
  Pushed pushed;
  pushed.failure = batch.failure;
  Queue::LockPushBatch open(_queue, &_shuttingDown,
                            [this](bool waiting) { reportBatchWaits(waiting); });
  try {
    for (std::size_t i = 0; i < batch.wishes.size(); ++i) {
      if (!pushMessage(open, start[i], batch.wishes[i], whenFull, sentinels)) break;
      if (batch.wishes[i].flushFirst) ++pushed.serialized;
    }
  } catch (...) {
    pushed.failure = std::current_exception();
  }
  return pushed;
}

Dispatcher::Batch Dispatcher::readBatch(Message* start, Message* end) const {
  Batch batch;
  batch.wishes.reserve(static_cast<std::size_t>(end - start));
  try {
    for (Message* message = start; message != end; ++message) {
      batch.wishes.push_back(readMessage(message->metadata));
    }
  } catch (...) {
    batch.failure = std::current_exception();
  }
  return batch;
}

Dispatcher::Wish Dispatcher::readMessage(const map_t& metadata) const {
  Wish wish;
  if (isQueueFlush(metadata)) {
    if (_keys.controlObject.in(metadata) == nullptr) {
      throw std::runtime_error("Couldn't locate queue flush object in message");
    }
    wish.queueFlush = true;
  } else if (_workers > 1) {
    wish.flushFirst = shouldFlush(metadata);
    wish.affinity = readAffinity(metadata);
  }
  return wish;
}

std::optional<std::uint32_t> Dispatcher::readAffinity(const map_t& metadata) const {
  const data_t* key = given(metadata, _keys.concurrencyControlKey);
  if (key == nullptr) {
    _logger.debug("HTTPClient - No concurrencyControlKey");
    return std::nullopt;
  }
  if (_logger.enabled(Level::Debug)) {
    _logger.debug("HTTPClient - concurrencyControlKey set: %s", toText(*key).c_str());
  }
  return static_cast<std::uint32_t>(hashes::hash(*key));
}

bool Dispatcher::isQueueFlush(const map_t& metadata) const {
  const data_t* type = _keys.controlType.in(metadata);
  return type != nullptr && isText(*type, "QueueFlush");
}

bool Dispatcher::shouldFlush(const map_t& metadata) const {
  const data_t* flag = given(metadata, _keys.concurrencyControlFlush);
  if (flag == nullptr || isText(*flag, "false")) return false;
  if (flag->tag() == QOR_BOOL && !get<bool>(*flag)) return false;
  if (_logger.enabled(Level::Debug)) {
    _logger.debug("HTTPClient - concurrencyControlFlush set: %s", toText(*flag).c_str());
  }
  return true;
}

data_t Dispatcher::getQueueFlushObject(map_t& metadata) const {
  data_t* object = _keys.controlObject.in(metadata);
  if (object == nullptr) throw std::runtime_error("Couldn't locate queue flush object in message");
  return std::move(*object);
}

void Dispatcher::reportBatchWaits(bool waiting) const noexcept {
  try {
    qor_report_batch_waits(_hostHandle, waiting);
  } catch (...) {
    handleException(_logger, Level::Error, "batch_waits");
  }
}

// False where the transport is shutting down and takes no more; the message is then untouched.
bool Dispatcher::pushMessage(Queue::LockPushBatch& batch, Message& message, const Wish& wish,
                             WhenFull whenFull, Sentinels& sentinels) {
  if (wish.queueFlush || wish.flushFirst) {
    sentinels.push_back(
        enqueueSentinel(batch, _workers, whenFull, wish.queueFlush ? &message.metadata : nullptr));
    if (sentinels.back() == nullptr) return false;
    if (wish.queueFlush) return true;
  }
  return _queue.enqueue(batch, std::move(message), whenFull, wish.affinity);
}

std::shared_ptr<Sentinel> Dispatcher::enqueueSentinel(Queue::LockPushBatch& batch,
                                                      std::uint32_t workers, WhenFull whenFull,
                                                      map_t* metadata) {
  std::shared_ptr<Sentinel> sentinel;
  const auto shareOne = [&] {
    if (sentinel == nullptr) {
      sentinel = std::make_shared<Sentinel>(
          _barriers, workers, metadata == nullptr ? data_t() : getQueueFlushObject(*metadata));
    }
    return sentinel;
  };
  _queue.enqueueOnEachLane(batch, workers, whenFull, shareOne);
  return sentinel;
}

Message Dispatcher::getNextMessageRequest(unsigned worker) {
  for (;;) {
    Element element = _queue.dequeue(worker);
    if (auto* message = std::get_if<Message>(&element)) return std::move(*message);
    auto* sentinel = std::get_if<std::shared_ptr<Sentinel>>(&element);
    if (sentinel == nullptr || *sentinel == nullptr) throw std::runtime_error("Unexpected index");
    waitAtBarrier(worker, **sentinel);
  }
}

// Arrives first, so that nobody else waits for this worker whatever the host answers. A host that
// cannot tell whether it is shutting down is reported once, and the barrier still holds.
void Dispatcher::waitAtBarrier(unsigned worker, Sentinel& sentinel) const {
  sentinel.arrive();
  bool reported = false;
  for (;;) {
    try {
      if (isHostShuttingDown()) return;
    } catch (const std::exception& exception) {
      if (!reported) {
        _logger.logForWorker(worker, isShuttingDown() ? Level::Debug : Level::Error,
                             "HTTPClient - Caught exception during processing - %s",
                             exception.what());
      }
      reported = true;
    }
    if (sentinel.waitUntilOpen(barrierPassMillis)) return;
  }
}

bool Dispatcher::isHostShuttingDown() const {
  bool answer = false;
  if (qor_is_host_shutting_down(_hostHandle, &answer) != 0) {
    throw std::runtime_error("An error occurred while checking if host is shutting down");
  }
  return answer;
}

// --- The end -------------------------------------------------------------------------------------

void Dispatcher::drain(std::uint32_t running) {
  std::exception_ptr failure;
  const auto isHostGoing = [&] {
    try {
      return isHostShuttingDown();
    } catch (...) {
      failure = std::current_exception();
      return false;
    }
  };
  if (!isHostGoing()) {
    std::shared_ptr<Sentinel> sentinel;
    {
      Queue::LockPushBatch batch(_queue);
      sentinel = enqueueSentinel(batch, running, WhenFull::Grow, nullptr);
    }
    while (sentinel != nullptr && !isHostGoing() &&
           !sentinel->waitUntilComplete(barrierPassMillis)) {
    }
  }
  if (failure) std::rethrow_exception(failure);
}

// The queue first: who leaves a barrier that will never be complete finds nothing behind it.
void Dispatcher::terminate() {
  _queue.terminate();
  _barriers.abandon(true);
}

}  // namespace connectivity::plugins
