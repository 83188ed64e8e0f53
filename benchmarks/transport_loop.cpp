// The transport alone, as a host drives it: loads LIBRARY, hands it COUNT GET requests in batches
// of BATCH, and counts the answers. No lines are read, none written.
//
//   transport_loop LIBRARY PORT PATH COUNT WORKERS [one]
//       one: the next message is sent when the one before it has been answered
//
// Prints the requests a second, the processor time of this process, in microseconds a request, and
// its context switches a request: voluntary, and involuntary.
// Exits with 1 where an answer is not 200. Any build of the library will do, so that two versions
// can be measured in turns under one and the same host.
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <dlfcn.h>
#include <exception>
#include <iostream>
#include <stdexcept>
#include <string>
#include <sys/resource.h>
#include <thread>
#include <vector>

#include "connectivity/qor_plugin.h"

namespace {

constexpr long BATCH = 64;

template <typename Function>
Function entryPoint(void* library, const char* name) {
  void* const address = dlsym(library, name);
  if (address == nullptr) throw std::runtime_error(dlerror());
  return reinterpret_cast<Function>(address);
}

qor_data_t text(const char* value) {
  return {.value = {.string = qor_copy_string(value)}, .tag = QOR_STRING, .reserved = 0};
}

qor_data_t map(qor_underlying_map_table_t* table) {
  return {.value = {.map = table}, .tag = QOR_MAP, .reserved = 0};
}

// What has come back. Deliveries come one at a time.
struct Answers {
  std::atomic<long> good = 0;
  std::atomic<long> other = 0;
  bool areWaitedFor = false;  // one by one
};

bool isOk(const qor_message_t& answer) {
  const qor_data_t* http = qor_map_find(answer.metadata, "http");
  const qor_data_t* status =
      http == nullptr ? nullptr : qor_map_find(http->value.map, "statusCode");
  return status != nullptr && status->tag == QOR_INT64 && status->value.int64 == 200;
}

int receive(void* context, qor_message_t* start, qor_message_t* end) {
  auto& answers = *static_cast<Answers*>(context);
  for (; start != end; ++start) {
    std::atomic<long>& count = isOk(*start) ? answers.good : answers.other;
    count.fetch_add(1, std::memory_order_relaxed);
    if (answers.areWaitedFor) count.notify_one();
  }
  return 0;
}

class Transport {
 public:
  // Created and started. `answers` is borrowed.
  Transport(const char* path, const char* port, const char* workers, Answers& answers)
      : _library(dlopen(path, RTLD_NOW | RTLD_LOCAL)) {
    if (_library == nullptr) throw std::runtime_error(dlerror());
    qor_underlying_map_table_t* configuration = nullptr;
    qor_map_put(&configuration, "host", text("127.0.0.1"));
    qor_map_put(&configuration, "port", text(port));
    qor_map_put(&configuration, "numClients", text(workers));
    const auto create = entryPoint<qor_create_plugin_with_params_t>(
        _library, "qor_create_plugin_with_params_HTTPClient");
    _instance = create("benchmark", "main", map(configuration), nullptr, nullptr);
    qor_free_map(configuration);
    if (_instance == nullptr) throw std::runtime_error("no transport was created");
    const auto setNext = entryPoint<qor_plugin_set_next_towards_host_t>(
        _library, "qor_plugin_setNextTowardsHost_HTTPClient");
    setNext(_instance, &answers, receive);
    entryPoint<qor_plugin_start_t>(_library, "qor_plugin_start_HTTPClient")(_instance);
  }
  Transport(const Transport&) = delete;
  Transport& operator=(const Transport&) = delete;
  ~Transport() {
    entryPoint<qor_destroy_plugin_t>(_library, "qor_destroy_plugin_HTTPClient")(_instance);
    dlclose(_library);
  }

  void send(std::vector<qor_message_t>& batch) {
    if (_sendBatch(_instance, batch.data(), batch.data() + batch.size()) != 0) {
      throw std::runtime_error("a batch was refused");
    }
  }

