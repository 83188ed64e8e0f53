// A plug-in for the host's tests, named Echo: one worker gives every message back as it came.
//
// Configuration: "fail": "create" or "start" makes that entry point fail. Metadata of a message:
// "hold": true makes the worker wait there until the plug-in is shut down, with "holding" in the
// log, and "stick": true for ever; "announce": true writes "taken" to the log when the message is
// queued; "refuse": true makes the batch fail at that message; "tell": true writes "told" to the
// log when the message has been given back; "borrow": true gives it back with a text as its payload
// that lasts no longer than the call. At most 64 messages are queued, with "tellWaits": true 512;
// then a batch waits, and with "tellWaits" the host is told, and at the end "<n> of <m> batches
// waited" stands in the log.
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstring>
#include <deque>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <utility>

#include "connectivity/qor_plugin.h"

namespace {

bool isTrue(const qor_underlying_map_table_t* map, const char* key) {
  const qor_data_t* value = qor_map_find(map, key);
  return value != nullptr && value->tag == QOR_BOOL && value->value.boolean;
}

bool isText(const qor_underlying_map_table_t* map, const char* key, std::string_view text) {
  const qor_data_t* value = qor_map_find(map, key);
  return value != nullptr && value->tag == QOR_STRING && value->value.string == text;
}

bool isFlush(const qor_message_t& message) {
  return isText(message.metadata, "qor.control.type", "QueueFlush");
}

void release(qor_message_t& message) {
  qor_free_data(std::exchange(message.payload, {}));
  qor_free_map(std::exchange(message.metadata, nullptr));
}

class Echo {
 public:
  Echo(void* hostHandle, void* statusHandle, bool failsToStart, bool tellsWaits)
      : _hostHandle(hostHandle),
        _failsToStart(failsToStart),
        _tellsWaits(tellsWaits),
        _item(qor_create_user_status_item(statusHandle, "echo.status", "STARTING")) {}
  ~Echo() {
    shutdown();
    for (qor_message_t& message : _queue) release(message);
    qor_delete_user_status_item(_item);
  }
  Echo(const Echo&) = delete;
  Echo& operator=(const Echo&) = delete;

  void connect(void* chain, qor_send_batch_towards_host_t send) {
    _chain = chain;
    _send = send;
  }

  int start() {
    if (_failsToStart) {
      qor_log_at("echo", QOR_LOG_ERROR, "told to fail to start");
      return 1;
    }
    qor_enable_queue_flush_messages(_hostHandle);
    qor_set_user_status_item(_item, "ONLINE");
    _worker = std::thread([this] { work(); });
    return 0;
  }

  int take(qor_message_t* start, qor_message_t* end) {
    ++_batches;
    bool waited = false;
    for (qor_message_t* message = start; message != end; ++message) {
      if (isTrue(message->metadata, "refuse")) return 1;
      std::unique_lock<std::mutex> lock(_mutex);
      if (isFull()) {
        if (!std::exchange(waited, true)) ++_waits;
        waitForSpace(lock);
      }
      if (_shuttingDown) return 0;
      const bool announced = isTrue(message->metadata, "announce");
      _queue.push_back(std::exchange(*message, {}));
      if (announced) qor_log_at("echo", QOR_LOG_INFO, "taken");
      _changed.notify_all();
    }
    return 0;
  }

  void shutdown() {
    {
      const std::lock_guard<std::mutex> lock(_mutex);
      _shuttingDown = true;
      _changed.notify_all();
    }
    if (!_worker.joinable()) return;
    _worker.join();
    if (_tellsWaits) qor_log_at("echo", QOR_LOG_INFO, "%d of %d batches waited", _waits, _batches);
  }

 private:
  bool isFull() const { return _queue.size() >= (_tellsWaits ? 512U : 64U) && !_shuttingDown; }

  void waitForSpace(std::unique_lock<std::mutex>& lock) {
    tell(lock, true);
    _changed.wait(lock, [this] { return !isFull(); });
    tell(lock, false);
  }

  // By the only thread that sends, so that no other takes the space.
  void tell(std::unique_lock<std::mutex>& lock, bool waiting) {
    if (!_tellsWaits) return;
    lock.unlock();
    qor_report_batch_waits(_hostHandle, waiting);
    lock.lock();
  }

  bool hostShutsDown() const {
    bool answer = false;
    return qor_is_host_shutting_down(_hostHandle, &answer) == 0 && answer;
  }

