// The transport's life: made, started, shut down, destroyed; its answers; and the exported
// functions through which the host does all that. Batches and barriers are in Dispatch.cpp.
#include "plugins/http_client/HTTPClient.hpp"

#include <stdexcept>
#include <string>
#include <type_traits>
#include <utility>

#include "connectivity/value_access.hpp"
#include "orrery/Platform.hpp"
#include "plugins/http_client/worker/ClientSessionThread.hpp"

namespace connectivity::plugins {

orrery::ThreadLocal<AbstractTransport> HTTPClient::sourceThread;

HTTPClient::HTTPClient(
    const PluginConstructorParameters::TransportConstructorParameters& parameters)
    : AbstractTransport(parameters),
      options(ConfiguredOptions::parse(config)),
      queue(std::make_unique<Queue>(workerCount(), getLogger())),
      metrics(getStatusReporter(), pluginName + "." + chainId, workerCount()),
      cookies(options.cookieJar, getLogger()),
      tlsContexts(options.tlsCertificateAuthorityFile, options.tlsAcceptUnrecognizedCertificates) {
  const orrery::AutoMutex lock(sessionsMutex);
  clientSessionThreads.reserve(workerCount());
  for (unsigned worker = 0; worker < workerCount(); ++worker) {
    clientSessionThreads.emplace_back(new ClientSessionThread(*this, worker));
  }
  getLogger().info("Created %d Client Session Threads",
                   static_cast<int>(clientSessionThreads.size()));
}

HTTPClient::~HTTPClient() {
  finishBatches();
  stopWorkers();
}

void HTTPClient::start() {
  if (isShuttingDown()) throw std::runtime_error("HTTPClient cannot be started after shutdown");
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
  const orrery::AutoMutex lock(sessionsMutex);
  try {
    while (runningWorkers < clientSessionThreads.size()) {
      clientSessionThreads[runningWorkers]->start();
      ++runningWorkers;
    }
    barriersAbandoned = false;
  } catch (...) {
    // A barrier that waits for the workers that are missing would never be complete.
    barriersAbandoned = true;
    metrics.updateTransportStatus("FAILED");
    throw;
  }
}

void HTTPClient::setNextTowardsHost(std::unique_ptr<HostSide>&& side) {
  if (isOnOwnWorker()) {
    throw std::runtime_error("HTTPClient cannot be connected from one of its own workers");
  }
  const orrery::AutoMutex lock(responseMutex);
  AbstractTransport::setNextTowardsHost(std::move(side));
}

// --- Answers -------------------------------------------------------------------------------------

template <typename T>
void HTTPClient::sendResponse(Message&& message, double requestStartTime,
                              Poco::Net::HTTPResponse::HTTPStatus status, T size) noexcept {
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
                                    status, static_cast<unsigned int>(size));
    });
    refusal = handOver(message);
    metrics.countResponse(status);
  });
  attempt([&] {
    if (refusal != 0) getLogger().warn("The host refused a response (%d)", refusal);
  });
}

template void HTTPClient::sendResponse<int>(Message&&, double, Poco::Net::HTTPResponse::HTTPStatus,
                                            int) noexcept;
template void HTTPClient::sendResponse<unsigned int>(Message&&, double,
                                                     Poco::Net::HTTPResponse::HTTPStatus,
                                                     unsigned int) noexcept;

int HTTPClient::handOver(Message& message) {
  return hostSide->sendBatchTowardsHost(&message, &message + 1);
}

// --- The end -------------------------------------------------------------------------------------

void HTTPClient::shutdown() {
  if (isOnOwnWorker()) {
    throw std::runtime_error("HTTPClient cannot be shut down from one of its own workers");
  }
  if (!batchGate.close()) return;
  finishBatches();
  std::exception_ptr failure;
  try {
    drain();
  } catch (...) {
    failure = std::current_exception();
  }
  stopWorkers();
  if (failure) std::rethrow_exception(failure);
}

