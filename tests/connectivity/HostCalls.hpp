// Watches and bends the host functions that the library under test calls. The test program defines
// these functions itself, so that every call of the library arrives here first; without a HostCalls
// they pass through to the host runtime.
//
// One HostCalls at a time, used by one thread.
#pragma once

#include <algorithm>
#include <cstddef>
#include <functional>
#include <string>
#include <vector>

#include "connectivity/qor_plugin.h"

namespace connectivity_test {

struct LogCall {
  std::string category;
  int level;
  std::string format;
  std::string text;
};

class HostCalls {
 public:
  HostCalls();
  ~HostCalls();
  HostCalls(const HostCalls&) = delete;
  HostCalls& operator=(const HostCalls&) = delete;

  // The names of the functions that were called, in order.
  std::vector<std::string> made;
  std::vector<LogCall> logged;
  // The keys of items that exist, and every text that an item was set to.
  std::vector<std::string> statusKeys;
  std::vector<std::string> statusTexts;

  // What the functions answer from now on.
  int logLevel = QOR_LOG_TRACE;
  bool refuseTables = false;
  bool refuseLists = false;
  // Called before a text is hashed.
  std::function<void()> onHash;
  // Called before a value is rendered by the host.
  std::function<void()> onRender;

  std::ptrdiff_t count(const std::string& name) const {
    return std::count(made.begin(), made.end(), name);
  }
};

}  // namespace connectivity_test
