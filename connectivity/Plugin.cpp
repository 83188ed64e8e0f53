#include "connectivity/Plugin.hpp"

#include <exception>
#include <stdexcept>
#include <utility>

namespace connectivity {

PluginConstructorParameters::PluginConstructorParameters(std::string name, std::string chain,
                                                         const map_t& configuration, void* status,
                                                         void* host)
    : chainId(std::move(chain)),
      pluginName(std::move(name)),
      config(configuration.copy()),
      statusHandle(status),
      hostHandle(host) {}

// --- Plugin ------------------------------------------------------------------------------------

Plugin::Plugin(const PluginConstructorParameters& parameters)
    : pluginName(parameters.pluginName),
      chainId(parameters.chainId),
      config(parameters.config.copy()),
      _hostHandle(std::make_unique<void*>(parameters.hostHandle)),
      logger("connectivity." + pluginName + "." + chainId),
      _statusReporter(std::make_unique<StatusReporter>(parameters.statusHandle)) {}

Plugin::Plugin(std::string name, std::string chain)
    : pluginName(std::move(name)),
      chainId(std::move(chain)),
      _hostHandle(std::make_unique<void*>(nullptr)),
      logger("connectivity." + pluginName + "." + chainId) {}

Plugin::~Plugin() = default;
void Plugin::start() {}
void Plugin::hostReady() {}
void Plugin::shutdown() {}

StatusReporter& Plugin::getStatusReporter() {
  if (_statusReporter == nullptr)
    throw std::runtime_error("Cannot call getStatusReporter when using the legacy constructor");
  return *_statusReporter;
}

// --- The two sides -----------------------------------------------------------------------------

TransportSide::~TransportSide() = default;
HostSide::~HostSide() = default;

int RemoteHostSide::sendBatchTowardsHost(Message* start, Message* end) {
  return _sendBatch(_chainHandle, reinterpret_cast<qor_message_t*>(start),
                    reinterpret_cast<qor_message_t*>(end));
}

void AbstractTransport::setNextTowardsHost(std::unique_ptr<HostSide>&& side) {
  const std::unique_ptr<HostSide> previous = std::exchange(hostSide, std::move(side));
}

// --- The exception barrier ---------------------------------------------------------------------

void handleException(const Logger& logger, Level level, const char* operation) noexcept {
  try {
    try {
      throw;
    } catch (const std::exception& failure) {
      logger.log(level, "Exception from %s: %s", operation, failure.what());
    } catch (...) {
      logger.log(level, "Unknown exception from %s", operation);
    }
  } catch (...) {
    // A line that cannot be written (memory is out) is given up: nothing may leave from here.
    return;
  }
}

}  // namespace connectivity
