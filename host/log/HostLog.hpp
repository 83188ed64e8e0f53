// The host's log: lines on standard error, and above them the progress line of a terminal.
//
//   2026-01-31T12:00:00.123Z INFO  [connectivity.shop.orders] text
//
// Time in UTC, level, category, text; control characters of the text are escaped, so that a line
// stays one line. While a HostLog lives, qor_log_at writes here. Any thread may call anything.
#pragma once

#include <map>
#include <memory>
#include <string>
#include <string_view>

#include "connectivity/qor_plugin.h"

namespace host {

class HostLog {
 public:
  // The category of the host's own lines.
  static constexpr const char* ownCategory = "host";

  // `levels` holds levels for single categories (and for those that continue them after a "."); the
  // longest one wins over `level`. One HostLog at a time.
  HostLog(int level, std::map<std::string, int> levels);
  ~HostLog();
  HostLog(const HostLog&) = delete;
  HostLog& operator=(const HostLog&) = delete;

  int levelOf(std::string_view category) const;
  // Writes the line if the category's level allows it; one that repeats another is held back and
  // counted (RepeatedLines.hpp).
  void write(const std::string& category, int level, std::string_view text);
  void error(std::string_view text) { write(ownCategory, QOR_LOG_ERROR, text); }
  void warn(std::string_view text) { write(ownCategory, QOR_LOG_WARN, text); }
  void info(std::string_view text) { write(ownCategory, QOR_LOG_INFO, text); }

  // Writes a line of another form, whatever the level.
  void writeRaw(std::string_view line);
  // Writes the counts that are due although no line comes. To be called about once a second.
  void writeOverdue();

  // Shows the text below the log, in place of what it showed before; empty: nothing. For terminals.
  void showProgress(const std::string& text);

 private:
  class Sink;
  static int levelOf(void* context, const char* category);
  static void write(void* context, const char* category, int level, const char* text);

  const int _level;
  const std::map<std::string, int> _levels;
  const qor_log_services_t _services;
  const std::unique_ptr<Sink> _sink;
};

}  // namespace host
