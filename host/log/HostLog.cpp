#include "host/log/HostLog.hpp"

#include <chrono>
#include <cstdio>
#include <mutex>
#include <unistd.h>
#include <utility>
#include <vector>

#include <spdlog/details/log_msg.h>
#include <spdlog/pattern_formatter.h>

#include "host/log/RepeatedLines.hpp"
#include "orrery/runtime/Utf8.hpp"

namespace host {

namespace {

// The level names of the host, five characters wide.
class LevelName : public spdlog::custom_flag_formatter {
 public:
  void format(const spdlog::details::log_msg& message, const std::tm&,
              spdlog::memory_buf_t& out) override {
    const std::string_view name = nameOf(message.level);
    out.append(name.data(), name.data() + name.size());
  }
  std::unique_ptr<custom_flag_formatter> clone() const override {
    return std::make_unique<LevelName>();
  }

 private:
  static std::string_view nameOf(spdlog::level::level_enum level) {
    switch (level) {
      case spdlog::level::err:
        return "ERROR";
      case spdlog::level::warn:
        return "WARN ";
      case spdlog::level::info:
        return "INFO ";
      case spdlog::level::debug:
        return "DEBUG";
      default:
        return "TRACE";
    }
  }
};

spdlog::level::level_enum levelFor(int level) {
  if (level <= QOR_LOG_ERROR) return spdlog::level::err;
  if (level == QOR_LOG_WARN) return spdlog::level::warn;
  if (level == QOR_LOG_INFO) return spdlog::level::info;
  return level == QOR_LOG_DEBUG ? spdlog::level::debug : spdlog::level::trace;
}

std::unique_ptr<spdlog::formatter> makeFormatter() {
  auto formatter = std::make_unique<spdlog::pattern_formatter>(spdlog::pattern_time_type::utc);
  formatter->add_flag<LevelName>('*').set_pattern("%Y-%m-%dT%H:%M:%S.%eZ %* [%n] %v");
  return formatter;
}

}  // namespace

// Standard error. What cannot be written there is lost: there is nowhere to say so.
class HostLog::Sink {
 public:
  void take(LogLine line) {
    const std::lock_guard<std::mutex> lock(_mutex);
    line.time = std::chrono::system_clock::now();
    putLines(_repeated.take(line));
  }

  void writeOverdue() {
    const std::lock_guard<std::mutex> lock(_mutex);
    putLines(_repeated.overdue(std::chrono::system_clock::now()));
  }

  void writeRest() {
    const std::lock_guard<std::mutex> lock(_mutex);
    putLines(_repeated.rest(std::chrono::system_clock::now()));
  }

  void writeRaw(std::string_view line) {
    const std::lock_guard<std::mutex> lock(_mutex);
    putLines(_repeated.rest(std::chrono::system_clock::now()));
    putLine(std::string(line) + "\n");
  }

  void showProgress(const std::string& text) {
    const std::lock_guard<std::mutex> lock(_mutex);
    if (text.empty() && _progress.empty()) return;
    _progress = text;
    put(clearLine + _progress);
  }

 private:
  inline static const std::string clearLine = "\r\x1b[K";

  void putLines(const std::vector<LogLine>& lines) {
    for (const LogLine& line : lines) {
      spdlog::memory_buf_t text;
      _formatter->format(
          spdlog::details::log_msg(line.time, {}, line.category, levelFor(line.level), line.text),
          text);
      putLine(std::string(text.data(), text.size()));
    }
  }

  void putLine(const std::string& line) {
    put(_progress.empty() ? line : clearLine + line + _progress);
  }

  static void put(std::string_view text) {
    while (!text.empty()) {
      const ssize_t written = ::write(STDERR_FILENO, text.data(), text.size());
      if (written < 0) return;
      text.remove_prefix(static_cast<std::size_t>(written));
    }
  }

  std::mutex _mutex;
  // Below: guarded by _mutex.
  const std::unique_ptr<spdlog::formatter> _formatter = makeFormatter();
  RepeatedLines _repeated;
  std::string _progress;
};

HostLog::HostLog(int level, std::map<std::string, int> levels)
    : _level(level),
      _levels(std::move(levels)),
      _services{this, &HostLog::levelOf, &HostLog::write},
      _sink(std::make_unique<Sink>()) {
  qor_set_log_services(&_services);
}

HostLog::~HostLog() {
  qor_set_log_services(nullptr);
  showProgress({});
  _sink->writeRest();
}

int HostLog::levelOf(std::string_view category) const {
  while (!category.empty()) {
    const auto found = _levels.find(std::string(category));
    if (found != _levels.end()) return found->second;
    const auto dot = category.rfind('.');
    category = category.substr(0, dot == std::string_view::npos ? 0 : dot);
  }
  return _level;
}

void HostLog::write(const std::string& category, int level, std::string_view text) {
  if (level > levelOf(category)) return;
  _sink->take({category, level, runtime::withoutControls(text), {}});
}

void HostLog::writeRaw(std::string_view line) { _sink->writeRaw(line); }

void HostLog::writeOverdue() { _sink->writeOverdue(); }

void HostLog::showProgress(const std::string& text) { _sink->showProgress(text); }

int HostLog::levelOf(void* context, const char* category) {
  return static_cast<const HostLog*>(context)->levelOf(std::string_view(category));
}

void HostLog::write(void* context, const char* category, int level, const char* text) {
  static_cast<HostLog*>(context)->write(std::string(category), level, text);
}

}  // namespace host
