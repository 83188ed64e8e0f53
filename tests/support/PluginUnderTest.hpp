// A plug-in library, loaded as a host loads it, and an instance of it with all the host's sides as
// doubles.
//
//   PluginUnderTest plugin(Config(server.port()));   // created, connected, started
//   const Answer answer = plugin.request(Request("GET", "/x"));
//
// Answers arrive on the plug-in's threads; the member functions below may be called from any thread
// but the destructor and the life-cycle calls, which belong to the test's. Waits throw TimedOut.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <functional>
#include <memory>
#include <mutex>
#include <span>
#include <string>
#include <vector>

#include "connectivity/qor_plugin.h"
#include "tests/support/Messages.hpp"
#include "tests/support/ServiceDoubles.hpp"

namespace test_support {

// The library's ten entry points. Unloaded by the destructor.
class PluginLibrary {
 public:
  // Loads `path` and looks up the entry points that end in _<name>. Throws std::runtime_error.
  PluginLibrary(const std::string& path, const std::string& name);
  // The transport of this build.
  PluginLibrary() : PluginLibrary(builtPath(), "HTTPClient") {}
  ~PluginLibrary();
  PluginLibrary(const PluginLibrary&) = delete;
  PluginLibrary& operator=(const PluginLibrary&) = delete;

  static std::string builtPath();
  // Any symbol by its whole name, or null.
  void* symbol(const std::string& name) const;

  qor_plugin_api_version_t apiVersion;
  qor_plugin_product_version_t productVersion;
  qor_create_plugin_with_params_t create;
  qor_plugin_start_t start;
  qor_plugin_host_ready_t hostReady;
  qor_plugin_shutdown_t shutdown;
  qor_plugin_set_next_towards_host_t setNextTowardsHost;
  qor_plugin_send_batch_towards_transport_t sendBatchTowardsTransport;
  qor_destroy_plugin_t destroy;
  qor_plugin_check_is_transport_t checkIsTransport;

 private:
  template <typename Function>
  Function entry(const std::string& prefix) const;

  const std::string _name;
  void* const _library;
};

struct PluginOptions {
  std::string pluginName = "plugin";
  std::string chainId = "chain";
  int logLevel = QOR_LOG_TRACE;
  // False: created and connected only; the test starts it.
  bool start = true;
  // Used in place of the plug-in's own log double. Borrowed.
  LogDouble* log = nullptr;
};

class PluginUnderTest {
 public:
  // Called on the plug-in's thread, inside the delivery, before the answer counts as arrived.
  using DeliveryHook = std::function<void(const Answer&)>;

  // Creates the instance; throws std::runtime_error with the log's last line where that fails.
  explicit PluginUnderTest(const Config& config, const PluginOptions& options = {});
  // Shuts down (unless the test did) and destroys.
  ~PluginUnderTest();
  PluginUnderTest(const PluginUnderTest&) = delete;
  PluginUnderTest& operator=(const PluginUnderTest&) = delete;

  // The entry points' results.
  int start() { return _library.start(_instance); }
  int shutdown();
  int destroy();
  int send(const Request& request);
  int send(Message&& message);
  int send(std::vector<Message>&& batch) { return send(std::span(batch)); }
  // What the plug-in did not take stays in the batch.
  int send(std::span<Message> batch);

  // Sends and waits for one more answer than there were. For one request at a time.
  Answer request(const Request& request);
  // Waits for the first so many answers of the instance's life, in order of delivery.
  std::vector<Answer> waitForAnswers(std::size_t howMany);
  std::size_t answerCount() const;

  // Set before anything is sent.
  void onDelivery(DeliveryHook hook);
  // What the host's batch function returns; 0 at first. Non-zero: the message is not taken.
  void setDeliveryResult(int result);

  LogDouble& log() noexcept { return *_log; }
  StatusDouble& status() noexcept { return _status; }
  HostDouble& host() noexcept { return _host; }
  // The text of the status item whose key ends with this; throws where there is none.
  std::string statusItem(const std::string& keyEnd) const;
  const PluginLibrary& library() const noexcept { return _library; }
  void* instance() const noexcept { return _instance; }

 private:
  static int deliver(void* context, qor_message_t* start, qor_message_t* end);

  const PluginOptions _options;
  const std::unique_ptr<LogDouble> _ownLog;
  LogDouble* const _log;
  StatusDouble _status;
  HostDouble _host;
  PluginLibrary _library;
  void* _instance = nullptr;
  bool _shutDown = false;

  mutable std::mutex _mutex;
  std::condition_variable _arrived;
  // Below: guarded by _mutex.
  std::vector<Answer> _answers;
  DeliveryHook _hook;
  int _deliveryResult = 0;
};

// Where this build has the stand-alone host.
std::string hostProgram();

}  // namespace test_support
