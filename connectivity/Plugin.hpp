// The class frame of a transport plug-in: what create hands to its constructor, and the two sides
// between which messages travel.
//
// The host drives a plug-in from one thread at a time, except for batches towards the transport,
// which come from any thread. Handles are the host's and outlive the plug-in.
#pragma once

#include <memory>
#include <string>

#include "connectivity/Logger.hpp"
#include "connectivity/StatusReporter.hpp"
#include "connectivity/data_t.hpp"
#include "connectivity/qor_plugin.h"

namespace connectivity {

// What the host gave to create, copied.
class PluginConstructorParameters {
 public:
  using TransportConstructorParameters = PluginConstructorParameters;

  PluginConstructorParameters(std::string name, std::string chain, const map_t& configuration,
                              void* status, void* host);

  std::string chainId;
  std::string pluginName;
  map_t config;
  void* statusHandle;  // borrowed from the host
  void* hostHandle;    // borrowed from the host
};

// The base of every plug-in.
class Plugin {
 public:
  explicit Plugin(const PluginConstructorParameters& parameters);
  // A plug-in without status support, for hosts that have none.
  Plugin(std::string name, std::string chain);
  virtual ~Plugin();
  Plugin(const Plugin&) = delete;
  Plugin& operator=(const Plugin&) = delete;

  // Do nothing here.
  virtual void start();
  virtual void hostReady();
  virtual void shutdown();

  const Logger& getLogger() const noexcept { return logger; }
  // Throws std::runtime_error "Cannot call getStatusReporter when using the legacy constructor".
  StatusReporter& getStatusReporter();

 protected:
  const std::string pluginName;
  const std::string chainId;
  const map_t config;
  // The host's handle, for the host queries.
  void* hostHandle() const noexcept { return *_hostHandle; }

 private:
  const std::unique_ptr<void*> _hostHandle;

 protected:
  const Logger logger;

 private:
  const std::unique_ptr<StatusReporter> _statusReporter;
};

// The side towards the transport.
class TransportSide {
 public:
  virtual ~TransportSide();
  // Takes the messages from `start` up to `end`; what is taken is left empty.
  virtual void sendBatchTowardsTransport(Message* start, Message* end) = 0;
};

// The side towards the host.
class HostSide {
 public:
  virtual ~HostSide();
  // The result is the host's: 0 for success. What the host does not take stays with the caller.
  virtual int sendBatchTowardsHost(Message* start, Message* end) = 0;
};

// The host, behind the C function that it gave to setNextTowardsHost.
class RemoteHostSide final : public HostSide {
 public:
  RemoteHostSide(void* chainHandle, qor_send_batch_towards_host_t sendBatch) noexcept
      : _chainHandle(chainHandle), _sendBatch(sendBatch) {}
  int sendBatchTowardsHost(Message* start, Message* end) override;

 private:
  void* const _chainHandle;  // borrowed from the host
  const qor_send_batch_towards_host_t _sendBatch;
};

class AbstractTransport : public Plugin, public TransportSide {
 public:
  using Plugin::Plugin;
  // Takes the host side over; the previous one is destroyed after the new one stands. Not locked: a
  // transport that may be delivering meanwhile overrides this and holds its lock around the call.
  virtual void setNextTowardsHost(std::unique_ptr<HostSide>&& side);

 protected:
  std::unique_ptr<HostSide> hostSide;  // null until the host connects it
};

// Logs the exception in flight at `level`: "Exception from <operation>: <text>", or "Unknown
// exception from <operation>". Never throws. REQUIRES: called from a catch handler.
void handleException(const Logger& logger, Level level, const char* operation) noexcept;

}  // namespace connectivity
