// Stand-ins for the host's services: they record what a plug-in tells the host, and answer its
// questions as a test wants. All are called from any thread. Waits throw TimedOut (Event.hpp).
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "connectivity/qor_plugin.h"

namespace test_support {

struct LogLine {
  std::string category;
  int level;
  std::string text;
};

// The process's log, from its construction to its destruction; one at a time.
class LogDouble {
 public:
  explicit LogDouble(int level = QOR_LOG_TRACE);
  ~LogDouble();
  LogDouble(const LogDouble&) = delete;
  LogDouble& operator=(const LogDouble&) = delete;

  // Seen by loggers that are built afterwards.
  void setLevel(int level) { _level.store(level); }
  std::vector<LogLine> lines() const;
  // How many lines hold the text.
  std::size_t count(std::string_view text) const;
  bool contains(std::string_view text) const { return count(text) > 0; }
  // The first line that holds the text, or none.
  std::optional<LogLine> find(std::string_view text) const;
  LogLine waitForLine(std::string_view text, std::size_t howMany = 1) const;
  void clear();

 private:
  static int levelOf(void* context, const char* category);
  static void write(void* context, const char* category, int level, const char* text);

  const qor_log_services_t _services;
  std::atomic<int> _level;
  mutable std::mutex _mutex;
  mutable std::condition_variable _changed;
  std::vector<LogLine> _lines;  // guarded by _mutex
};

// A table of status items. handle() is what create takes as the status handle.
class StatusDouble {
 public:
  StatusDouble();
  StatusDouble(const StatusDouble&) = delete;
  StatusDouble& operator=(const StatusDouble&) = delete;

  void* handle() noexcept { return &_services; }
  // The item's text, or none where no such item exists.
  std::optional<std::string> text(const std::string& key) const;
  // The item's text as a number; throws where there is none.
  std::int64_t number(const std::string& key) const;
  std::map<std::string, std::string> items() const;
  // Every text that was set under the key, the one at its creation first; also of removed items.
  std::vector<std::string> history(const std::string& key) const;
  // Key and text of every change of an item after its creation, in their order.
  std::vector<std::pair<std::string, std::string>> changes() const;
  // Waits until the item has the text.
  void waitFor(const std::string& key, const std::string& text) const;
  // From now on, items whose key ends with this are refused.
  void refuse(std::string keyEnd);
  // From now on, setting an item whose key ends with this throws "boom", which a host must not do.
  void fail(const std::string& keyEnd);

 private:
  static void* create(void* context, const char* key, const char* text);
  static void set(void* context, void* item, const char* text);
  static void remove(void* context, void* item);

  qor_status_services_t _services;
  mutable std::mutex _mutex;
  mutable std::condition_variable _changed;
  // Below: guarded by _mutex. A host item is the address of its key's entry in _history.
  std::map<std::string, std::string> _items;
  std::map<std::string, std::vector<std::string>> _history;
  std::vector<std::pair<std::string, std::string>> _changes;
  std::optional<std::string> _refused;
  std::vector<std::string> _failing;
};

// The host's answers. handle() is what create takes as the host handle.
class HostDouble {
 public:
  HostDouble();
  HostDouble(const HostDouble&) = delete;
  HostDouble& operator=(const HostDouble&) = delete;

  void* handle() noexcept { return &_services; }
  // What enabling flush messages returns; 0 at first.
  void setEnableResult(int result) { _enableResult.store(result); }
  // What the shutting-down query answers (false at first), and returns (0 at first).
  void setShuttingDown(bool shuttingDown) { _shuttingDown.store(shuttingDown); }
  void setShuttingDownResult(int result) { _shuttingDownResult.store(result); }
  int enableCalls() const { return _enableCalls.load(); }
  int shuttingDownCalls() const { return _shuttingDownCalls.load(); }
  // What the host was told of batches that wait for space, in its order.
  std::vector<bool> batchWaits() const;
  // Called then, on the thread that tells it. Set before anything is sent.
  void onBatchWaits(std::function<void(bool)> hook) { _batchWaitsHook = std::move(hook); }
  // From now on there is no function to tell it. Called before anything is sent.
  void doNotHearOfBatchWaits() { _services.batch_waits = nullptr; }
  void waitForBatchWaits(std::size_t howMany) const;

 private:
  static int enable(void* context);
  static int isShuttingDown(void* context, bool* answer);
  static void noteBatchWaits(void* context, bool waiting);

  qor_host_services_t _services;
  std::atomic<int> _enableResult{0};
  std::atomic<bool> _shuttingDown{false};
  std::atomic<int> _shuttingDownResult{0};
  std::atomic<int> _enableCalls{0};
  std::atomic<int> _shuttingDownCalls{0};
  mutable std::mutex _mutex;
  mutable std::condition_variable _changed;
  std::vector<bool> _batchWaits;  // guarded by _mutex
  std::function<void(bool)> _batchWaitsHook;
};

}  // namespace test_support