  // False where the queue is to be left as it is.
  bool next(qor_message_t& message) {
    std::unique_lock<std::mutex> lock(_mutex);
    _changed.wait(lock, [this] { return !_queue.empty() || _shuttingDown; });
    if (_queue.empty() || hostShutsDown()) return false;
    message = std::exchange(_queue.front(), {});
    _queue.pop_front();
    _changed.notify_all();
    return true;
  }

  void work() {
    qor_message_t message{};
    while (next(message)) {
      if (isTrue(message.metadata, "stick")) {
        qor_log_at("echo", QOR_LOG_INFO, "sticking");
        std::this_thread::sleep_for(std::chrono::hours(24));
      }
      if (isTrue(message.metadata, "hold")) {
        qor_log_at("echo", QOR_LOG_INFO, "holding");
        std::unique_lock<std::mutex> lock(_mutex);
        _changed.wait(lock, [this] { return _shuttingDown; });
      }
      if (!isFlush(message)) giveBack(message);
      release(message);
    }
  }

  void giveBack(qor_message_t& message) {
    const bool tells = isTrue(message.metadata, "tell");
    std::string text = "borrowed";
    if (isTrue(message.metadata, "borrow")) {
      qor_free_data(message.payload);
      message.payload.tag = QOR_BORROWED_STRING;
      message.payload.value.borrowed = text.c_str();
    }
    _send(_chain, &message, &message + 1);
    text.assign("changed!");
    if (tells) qor_log_at("echo", QOR_LOG_INFO, "told");
  }

  void* const _hostHandle;
  const bool _failsToStart;
  const bool _tellsWaits;
  int _waits = 0;    // by the thread that sends
  int _batches = 0;  // by the thread that sends
  void* const _item;
  void* _chain = nullptr;
  qor_send_batch_towards_host_t _send = nullptr;
  std::mutex _mutex;
  std::condition_variable _changed;
  std::deque<qor_message_t> _queue;  // guarded by _mutex
  bool _shuttingDown = false;        // guarded by _mutex
  std::thread _worker;
};

Echo* echoAt(void* plugin) { return static_cast<Echo*>(plugin); }

}  // namespace

extern "C" {

QOR_API uint64_t qor_plugin_api_version_Echo();
QOR_API const char* qor_plugin_product_version_Echo();
QOR_API void* qor_create_plugin_with_params_Echo(const char* name, const char* chain,
                                                 qor_data_t configuration, void* status,
                                                 void* host);
QOR_API int qor_plugin_start_Echo(void* plugin);
QOR_API int qor_plugin_hostReady_Echo(void* plugin);
QOR_API int qor_plugin_shutdown_Echo(void* plugin);
QOR_API int qor_plugin_setNextTowardsHost_Echo(void* plugin, void* chain,
                                               qor_send_batch_towards_host_t send);
QOR_API int qor_plugin_sendBatchTowardsTransport_Echo(void* plugin, qor_message_t* start,
                                                      qor_message_t* end);
QOR_API int qor_destroy_plugin_Echo(void* plugin);
QOR_API uintptr_t _qor_plugin_checkIsTransport_Echo(uintptr_t word);

uint64_t qor_plugin_api_version_Echo() { return QOR_PLUGIN_API_VERSION; }

const char* qor_plugin_product_version_Echo() { return "1.0"; }

void* qor_create_plugin_with_params_Echo(const char*, const char* chain, qor_data_t configuration,
                                         void* status, void* host) {
  if (isText(configuration.value.map, "fail", "create")) {
    qor_log_at("echo", QOR_LOG_ERROR, "told to fail to create in chain %s", chain);
    return nullptr;
  }
  return new Echo(host, status, isText(configuration.value.map, "fail", "start"),
                  isTrue(configuration.value.map, "tellWaits"));
}

int qor_plugin_start_Echo(void* plugin) { return echoAt(plugin)->start(); }

int qor_plugin_hostReady_Echo(void*) { return 0; }

int qor_plugin_shutdown_Echo(void* plugin) {
  echoAt(plugin)->shutdown();
  return 0;
}

int qor_plugin_setNextTowardsHost_Echo(void* plugin, void* chain,
                                       qor_send_batch_towards_host_t send) {
  echoAt(plugin)->connect(chain, send);
  return 0;
}

int qor_plugin_sendBatchTowardsTransport_Echo(void* plugin, qor_message_t* start,
                                              qor_message_t* end) {
  return echoAt(plugin)->take(start, end);
}

int qor_destroy_plugin_Echo(void* plugin) {
  delete echoAt(plugin);
  return 0;
}

uintptr_t _qor_plugin_checkIsTransport_Echo(uintptr_t word) { return word; }
}
