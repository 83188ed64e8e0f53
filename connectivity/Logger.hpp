// Lines for the host's log, under one category.
//
// A Logger is immutable after construction and may be used from all threads. The level is read
// once, at construction: a disabled line costs one comparison, and a later change of the host's
// level is not seen.
#pragma once

#include <array>
#include <string>
#include <type_traits>

#include "connectivity/qor_plugin.h"

namespace connectivity {

enum class Level : int {
  Error = QOR_LOG_ERROR,
  Warn = QOR_LOG_WARN,
  Info = QOR_LOG_INFO,
  Debug = QOR_LOG_DEBUG,
  Trace = QOR_LOG_TRACE
};

class Logger {
 public:
  explicit Logger(const std::string& category)
      : _category(category), _name(category), _level(qor_get_log_level(category.c_str())) {}

  const std::string& category() const noexcept { return _category; }
  const std::string& name() const noexcept { return _name; }
  bool enabled(Level level) const noexcept { return static_cast<int>(level) <= _level; }

  // Writes "<name> " and the formatted text. `format` is a literal, as for printf, whose
  // conversions match the arguments exactly; text from outside is always an argument of "%s". A
  // null format is std::logic_error, "basic_string::_M_construct null not valid".
  template <typename... Arguments>
  void log(Level level, const char* format, Arguments... arguments) const {
    if (!enabled(level)) return;
    write(level, Format("<%s> ", format), _name.c_str(), arguments...);
  }
  template <typename... Arguments>
  void info(const char* format, Arguments... arguments) const {
    log(Level::Info, format, arguments...);
  }
  template <typename... Arguments>
  void debug(const char* format, Arguments... arguments) const {
    log(Level::Debug, format, arguments...);
  }
  template <typename... Arguments>
  void warn(const char* format, Arguments... arguments) const {
    log(Level::Warn, format, arguments...);
  }

  // A worker's line: "<name> {index} " and the formatted text.
  template <typename... Arguments>
  void logForWorker(unsigned index, Level level, const char* format, Arguments... arguments) const {
    if (!enabled(level)) return;
    write(level, Format("<%s> {%u} ", format), _name.c_str(), index, arguments...);
  }

 private:
  // A prefix and a format in one text; the usual lengths need no allocation.
  class Format {
   public:
    Format(const char* prefix, const char* format);
    const char* text() const noexcept { return _long.empty() ? _short.data() : _long.c_str(); }

   private:
    std::array<char, 240> _short;
    std::string _long;
  };

  template <typename... Arguments>
  void write(Level level, const Format& format, Arguments... arguments) const {
    static_assert((std::is_scalar_v<Arguments> && ...), "printf takes numbers and pointers only");
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
#pragma GCC diagnostic ignored "-Wformat-security"
    qor_log_at(_category.c_str(), static_cast<int>(level), format.text(), arguments...);
#pragma GCC diagnostic pop
  }

  const std::string _category;
  const std::string _name;
  const int _level;
};

}  // namespace connectivity
