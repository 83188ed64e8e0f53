#include "tests/support/ServiceDoubles.hpp"

#include <algorithm>
#include <stdexcept>

#include "tests/support/Event.hpp"

namespace test_support {

// --- LogDouble ---------------------------------------------------------------------------------

LogDouble::LogDouble(int level)
    : _services{this, &LogDouble::levelOf, &LogDouble::write}, _level(level) {
  qor_set_log_services(&_services);
}

LogDouble::~LogDouble() { qor_set_log_services(nullptr); }

int LogDouble::levelOf(void* context, const char*) {
  return static_cast<LogDouble*>(context)->_level.load();
}

void LogDouble::write(void* context, const char* category, int level, const char* text) {
  auto& self = *static_cast<LogDouble*>(context);
  const std::lock_guard lock(self._mutex);
  self._lines.push_back({category, level, text});
  self._changed.notify_all();
}

std::vector<LogLine> LogDouble::lines() const {
  const std::lock_guard lock(_mutex);
  return _lines;
}

namespace {

bool holds(const LogLine& line, std::string_view text) {
  return line.text.find(text) != std::string::npos;
}

}  // namespace

std::size_t LogDouble::count(std::string_view text) const {
  const std::lock_guard lock(_mutex);
  return static_cast<std::size_t>(
      std::ranges::count_if(_lines, [text](const LogLine& line) { return holds(line, text); }));
}

std::optional<LogLine> LogDouble::find(std::string_view text) const {
  const std::lock_guard lock(_mutex);
  const auto found =
      std::ranges::find_if(_lines, [text](const LogLine& line) { return holds(line, text); });
  if (found == _lines.end()) return std::nullopt;
  return *found;
}

LogLine LogDouble::waitForLine(std::string_view text, std::size_t howMany) const {
  std::unique_lock lock(_mutex);
  LogLine last;
  const auto enough = [&] {
    std::size_t seen = 0;
    for (const auto& line : _lines) {
      if (!holds(line, text)) continue;
      last = line;
      ++seen;
    }
    return seen >= howMany;
  };
  if (!_changed.wait_for(lock, patience, enough)) {
    throw TimedOut("a log line with \"" + std::string(text) + "\"");
  }
  return last;
}

void LogDouble::clear() {
  const std::lock_guard lock(_mutex);
  _lines.clear();
}

// --- StatusDouble ------------------------------------------------------------------------------

StatusDouble::StatusDouble()
    : _services{this, &StatusDouble::create, &StatusDouble::set, &StatusDouble::remove} {}

void* StatusDouble::create(void* context, const char* key, const char* text) {
  auto& self = *static_cast<StatusDouble*>(context);
  const std::lock_guard lock(self._mutex);
  if (self._refused.has_value() && std::string_view(key).ends_with(*self._refused)) return nullptr;
  if (!self._items.emplace(key, text).second) return nullptr;
  const auto entry = self._history.try_emplace(key).first;
  entry->second.emplace_back(text);
  self._changed.notify_all();
  return &*entry;
}

namespace {

using HistoryEntry = std::map<std::string, std::vector<std::string>>::value_type;

}  // namespace

void StatusDouble::set(void* context, void* item, const char* text) {
  auto& self = *static_cast<StatusDouble*>(context);
  const std::lock_guard lock(self._mutex);
  auto& entry = *static_cast<HistoryEntry*>(item);
  for (const std::string& keyEnd : self._failing) {
    if (entry.first.ends_with(keyEnd)) throw std::runtime_error("boom");
  }
  entry.second.emplace_back(text);
  self._changes.emplace_back(entry.first, text);
  self._items[entry.first] = text;
  self._changed.notify_all();
}

void StatusDouble::fail(const std::string& keyEnd) {
  const std::lock_guard lock(_mutex);
  _failing.push_back(keyEnd);
}

void StatusDouble::remove(void* context, void* item) {
  if (item == nullptr) return;
  auto& self = *static_cast<StatusDouble*>(context);
  const std::lock_guard lock(self._mutex);
  self._items.erase(static_cast<HistoryEntry*>(item)->first);
  self._changed.notify_all();
}

std::optional<std::string> StatusDouble::text(const std::string& key) const {
  const std::lock_guard lock(_mutex);
  const auto found = _items.find(key);
  if (found == _items.end()) return std::nullopt;
  return found->second;
}

std::int64_t StatusDouble::number(const std::string& key) const {
  const auto found = text(key);
  if (!found.has_value()) throw std::runtime_error("No status item " + key);
  return std::stoll(*found);
}

std::map<std::string, std::string> StatusDouble::items() const {
  const std::lock_guard lock(_mutex);
  return _items;
}

std::vector<std::pair<std::string, std::string>> StatusDouble::changes() const {
  const std::lock_guard lock(_mutex);
  return _changes;
}

std::vector<std::string> StatusDouble::history(const std::string& key) const {
  const std::lock_guard lock(_mutex);
  const auto found = _history.find(key);
  return found == _history.end() ? std::vector<std::string>() : found->second;
}

void StatusDouble::waitFor(const std::string& key, const std::string& text) const {
  std::unique_lock lock(_mutex);
  const auto there = [&] {
    const auto found = _items.find(key);
    return found != _items.end() && found->second == text;
  };
  if (!_changed.wait_for(lock, patience, there)) {
    throw TimedOut("status item " + key + " to be \"" + text + "\"");
  }
}

void StatusDouble::refuse(std::string keyEnd) {
  const std::lock_guard lock(_mutex);
  _refused = std::move(keyEnd);
}

// --- HostDouble --------------------------------------------------------------------------------

HostDouble::HostDouble()
    : _services{this, &HostDouble::enable, &HostDouble::isShuttingDown,
                &HostDouble::noteBatchWaits} {}

int HostDouble::enable(void* context) {
  auto& self = *static_cast<HostDouble*>(context);
  ++self._enableCalls;
  return self._enableResult.load();
}

int HostDouble::isShuttingDown(void* context, bool* answer) {
  auto& self = *static_cast<HostDouble*>(context);
  ++self._shuttingDownCalls;
  const int result = self._shuttingDownResult.load();
  if (result == 0) *answer = self._shuttingDown.load();
  return result;
}

std::vector<bool> HostDouble::batchWaits() const {
  const std::lock_guard lock(_mutex);
  return _batchWaits;
}

void HostDouble::waitForBatchWaits(std::size_t howMany) const {
  std::unique_lock lock(_mutex);
  if (!_changed.wait_for(lock, patience, [&] { return _batchWaits.size() >= howMany; })) {
    throw TimedOut("the host to be told " + std::to_string(howMany) +
                   " times of batches that wait");
  }
}

void HostDouble::noteBatchWaits(void* context, bool waiting) {
  auto& self = *static_cast<HostDouble*>(context);
  {
    const std::lock_guard lock(self._mutex);
    self._batchWaits.push_back(waiting);
    self._changed.notify_all();
  }
  if (self._batchWaitsHook) self._batchWaitsHook(waiting);
}

}  // namespace test_support
