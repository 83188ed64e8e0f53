// The process's log as a test sees it, from construction to destruction. Any thread may log.
#pragma once

#include <mutex>
#include <string>
#include <vector>

#include "connectivity/qor_plugin.h"

class RecordingLog {
 public:
  struct Line {
    std::string category;
    int level;
    std::string text;
    bool operator==(const Line&) const = default;
  };

  RecordingLog() : _services{this, levelOf, write} { qor_set_log_services(&_services); }
  ~RecordingLog() { qor_set_log_services(nullptr); }
  RecordingLog(const RecordingLog&) = delete;
  RecordingLog& operator=(const RecordingLog&) = delete;

  std::vector<Line> lines() const {
    const std::lock_guard lock(_mutex);
    return _lines;
  }
  // The text of the only line, or what is wrong with that.
  std::string onlyText() const {
    const auto all = lines();
    return all.size() == 1 ? all.front().text : std::to_string(all.size()) + " lines";
  }

 private:
  static int levelOf(void*, const char* category) {
    return std::string(category) == "quiet" ? QOR_LOG_ERROR : QOR_LOG_TRACE;
  }
  static void write(void* context, const char* category, int level, const char* text) {
    auto* self = static_cast<RecordingLog*>(context);
    const std::lock_guard lock(self->_mutex);
    self->_lines.push_back({category, level, text});
  }

  const qor_log_services_t _services;
  mutable std::mutex _mutex;
  std::vector<Line> _lines;
};
