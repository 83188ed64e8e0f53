// The exported functions, through which the host does everything. No exception passes one.
#include <memory>
#include <stdexcept>
#include <string>
#include <type_traits>

#include "connectivity/value_access.hpp"
#include "plugins/http_client/HTTPClient.hpp"

namespace connectivity::plugins {

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
