// The transport's life: made, started, shut down, destroyed; its batches and its answers.
#include "plugins/http_client/HTTPClient.hpp"

#include <exception>
#include <stdexcept>
#include <utility>

#include "orrery/Platform.hpp"
#include "orrery/SchedulableQueue.hpp"

namespace connectivity::plugins {

namespace {

// A worker must not wait for space: it may be the one that is to make it. And before the workers
// run, nobody is.
WhenFull whenFull(Life::State state, bool onOwnWorker) noexcept {
  if (onOwnWorker) return WhenFull::Grow;
  return state == Life::State::Made ? WhenFull::Refuse : WhenFull::Wait;
}

constexpr const char* startedTooLate = "HTTPClient cannot be started after shutdown";

}  // namespace

orrery::ThreadLocal<AbstractTransport> HTTPClient::sourceThread;

HTTPClient::HTTPClient(
    const PluginConstructorParameters::TransportConstructorParameters& parameters)
    : AbstractTransport(parameters),
      options(ConfiguredOptions::parse(config)),
      dispatcher(workerCount(), constants, getLogger(), hostHandle(), _life.isStopping()),
      metrics(getStatusReporter(), pluginName + "." + chainId, workerCount()),
      cookies(options.cookieJar, getLogger()),
      tlsContexts({options.tls.certificateAuthorityFile, options.tls.acceptUnrecognizedCertificates,
                   options.tls.clientCertificateFile, options.tls.clientKeyFile,
                   options.tls.clientKeyPassword, options.tls.certificateAuthorityOption}),
      workplace{*this,   options, constants,   getLogger(), dispatcher,
                metrics, cookies, tlsContexts, resolver} {
  const orrery::AutoMutex lock(sessionsMutex);
  clientSessionThreads.reserve(workerCount());
  for (unsigned worker = 0; worker < workerCount(); ++worker) {
    clientSessionThreads.emplace_back(new ClientSessionThread(workplace, worker));
  }
  getLogger().info("Created %d Client Session Threads",
                   static_cast<int>(clientSessionThreads.size()));
}

HTTPClient::~HTTPClient() {
  std::uint32_t running = 0;
  beginToStop(running);
  _life.waitForBatches();
  stopWorkers();
}

void HTTPClient::start() {
  if (_life.isStopping()) throw std::runtime_error(startedTooLate);
  {
    const orrery::AutoMutex lock(responseMutex);
    if (hostSide == nullptr) {
      throw std::runtime_error("HTTPClient cannot be started before it has a host side");
    }
  }
  enableQueueFlushMessages();
  metrics.updateTransportStatus("ONLINE");
  startWorkers();
}

void HTTPClient::enableQueueFlushMessages() const {
  if (qor_enable_queue_flush_messages(hostHandle()) == 0) return;
  getLogger().warn(
      "Could not enable queue flush notifications, cannot flush internal queue on flushAllQueue "
      "requests %s",
      "An error occurred while enabling queue flush messages");
}

void HTTPClient::startWorkers() {
  std::exception_ptr failure;
  {
    const orrery::AutoMutex lock(sessionsMutex);
    if (_life.isStopping()) throw std::runtime_error(startedTooLate);
    try {
      startEach();
      _life.run();
    } catch (...) {
      failure = std::current_exception();
    }
    // A barrier that waits for workers that are missing would never be complete.
    dispatcher.abandonBarriers(failure != nullptr);
  }
  if (!failure) return;
  metrics.updateTransportStatus("FAILED");
  std::rethrow_exception(failure);
}

void HTTPClient::startEach() {
  while (runningWorkers < clientSessionThreads.size()) {
    clientSessionThreads[runningWorkers]->start();
    ++runningWorkers;
  }
}

void HTTPClient::setNextTowardsHost(std::unique_ptr<HostSide>&& side) {
  const orrery::AutoMutex lock(responseMutex);
  AbstractTransport::setNextTowardsHost(std::move(side));
}

// --- Batches -------------------------------------------------------------------------------------

void HTTPClient::sendBatchTowardsTransport(Message* start, Message* end) {
  const Life::State state = _life.state();
  if (state >= Life::State::Stopping) return;
  const bool onOwnWorker = isOnOwnWorker();
  // It must not need the sessions mutex either, which is held while workers are joined.
  if (!onOwnWorker) captureSchedulableQueue();
  Dispatcher::Pushed pushed = dispatcher.push(start, end, whenFull(state, onOwnWorker));
  for (; pushed.serialized > 0; --pushed.serialized) metrics.countSerializedRequest();
  metrics.updateConcurrencyUtilizationStatus();
  metrics.setQueueSize(dispatcher.queueSize());
  if (pushed.failure) std::rethrow_exception(pushed.failure);
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

// --- Answers -------------------------------------------------------------------------------------

void HTTPClient::deliver(Answer&& answer) noexcept {
  sendResponse(std::move(answer.message), answer.startTime, answer.status, answer.size);
}

void HTTPClient::sendResponse(Message&& message, double requestStartTime, int status,
                              unsigned int size) noexcept {
  // Each step is on its own: the answer goes out whatever the figures do, and once only.
  const auto attempt = [this](auto&& step) noexcept {
    try {
      step();
    } catch (...) {
      handleException(getLogger(), Level::Error, "sendResponse");
    }
  };
  int refusal = 0;
  attempt([&] {
    const orrery::AutoMutex lock(responseMutex);
    attempt([&] {
      metrics.updateResponseMetrics(orrery::Platform::relativeHighResTimeFloat() - requestStartTime,
                                    status, size);
    });
    refusal = handOver(message);
    metrics.countResponse(status);
  });
  attempt([&] {
    if (refusal != 0) getLogger().warn("The host refused a response (%d)", refusal);
  });
}

int HTTPClient::handOver(Message& message) {
  return hostSide->sendBatchTowardsHost(&message, &message + 1);
}

// --- The end -------------------------------------------------------------------------------------

// False where that was so before. Under the mutex, so that a start beside this is whole or not at
// all; `running` workers are to be waited for.
bool HTTPClient::beginToStop(std::uint32_t& running) {
  const orrery::AutoMutex lock(sessionsMutex);
  running = runningWorkers;
  if (!_life.stop()) return false;
  dispatcher.wakeBatches();
  return true;
}

void HTTPClient::shutdown() {
  std::uint32_t running = 0;
  if (!beginToStop(running)) return;
  _life.waitForBatches();
  std::exception_ptr failure;
  try {
    dispatcher.drain(running);
  } catch (...) {
    failure = std::current_exception();
  }
  stopWorkers();
  if (failure) std::rethrow_exception(failure);
}

void HTTPClient::end(const Life::Call& own) {
  std::uint32_t running = 0;
  beginToStop(running);
  _life.waitUntilAlone(own);
  stopWorkers();
}

void HTTPClient::stopWorkers() {
  dispatcher.terminate();
  {
    const orrery::AutoMutex lock(sessionsMutex);
    for (const auto& worker : clientSessionThreads) worker->stop();
    clientSessionThreads.clear();
    runningWorkers = 0;
  }
  _life.stopped();
  if (const std::uint32_t dropped = dispatcher.drop(); dropped > 0) {
    getLogger().warn("Dropped %u queued elements that no worker has taken", dropped);
  }
}

}  // namespace connectivity::plugins
