#include "host/status/StatusTable.hpp"

namespace host {

namespace {

StatusTable& tableAt(void* context) { return *static_cast<StatusTable*>(context); }

}  // namespace

StatusTable::StatusTable() : _services{this, &create, &set, &remove} {}

StatusItems StatusTable::items() const {
  const orrery::AutoMutex lock(_mutex);
  return _items;
}

void* StatusTable::create(void* context, const char* key, const char* text) {
  StatusTable& table = tableAt(context);
  const orrery::AutoMutex lock(table._mutex);
  const auto [entry, isNew] = table._items.emplace(key, text);
  return isNew ? &*entry : nullptr;
}

void StatusTable::set(void* context, void* item, const char* text) {
  StatusTable& table = tableAt(context);
  const orrery::AutoMutex lock(table._mutex);
  static_cast<std::pair<const std::string, std::string>*>(item)->second = text;
}

void StatusTable::remove(void* context, void* item) {
  StatusTable& table = tableAt(context);
  const orrery::AutoMutex lock(table._mutex);
  table._items.erase(static_cast<std::pair<const std::string, std::string>*>(item)->first);
}

}  // namespace host
