// A worker's way to the log: its lines carry its number.
//
// Immutable; any thread may use it, and copies are cheap. It borrows the logger, which must outlive
// it and what warnings() has returned.
#pragma once

#include <string>

#include "connectivity/Logger.hpp"
#include "plugins/http_client/text/ReportLine.hpp"

namespace connectivity::plugins {

class WorkerLog {
 public:
  WorkerLog(const Logger& logger, unsigned index) noexcept : _logger(logger), _index(index) {}

  bool enabled(Level level) const noexcept { return _logger.enabled(level); }

  // Writes "<name> {index} " and the formatted text. `format` is as for Logger: a literal, with
  // text from outside as an argument of "%s".
  template <typename... Arguments>
  void transportLog(Level level, const char* format, Arguments... arguments) const {
    _logger.logForWorker(_index, level, format, arguments...);
  }

  // For code that has no log of its own: each text becomes a line at level 3.
  ReportLine warnings() const {
    return [log = *this](const std::string& text) {
      log.transportLog(Level::Warn, "%s", text.c_str());
    };
  }

 private:
  const Logger& _logger;
  const unsigned _index;
};

}  // namespace connectivity::plugins