  // Returns when everything that was sent has been answered.
  void shutdown() {
    entryPoint<qor_plugin_shutdown_t>(_library, "qor_plugin_shutdown_HTTPClient")(_instance);
  }

 private:
  void* const _library;
  void* _instance = nullptr;
  const qor_plugin_send_batch_towards_transport_t _sendBatch =
      entryPoint<qor_plugin_send_batch_towards_transport_t>(
          _library, "qor_plugin_sendBatchTowardsTransport_HTTPClient");
};

qor_message_t getRequest(const char* path, std::int64_t number) {
  qor_underlying_map_table_t* http = nullptr;
  qor_map_put(&http, "method", text("GET"));
  qor_map_put(&http, "path", text(path));
  qor_message_t request = {};
  qor_map_put(&request.metadata, "requestId",
              {.value = {.int64 = number}, .tag = QOR_INT64, .reserved = 0});
  qor_map_put(&request.metadata, "http", map(http));
  return request;
}

void sendAll(Transport& transport, const char* path, long count) {
  std::vector<qor_message_t> batch;
  for (long number = 1; number <= count; ++number) {
    batch.push_back(getRequest(path, number));
    if (static_cast<long>(batch.size()) == BATCH || number == count) {
      transport.send(batch);
      batch.clear();
    }
  }
}

void sendOneByOne(Transport& transport, const char* path, long count, Answers& answers) {
  std::vector<qor_message_t> batch(1);
  for (long number = 1; number <= count; ++number) {
    const long before = answers.good;
    batch[0] = getRequest(path, number);
    transport.send(batch);
    answers.good.wait(before);
  }
}

// Of this process, so far.
struct Usage {
  double seconds;
  double voluntarySwitches;
  double involuntarySwitches;
};

Usage usageNow() {
  rusage usage = {};
  getrusage(RUSAGE_SELF, &usage);
  const auto seconds = [](const timeval& time) {
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
  };
  return {seconds(usage.ru_utime) + seconds(usage.ru_stime), static_cast<double>(usage.ru_nvcsw),
          static_cast<double>(usage.ru_nivcsw)};
}

int run(char** arguments, bool oneByOne) {
  const long count = std::stol(arguments[4]);
  Answers answers;
  answers.areWaitedFor = oneByOne;
  Transport transport(arguments[1], arguments[2], arguments[5], answers);
  // The workers have fallen asleep by then.
  if (oneByOne) std::this_thread::sleep_for(std::chrono::milliseconds(500));
  const Usage before = usageNow();
  const auto start = std::chrono::steady_clock::now();
  Usage after = {};
  if (oneByOne) {
    sendOneByOne(transport, arguments[3], count, answers);
    after = usageNow();
  } else {
    sendAll(transport, arguments[3], count);
  }
  transport.shutdown();
  const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - start;
  if (!oneByOne) after = usageNow();
  const auto requests = static_cast<double>(count);
  std::cout << static_cast<long>(requests / elapsed.count()) << ' '
            << (after.seconds - before.seconds) * 1e6 / requests << ' '
            << (after.voluntarySwitches - before.voluntarySwitches) / requests << ' '
            << (after.involuntarySwitches - before.involuntarySwitches) / requests << '\n';
  return answers.good == count && answers.other == 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}

}  // namespace

int main(int argc, char** argv) {
  const bool oneByOne = argc == 7 && std::string(argv[6]) == "one";
  if (argc != 6 && !oneByOne) {
    std::cerr << "usage: transport_loop LIBRARY PORT PATH COUNT WORKERS [one]\n";
    return EXIT_FAILURE;
  }
  try {
    return run(argv, oneByOne);
  } catch (const std::exception& failure) {
    std::cerr << "transport_loop: " << failure.what() << '\n';
    return EXIT_FAILURE;
  }
}
