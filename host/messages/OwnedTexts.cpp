#include "host/messages/OwnedTexts.hpp"

#include <utility>
#include <vector>

#include "connectivity/value_access.hpp"
#include "host/messages/MapEntries.hpp"

namespace host {

using connectivity::data_t;
using connectivity::list_t;
using connectivity::map_t;
using connectivity::Message;

namespace {

// Looks for a borrowed text without a stack of its own for depth.
class Search {
 public:
  explicit Search(const Message& message) {
    _inside.reserve(16);
    look(message.payload);
    lookThrough(message.metadata.table());
  }

  bool finds() {
    while (!_found && !_inside.empty()) {
      const data_t& value = *_inside.back();
      _inside.pop_back();
      if (value.tag() == QOR_MAP) {
        lookThrough(connectivity::get<map_t>(value).table());
      } else {
        for (const data_t& element : connectivity::get<list_t>(value)) look(element);
      }
    }
    return _found;
  }

 private:
  void lookThrough(qor_underlying_map_table_t* table) {
    forEachEntry(table, [this](const data_t& key, const data_t& value) {
      look(key);
      look(value);
    });
  }
  void look(const data_t& value) {
    if (value.tag() == QOR_BORROWED_STRING) _found = true;
    if (value.tag() == QOR_MAP || value.tag() == QOR_LIST) _inside.push_back(&value);
  }

  bool _found = false;
  std::vector<const data_t*> _inside;  // maps and lists to be looked at
};

}  // namespace

void ownTexts(Message& message) {
  if (!Search(message).finds()) return;
  Message copy(message.payload.copy(), message.metadata.copy());
  message = std::move(copy);
}

}  // namespace host
