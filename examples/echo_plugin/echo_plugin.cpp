// The smallest transport: answers each request with the request's own payload and status 200.
//
// One worker takes requests from a bounded queue, in order. Whoever sends a batch waits while the
// queue is full; a batch that is sent from inside the delivery of an answer does not, since only
// the worker itself could make room. A flush message is complete when the worker comes to it.
//
// A library lib<NAME>.so has ten entry points, whose names end in _<NAME>: here Echo. They stand at
// the end of this file.
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <exception>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <utility>

#include "connectivity/qor_plugin.h"

namespace {

constexpr std::size_t queueCapacity = 1024;

// --- Messages ------------------------------------------------------------------------------------

// Takes the message over and leaves an empty one.
qor_message_t moved(qor_message_t& message) { return std::exchange(message, qor_message_t{}); }

void release(qor_message_t& message) {
  qor_free_data(message.payload);
  qor_free_map(message.metadata);
  message = {};
}

bool isFlush(const qor_message_t& message) {
  const qor_data_t* type = qor_map_find(message.metadata, "qor.control.type");
  if (type == nullptr) return false;
  if (type->tag != QOR_STRING && type->tag != QOR_BORROWED_STRING) return false;
  return std::string_view(type->value.borrowed) == "QueueFlush";
}

qor_data_t integer(std::int64_t number) {
  qor_data_t value{};
  value.tag = QOR_INT64;
  value.value.int64 = number;
  return value;
}

// The value takes the table over.
qor_data_t map(qor_underlying_map_table_t* table) {
  qor_data_t value{};
  value.tag = QOR_MAP;
  value.value.map = table;
  return value;
}

// {requestId: as in the request, http: {statusCode: 200}}, and the payload, moved out of the
// request.
qor_message_t answerTo(qor_message_t& request) {
  qor_message_t answer{};
  answer.payload = std::exchange(request.payload, qor_data_t{});
  if (const qor_data_t* id = qor_map_find(request.metadata, "requestId")) {
    qor_map_put(&answer.metadata, "requestId", qor_copy_data(*id));
  }
  qor_underlying_map_table_t* http = nullptr;
  qor_map_put(&http, "statusCode", integer(200));
  qor_map_put(&answer.metadata, "http", map(http));
  return answer;
}

// --- The transport -------------------------------------------------------------------------------

// The host calls connect, start, shutdown and the destructor from one thread at a time, and take
// from any.
class Echo {
 public:
  // The handles are borrowed until the end of this object, the names are copied.
  Echo(const std::string& name, void* statusHandle, void* hostHandle)
      : _category("connectivity." + name),
        _hostHandle(hostHandle),
        _status(qor_create_user_status_item(statusHandle, (name + ".status").c_str(), "STARTING")) {
  }

  ~Echo() {
    end(true);
    qor_delete_user_status_item(_status);
  }

  Echo(const Echo&) = delete;
  Echo& operator=(const Echo&) = delete;

  const char* category() const { return _category.c_str(); }

  int connect(void* chain, qor_send_batch_towards_host_t send) {
    const std::lock_guard lock(_mutex);
    if (isStarted()) {
      qor_log_at(category(), QOR_LOG_ERROR, "Echo cannot be connected after its start");
      return 1;
    }
    _chain = chain;
    _send = send;
    return 0;
  }

  int start() {
    const std::lock_guard lock(_mutex);
    if (_send == nullptr || isStarted() || _ending) {
      qor_log_at(category(), QOR_LOG_ERROR, "Echo cannot be started without a host, or twice");
      return 1;
    }
    // Without this, the host tells whoever asks for a flush that there is none.
    qor_enable_queue_flush_messages(_hostHandle);
    _worker = std::thread([this] { work(); });
    _workerId = _worker.get_id();
    qor_set_user_status_item(_status, "ONLINE");
    qor_log_at(category(), QOR_LOG_INFO, "Echo has started");
    return 0;
  }

  // A message that is taken is moved out of the batch; what is not is left to the caller.
  int take(qor_message_t* start, qor_message_t* end) {
    for (qor_message_t* message = start; message != end; ++message) {
      std::unique_lock lock(_mutex);
      if (std::this_thread::get_id() != _workerId) waitForSpace(lock);
      if (_ending) return 0;  // a batch after shutdown is ignored
      _queue.push_back(*message);
      *message = {};
      _changed.notify_all();
    }
    return 0;
  }

  // Returns when everything that was taken has been answered, unless the host is shutting down.
  int shutdown() {
    end(isHostShuttingDown());
    return 0;
  }

 private:
  void end(bool drop) {
    {
      const std::lock_guard lock(_mutex);
      _ending = true;
      if (drop) dropQueue();
      _changed.notify_all();
    }
    if (_worker.joinable()) _worker.join();
    const std::lock_guard lock(_mutex);
    dropQueue();  // what was sent before a start that never came
  }

