#include "tests/support/PluginUnderTest.hpp"

#include <dlfcn.h>
#include <exception>
#include <stdexcept>

#include <gtest/gtest.h>

#include "tests/support/Event.hpp"

namespace test_support {

// --- PluginLibrary -----------------------------------------------------------------------------

namespace {

void* load(const std::string& path) {
  void* const library = ::dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (library == nullptr) throw std::runtime_error(::dlerror());
  return library;
}

}  // namespace

template <typename Function>
Function PluginLibrary::entry(const std::string& prefix) const {
  const auto function = reinterpret_cast<Function>(symbol(prefix + _name));
  if (function == nullptr) throw std::runtime_error("No entry point " + prefix + _name);
  return function;
}

PluginLibrary::PluginLibrary(const std::string& path, const std::string& name)
    : apiVersion(nullptr),
      productVersion(nullptr),
      create(nullptr),
      start(nullptr),
      hostReady(nullptr),
      shutdown(nullptr),
      setNextTowardsHost(nullptr),
      sendBatchTowardsTransport(nullptr),
      destroy(nullptr),
      checkIsTransport(nullptr),
      _name(name),
      _library(load(path)) {
  apiVersion = entry<qor_plugin_api_version_t>("qor_plugin_api_version_");
  productVersion = entry<qor_plugin_product_version_t>("qor_plugin_product_version_");
  create = entry<qor_create_plugin_with_params_t>("qor_create_plugin_with_params_");
  start = entry<qor_plugin_start_t>("qor_plugin_start_");
  hostReady = entry<qor_plugin_host_ready_t>("qor_plugin_hostReady_");
  shutdown = entry<qor_plugin_shutdown_t>("qor_plugin_shutdown_");
  setNextTowardsHost = entry<qor_plugin_set_next_towards_host_t>("qor_plugin_setNextTowardsHost_");
  sendBatchTowardsTransport =
      entry<qor_plugin_send_batch_towards_transport_t>("qor_plugin_sendBatchTowardsTransport_");
  destroy = entry<qor_destroy_plugin_t>("qor_destroy_plugin_");
  checkIsTransport = entry<qor_plugin_check_is_transport_t>("_qor_plugin_checkIsTransport_");
}

PluginLibrary::~PluginLibrary() { ::dlclose(_library); }

std::string PluginLibrary::builtPath() { return TEST_SUPPORT_TRANSPORT; }

void* PluginLibrary::symbol(const std::string& name) const {
  return ::dlsym(_library, name.c_str());
}

std::string hostProgram() { return TEST_SUPPORT_HOST_PROGRAM; }

// --- PluginUnderTest ---------------------------------------------------------------------------

PluginUnderTest::PluginUnderTest(const Config& config, const PluginOptions& options)
    : _options(options),
      _ownLog(options.log == nullptr ? std::make_unique<LogDouble>(options.logLevel) : nullptr),
      _log(options.log == nullptr ? _ownLog.get() : options.log) {
  const data_t configuration{config.map()};
  _instance = _library.create(_options.pluginName.c_str(), _options.chainId.c_str(),
                              configuration.raw(), _status.handle(), _host.handle());
  if (_instance == nullptr) {
    const auto lines = _log->lines();
    throw std::runtime_error(lines.empty() ? "create failed" : lines.back().text);
  }
  _library.setNextTowardsHost(_instance, this, &PluginUnderTest::deliver);
  if (_options.start && start() != 0) {
    destroy();
    throw std::runtime_error(_log->lines().back().text);
  }
}

PluginUnderTest::~PluginUnderTest() {
  if (_instance != nullptr && !_shutDown) shutdown();
  destroy();
}

int PluginUnderTest::shutdown() {
  _shutDown = true;
  return _library.shutdown(_instance);
}

int PluginUnderTest::destroy() {
  const int result = _library.destroy(_instance);
  _instance = nullptr;
  return result;
}

int PluginUnderTest::send(std::span<Message> batch) {
  // A Message has the layout of a qor_message_t.
  auto* const first = reinterpret_cast<qor_message_t*>(batch.data());
  return _library.sendBatchTowardsTransport(_instance, first, first + batch.size());
}

int PluginUnderTest::send(Message&& message) {
  Message taken = std::move(message);
  return send(std::span(&taken, 1));
}

int PluginUnderTest::send(const Request& request) { return send(request.message()); }

Answer PluginUnderTest::request(const Request& request) {
  const auto before = answerCount();
  if (send(request) != 0) throw std::runtime_error("The batch was refused");
  return waitForAnswers(before + 1).back();
}

std::vector<Answer> PluginUnderTest::waitForAnswers(std::size_t howMany) {
  std::unique_lock lock(_mutex);
  if (!_arrived.wait_for(lock, patience, [&] { return _answers.size() >= howMany; })) {
    throw TimedOut(std::to_string(howMany) + " answers; there are " +
                   std::to_string(_answers.size()));
  }
  return {_answers.begin(), _answers.begin() + static_cast<std::ptrdiff_t>(howMany)};
}

std::size_t PluginUnderTest::answerCount() const {
  const std::lock_guard lock(_mutex);
  return _answers.size();
}

void PluginUnderTest::onDelivery(DeliveryHook hook) {
  const std::lock_guard lock(_mutex);
  _hook = std::move(hook);
}

void PluginUnderTest::setDeliveryResult(int result) {
  const std::lock_guard lock(_mutex);
  _deliveryResult = result;
}

std::string PluginUnderTest::statusItem(const std::string& keyEnd) const {
  for (const auto& [key, text] : _status.items()) {
    if (key.ends_with(keyEnd)) return text;
  }
  throw std::runtime_error("No status item ends with " + keyEnd);
}

namespace {

// Nothing may be thrown through the plug-in.
void runHook(const PluginUnderTest::DeliveryHook& hook, const Answer& answer) {
  try {
    hook(answer);
  } catch (const std::exception& failure) {
    ADD_FAILURE() << "Inside a delivery: " << failure.what();
  }
}

}  // namespace

int PluginUnderTest::deliver(void* context, qor_message_t* start, qor_message_t* end) {
  auto& self = *static_cast<PluginUnderTest*>(context);
  DeliveryHook hook;
  int result = 0;
  {
    const std::lock_guard lock(self._mutex);
    hook = self._hook;
    result = self._deliveryResult;
  }
  for (auto& message : std::span(start, end)) {
    auto& shared = reinterpret_cast<Message&>(message);
    // A host that refuses takes nothing; what it was shown is still worth recording.
    Answer answer(result == 0 ? std::move(shared)
                              : Message(shared.payload.copy(), shared.metadata.copy()));
    if (hook) runHook(hook, answer);
    const std::lock_guard lock(self._mutex);
    self._answers.push_back(std::move(answer));
    self._arrived.notify_all();
  }
  return result;
}

}  // namespace test_support
