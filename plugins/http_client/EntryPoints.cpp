// The exported functions, through which the host does everything. No exception passes one.
#include <memory>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <utility>

#include "connectivity/value_access.hpp"
#include "plugins/http_client/HTTPClient.hpp"

namespace connectivity::plugins {

namespace {

constexpr const char* startedInside =
    "HTTPClient cannot be started from inside a delivery or the release of a flush object";
constexpr const char* connectedInside =
    "HTTPClient cannot be connected from inside a delivery or the release of a flush object";
constexpr const char* shutDownInside =
    "HTTPClient cannot be shut down from inside a delivery or the release of a flush object";
constexpr const char* destroyedInside =
    "HTTPClient cannot be destroyed from inside a delivery or the release of a flush object";

HTTPClient& transportOf(void* plugin) noexcept { return *static_cast<HTTPClient*>(plugin); }

// No exception passes an exported function. The report of a failure belongs to the call: the
// transport is there until it is written.
template <typename Work>
int guarded(HTTPClient& transport, Level level, const char* operation, Work&& work) noexcept {
  try {
    work(transport);
    return 0;
  } catch (...) {
    handleException(transport.getLogger(), level, operation);
    return 1;
  }
}

// On a worker, or on a thread whose own call releases a flush object, a call that waits for the
// transport would wait for itself.
bool isRefused(HTTPClient& transport, const Life::Call& call, const char* operation,
               const char* refusal) noexcept {
  if (!call.isNested() && !transport.isOnOwnWorker()) return false;
  guarded(transport, Level::Error, operation,
          [refusal](HTTPClient&) { throw std::runtime_error(refusal); });
  return true;
}

// A call that waits for the transport.
template <typename Work>
int controlled(void* plugin, Level level, const char* operation, const char* refusal,
               Work&& work) noexcept {
  if (plugin == nullptr) return 1;
  HTTPClient& transport = transportOf(plugin);
  const Life::Call call(transport.life(), Life::Call::Kind::Other);
  if (isRefused(transport, call, operation, refusal)) return 1;
  return guarded(transport, level, operation, std::forward<Work>(work));
}

// A call that may come from anywhere.
template <typename Work>
int counted(void* plugin, Life::Call::Kind kind, const char* operation, Work&& work) noexcept {
  if (plugin == nullptr) return 1;
  HTTPClient& transport = transportOf(plugin);
  const Life::Call call(transport.life(), kind);
  return guarded(transport, Level::Warn, operation, std::forward<Work>(work));
}

// False where the transport stays.
bool ended(HTTPClient& transport) noexcept {
  const Life::Call call(transport.life(), Life::Call::Kind::Other);
  if (isRefused(transport, call, "destroy", destroyedInside)) return false;
  guarded(transport, Level::Error, "destroy", [&](HTTPClient&) { transport.end(call); });
  return true;
}

std::string textArgument(const char* text) {
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
using Kind = connectivity::plugins::Life::Call::Kind;

extern "C" {

QOR_API std::uint64_t qor_plugin_api_version_HTTPClient() { return QOR_PLUGIN_API_VERSION; }

QOR_API const char* qor_plugin_product_version_HTTPClient() { return "10.15.4.1"; }

QOR_API void* qor_create_plugin_with_params_HTTPClient(const char* pluginName, const char* chainId,
                                                       qor_data_t configuration, void* statusHandle,
                                                       void* hostHandle) {
  using connectivity::plugins::textArgument;
  try {
    const std::string name = textArgument(pluginName);
    const std::string chain = textArgument(chainId);
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
  return connectivity::plugins::controlled(plugin, Level::Error, "start",
                                           connectivity::plugins::startedInside,
                                           [](HTTPClient& transport) { transport.start(); });
}

QOR_API int qor_plugin_hostReady_HTTPClient(void* plugin) {
  return connectivity::plugins::counted(plugin, Kind::Other, "hostReady",
                                        [](HTTPClient& transport) { transport.hostReady(); });
}

QOR_API int qor_plugin_shutdown_HTTPClient(void* plugin) {
  return connectivity::plugins::controlled(plugin, Level::Warn, "shutdown",
                                           connectivity::plugins::shutDownInside,
                                           [](HTTPClient& transport) { transport.shutdown(); });
}

QOR_API int qor_plugin_setNextTowardsHost_HTTPClient(void* plugin, void* chainHandle,
                                                     qor_send_batch_towards_host_t sendBatch) {
  return connectivity::plugins::controlled(
      plugin, Level::Error, "setNextTowardsHost", connectivity::plugins::connectedInside,
      [=](HTTPClient& transport) {
        if (sendBatch == nullptr) throw std::invalid_argument("The host's batch function is null");
        transport.setNextTowardsHost(
            std::make_unique<connectivity::RemoteHostSide>(chainHandle, sendBatch));
      });
}

QOR_API int qor_plugin_sendBatchTowardsTransport_HTTPClient(void* plugin, qor_message_t* start,
                                                            qor_message_t* end) {
  return connectivity::plugins::counted(
      plugin, Kind::Batch, "sendBatchTowardsTransport", [=](HTTPClient& transport) {
        transport.sendBatchTowardsTransport(reinterpret_cast<Message*>(start),
                                            reinterpret_cast<Message*>(end));
      });
}

QOR_API int qor_destroy_plugin_HTTPClient(void* plugin) {
  auto* const transport = static_cast<HTTPClient*>(plugin);
  // Better a transport too many than a process that hangs.
  if (transport != nullptr && connectivity::plugins::ended(*transport)) delete transport;
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