  // _mutex is held by whoever calls one of these.
  bool isStarted() const { return _workerId != std::thread::id(); }
  bool isFull() const { return _queue.size() >= queueCapacity && !_ending; }
  void waitForSpace(std::unique_lock<std::mutex>& lock) {
    while (isFull()) {
      reportWait(lock, true);
      _changed.wait(lock, [this] { return !isFull(); });
      reportWait(lock, false);  // meanwhile another batch may take the space
    }
  }
  // The host's functions are called without a lock.
  void reportWait(std::unique_lock<std::mutex>& lock, bool waiting) {
    lock.unlock();
    qor_report_batch_waits(_hostHandle, waiting);
    lock.lock();
  }
  void dropQueue() {
    for (qor_message_t& message : _queue) release(message);
    _queue.clear();
  }

  bool isHostShuttingDown() const {
    bool answer = false;
    return qor_is_host_shutting_down(_hostHandle, &answer) == 0 && answer;
  }

  void work() {
    qor_message_t message{};
    while (next(message)) {
      if (!isFlush(message)) answer(message);
      // Frees the flush object of a flush message too: by that the host learns that all before it
      // has been answered.
      release(message);
    }
  }

  // False when there is nothing more to come.
  bool next(qor_message_t& message) {
    std::unique_lock lock(_mutex);
    _changed.wait(lock, [this] { return !_queue.empty() || _ending; });
    if (_queue.empty()) return false;
    message = moved(_queue.front());
    _queue.pop_front();
    _changed.notify_all();
    return true;
  }

  void answer(qor_message_t& request) {
    qor_message_t answer = answerTo(request);
    if (_send(_chain, &answer, &answer + 1) != 0) {
      qor_log_at(category(), QOR_LOG_WARN, "The host refused an answer");
    }
    release(answer);  // what the host has left
  }

  const std::string _category;
  void* const _hostHandle;
  void* const _status;
  void* _chain = nullptr;                         // constant once started
  qor_send_batch_towards_host_t _send = nullptr;  // constant once started
  std::thread _worker;                            // of the thread that controls this object
  std::mutex _mutex;
  std::condition_variable _changed;
  std::deque<qor_message_t> _queue;  // guarded by _mutex, as is the rest; owned
  std::thread::id _workerId;
  bool _ending = false;
};

Echo& echoAt(void* plugin) { return *static_cast<Echo*>(plugin); }

// No exception may leave an entry point: it becomes the result `failure`, and a line in the log.
template <typename Result, typename Action>
Result guarded(Result failure, Action action) noexcept {
  try {
    return action();
  } catch (const std::exception& error) {
    qor_log_at("echo", QOR_LOG_ERROR, "%s", error.what());
  } catch (...) {
    qor_log_at("echo", QOR_LOG_ERROR, "unknown exception");
  }
  return failure;
}

}  // namespace

// --- The entry points ----------------------------------------------------------------------------

extern "C" {

QOR_API uint64_t qor_plugin_api_version_Echo() { return QOR_PLUGIN_API_VERSION; }

QOR_API const char* qor_plugin_product_version_Echo() { return "1.0"; }

// The configuration stays the host's; this transport has nothing to configure.
QOR_API void* qor_create_plugin_with_params_Echo(const char* name, const char* chain,
                                                 qor_data_t /*configuration*/, void* status,
                                                 void* host) {
  return guarded(static_cast<void*>(nullptr), [&]() -> void* {
    return new Echo(std::string(name) + "." + chain, status, host);
  });
}

QOR_API int qor_plugin_setNextTowardsHost_Echo(void* plugin, void* chain,
                                               qor_send_batch_towards_host_t send) {
  return guarded(1, [&] { return echoAt(plugin).connect(chain, send); });
}

QOR_API int qor_plugin_start_Echo(void* plugin) {
  return guarded(1, [&] { return echoAt(plugin).start(); });
}

QOR_API int qor_plugin_hostReady_Echo(void* /*plugin*/) { return 0; }

QOR_API int qor_plugin_sendBatchTowardsTransport_Echo(void* plugin, qor_message_t* start,
                                                      qor_message_t* end) {
  return guarded(1, [&] { return echoAt(plugin).take(start, end); });
}

QOR_API int qor_plugin_shutdown_Echo(void* plugin) {
  return guarded(1, [&] { return echoAt(plugin).shutdown(); });
}

QOR_API int qor_destroy_plugin_Echo(void* plugin) {
  delete static_cast<Echo*>(plugin);
  return 0;
}

QOR_API uintptr_t _qor_plugin_checkIsTransport_Echo(uintptr_t word) { return word; }

}  // extern "C"
