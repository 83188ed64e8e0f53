// A log of the host that acts on what is written to it.
#pragma once

#include <functional>
#include <string_view>
#include <utility>

#include "connectivity/qor_plugin.h"

namespace test_support {

// Calls `action` for each line, on its thread. The process's log from construction to destruction.
class ActingLog {
 public:
  using Action = std::function<void(std::string_view text)>;
  explicit ActingLog(Action action) : _action(std::move(action)) {
    qor_set_log_services(&_services);
  }
  ~ActingLog() { qor_set_log_services(nullptr); }
  ActingLog(const ActingLog&) = delete;
  ActingLog& operator=(const ActingLog&) = delete;

 private:
  static int level(void*, const char*) { return QOR_LOG_DEBUG; }
  static void write(void* context, const char*, int, const char* text) {
    static_cast<ActingLog*>(context)->_action(text);
  }
  const Action _action;
  const qor_log_services_t _services{this, &level, &write};
};

inline bool holds(std::string_view text, std::string_view part) {
  return text.find(part) != std::string_view::npos;
}

}  // namespace test_support