// Keeps later batches out and waits for those that are inside: what they queued is accepted, and
// none of them touches the transport any more.
void HTTPClient::finishBatches() {
  batchGate.close();
  queue->wakeProducers();
  batchGate.waitUntilEmpty();
}

// Waits until the running workers have finished what is queued, or until the host itself shuts
// down. A host that cannot tell is taken to be running, so that nothing accepted is lost; its
// failure is thrown at the end.
void HTTPClient::drain() {
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
    const auto sentinel = enqueueLastSentinel();
    while (sentinel != nullptr && !isHostGoing() &&
           !sentinel->waitUntilComplete(barrierPassMillis)) {
    }
  }
  if (failure) std::rethrow_exception(failure);
}

// Null where no worker runs that could reach it.
std::shared_ptr<Sentinel> HTTPClient::enqueueLastSentinel() {
  std::uint32_t running = 0;
  {
    const orrery::AutoMutex lock(sessionsMutex);
    running = runningWorkers;
  }
  Queue::LockPushBatch batch(*queue);
  return enqueueSentinel(batch, running, true, nullptr);
}

bool HTTPClient::isHostShuttingDown() const {
  bool answer = false;
  if (qor_is_host_shutting_down(hostHandle(), &answer) != 0) {
    throw std::runtime_error("An error occurred while checking if host is shutting down");
  }
  return answer;
}

void HTTPClient::stopWorkers() {
  barriersAbandoned = true;
  queue->terminate();
  const orrery::AutoMutex lock(sessionsMutex);
  for (const auto& worker : clientSessionThreads) worker->stop();
  clientSessionThreads.clear();
  runningWorkers = 0;
  if (const std::uint32_t dropped = queue->size(); dropped > 0) {
    getLogger().warn("Dropped %u queued elements that no worker has taken", dropped);
  }
}

// --- Exported functions --------------------------------------------------------------------------

namespace {

HTTPClient& transportOf(void* plugin) noexcept { return *static_cast<HTTPClient*>(plugin); }

// No exception passes an exported function.
template <typename Call>
int guarded(void* plugin, Level level, const char* operation, Call&& call) noexcept {
  if (plugin == nullptr) return 1;
  try {
    call(transportOf(plugin));
    return 0;
  } catch (...) {
    handleException(transportOf(plugin).getLogger(), level, operation);
    return 1;
  }
}

std::string requiredText(const char* text) {
  if (text == nullptr) throw std::logic_error("basic_string::_M_construct null not valid");
  return text;
}

// REQUIRES: called from a catch handler.
void reportFailedCreate(const char* pluginName, const char* chainId) noexcept {
  try {
    const auto textOrNone = [](const char* text) { return text == nullptr ? "" : text; };
    const Logger logger(std::string("connectivity.") + textOrNone(pluginName) + "." +
                        textOrNone(chainId));
    handleException(logger, Level::Error, "create");
  } catch (...) {  // NOLINT(bugprone-empty-catch): nobody is left to tell
  }
}

}  // namespace

}  // namespace connectivity::plugins

using connectivity::Level;
using connectivity::Message;
using connectivity::plugins::HTTPClient;

