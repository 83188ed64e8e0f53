// Named values on the host's status pages.
//
// A StatusReporter creates items; each item has a mutex of its own, may be set from any thread, and
// sends the host only texts that differ from the last one. Destroying an item removes it.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

namespace connectivity {

class StatusReporter {
 public:
  class StatusItem;

  // `statusHandle` is the one that the host gave to the plug-in.
  explicit StatusReporter(void* statusHandle) noexcept : _statusHandle(statusHandle) {}

  // Throws std::runtime_error "Failed to create status item '<key>' (ensure the key is unique and
  // that this plug-in has not been shutdown already)".
  std::unique_ptr<StatusItem> createStatusItem(const std::string& key, std::int64_t initial);
  std::unique_ptr<StatusItem> createStatusItem(const std::string& key, const std::string& initial);

 private:
  void* const _statusHandle;
};

class StatusReporter::StatusItem {
 public:
  // As createStatusItem: creates the host's item, which shows `text`.
  StatusItem(void* statusHandle, const std::string& key, std::int64_t value, std::string text);
  ~StatusItem();
  StatusItem(const StatusItem&) = delete;
  StatusItem& operator=(const StatusItem&) = delete;

  void setStatus(std::int64_t value);
  // Leaves the number behind the item as it is.
  void setStatus(const std::string& text);
  // Adds to the last number that was set.
  void increment(std::int64_t delta);

 private:
  void setNumberLocked(std::int64_t value);
  // REQUIRES: the item's mutex is held.
  void setStatusLocked(const std::string& text);

  std::mutex _mutex;
  std::int64_t _value;    // guarded by _mutex
  std::string _lastText;  // guarded by _mutex; what the host shows
  void* const _hostItem;  // owned, constant; made from the text
};

}  // namespace connectivity
