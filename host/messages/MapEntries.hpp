// Goes through the entries of a map in its own table: for what is done with every answer, where an
// iterator that sees each change costs too much.
#pragma once

#include <cstddef>
#include <span>

#include "connectivity/data_t.hpp"

namespace host {

// Calls visit(key, value) for each entry, in the order of the slots. `visit` must not change the
// map.
template <typename Visit>
void forEachEntry(qor_underlying_map_table_t* table, Visit&& visit) {
  if (table == nullptr) return;
  const auto capacity = static_cast<std::size_t>(table->capacity);
  for (const auto& slot : std::span(qor_map_entries(table), capacity)) {
    const bool isDead = slot.hash <= 1 && slot.key.tag == QOR_EMPTY;
    if (isDead) continue;
    visit(reinterpret_cast<const connectivity::data_t&>(slot.key),
          reinterpret_cast<const connectivity::data_t&>(slot.value));
  }
}

}  // namespace host