extern "C" {

QOR_API std::uint64_t qor_plugin_api_version_HTTPClient() { return QOR_PLUGIN_API_VERSION; }

QOR_API const char* qor_plugin_product_version_HTTPClient() { return "10.15.4.1"; }

QOR_API void* qor_create_plugin_with_params_HTTPClient(const char* pluginName, const char* chainId,
                                                       qor_data_t configuration, void* statusHandle,
                                                       void* hostHandle) {
  using connectivity::plugins::requiredText;
  try {
    const std::string name = requiredText(pluginName);
    const std::string chain = requiredText(chainId);
    // The host's value, seen as what it is; it stays the host's.
    const auto& value = reinterpret_cast<const connectivity::data_t&>(configuration);
    return new HTTPClient(connectivity::PluginConstructorParameters(
        name, chain, connectivity::get<connectivity::map_t>(value), statusHandle, hostHandle));
  } catch (...) {
    connectivity::plugins::reportFailedCreate(pluginName, chainId);
    return nullptr;
  }
}

QOR_API int qor_plugin_start_HTTPClient(void* plugin) {
  return connectivity::plugins::guarded(plugin, Level::Error, "start",
                                        [](HTTPClient& transport) { transport.start(); });
}

QOR_API int qor_plugin_hostReady_HTTPClient(void* plugin) {
  return connectivity::plugins::guarded(plugin, Level::Warn, "hostReady",
                                        [](HTTPClient& transport) { transport.hostReady(); });
}

QOR_API int qor_plugin_shutdown_HTTPClient(void* plugin) {
  return connectivity::plugins::guarded(plugin, Level::Warn, "shutdown",
                                        [](HTTPClient& transport) { transport.shutdown(); });
}

QOR_API int qor_plugin_setNextTowardsHost_HTTPClient(void* plugin, void* chainHandle,
                                                     qor_send_batch_towards_host_t sendBatch) {
  return connectivity::plugins::guarded(
      plugin, Level::Error, "setNextTowardsHost", [=](HTTPClient& transport) {
        if (sendBatch == nullptr) throw std::invalid_argument("The host's batch function is null");
        transport.setNextTowardsHost(
            std::make_unique<connectivity::RemoteHostSide>(chainHandle, sendBatch));
      });
}

QOR_API int qor_plugin_sendBatchTowardsTransport_HTTPClient(void* plugin, qor_message_t* start,
                                                            qor_message_t* end) {
  return connectivity::plugins::guarded(
      plugin, Level::Warn, "sendBatchTowardsTransport", [=](HTTPClient& transport) {
        transport.sendBatchTowardsTransport(reinterpret_cast<Message*>(start),
                                            reinterpret_cast<Message*>(end));
      });
}

QOR_API int qor_destroy_plugin_HTTPClient(void* plugin) {
  if (plugin == nullptr) return 0;
  auto* transport = static_cast<HTTPClient*>(plugin);
  if (transport->isOnOwnWorker()) {
    // It would wait for its own end. Better a transport too many than a process that hangs.
    connectivity::plugins::guarded(plugin, Level::Error, "destroy", [](HTTPClient&) {
      throw std::runtime_error("HTTPClient cannot be destroyed from one of its own workers");
    });
    return 0;
  }
  delete transport;
  return 0;
}

// NOLINTNEXTLINE(bugprone-reserved-identifier): the name is the interface's
QOR_API std::uintptr_t _qor_plugin_checkIsTransport_HTTPClient(std::uintptr_t word) { return word; }

}  // extern "C"

static_assert(
    std::is_same_v<decltype(&qor_plugin_api_version_HTTPClient), qor_plugin_api_version_t>);
static_assert(
    std::is_same_v<decltype(&qor_plugin_product_version_HTTPClient), qor_plugin_product_version_t>);
static_assert(std::is_same_v<decltype(&qor_create_plugin_with_params_HTTPClient),
                             qor_create_plugin_with_params_t>);
static_assert(std::is_same_v<decltype(&qor_plugin_start_HTTPClient), qor_plugin_start_t>);
static_assert(std::is_same_v<decltype(&qor_plugin_hostReady_HTTPClient), qor_plugin_host_ready_t>);
static_assert(std::is_same_v<decltype(&qor_plugin_shutdown_HTTPClient), qor_plugin_shutdown_t>);
static_assert(std::is_same_v<decltype(&qor_plugin_setNextTowardsHost_HTTPClient),
                             qor_plugin_set_next_towards_host_t>);
static_assert(std::is_same_v<decltype(&qor_plugin_sendBatchTowardsTransport_HTTPClient),
                             qor_plugin_send_batch_towards_transport_t>);
static_assert(std::is_same_v<decltype(&qor_destroy_plugin_HTTPClient), qor_destroy_plugin_t>);
static_assert(std::is_same_v<decltype(&_qor_plugin_checkIsTransport_HTTPClient),
                             qor_plugin_check_is_transport_t>);
