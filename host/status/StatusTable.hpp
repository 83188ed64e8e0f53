// The host's status items: what plug-ins publish, by key. Any thread may call anything.
#pragma once

#include <map>
#include <string>

#include "connectivity/qor_plugin.h"
#include "orrery/Mutex.hpp"

namespace host {

using StatusItems = std::map<std::string, std::string>;

// Outlives every plug-in that got its handle.
class StatusTable {
 public:
  StatusTable();
  StatusTable(const StatusTable&) = delete;
  StatusTable& operator=(const StatusTable&) = delete;

  // What create takes as the status handle.
  void* handle() noexcept { return &_services; }
  // All items, key to text.
  StatusItems items() const;

 private:
  static void* create(void* context, const char* key, const char* text);
  static void set(void* context, void* item, const char* text);
  static void remove(void* context, void* item);

  qor_status_services_t _services;  // constant after construction
  mutable orrery::Mutex _mutex{"StatusTable"};
  // A plug-in's item is the address of its entry, which stays while others come and go.
  StatusItems _items ORRERY_GUARDED_BY(_mutex);
};

}  // namespace host
