// Map tables: allocation, growth, and text keys.
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <span>
#include <utility>

#include "connectivity/qor_plugin.h"
#include "orrery/runtime/Blocks.hpp"

namespace {

using entry_t = qor_underlying_map_table_entry_t;
using table_t = qor_underlying_map_table_t;

constexpr std::uint64_t smallestCapacity = 8;

std::span<entry_t> slotsOf(table_t* table) {
  return {qor_map_entries(table), static_cast<std::size_t>(table->capacity)};
}

// Goes through the slots in the order in which a key with this hash is looked for. Null when every
// slot has been seen, or where `wanted` says so.
template <typename Wanted>
entry_t* probe(table_t* table, std::uint64_t hash, Wanted wanted) {
  const std::span<entry_t> slots = slotsOf(table);
  if (slots.empty()) return nullptr;
  auto index = static_cast<std::size_t>(hash % table->capacity);
  for (std::size_t seen = 0; seen < slots.size(); ++seen) {
    if (wanted(slots[index])) return &slots[index];
    if (++index == slots.size()) index = 0;
  }
  return nullptr;
}

bool holdsText(const entry_t& slot, const char* key, std::uint64_t hash) {
  const bool isText = slot.key.tag == QOR_STRING || slot.key.tag == QOR_BORROWED_STRING;
  return isText && slot.hash == hash && std::strcmp(slot.key.value.borrowed, key) == 0;
}

entry_t* findText(table_t* table, const char* key, std::uint64_t hash) {
  entry_t* end = probe(table, hash, [&](const entry_t& slot) {
    return runtime::isEmptySlot(slot) || holdsText(slot, key, hash);
  });
  return end != nullptr && holdsText(*end, key, hash) ? end : nullptr;
}

// Where a key that is absent goes: the first tombstone or empty slot on its way.
entry_t* freeSlot(table_t* table, std::uint64_t hash) {
  return probe(table, hash, [](const entry_t& slot) { return !runtime::isLiveSlot(slot); });
}

bool mustGrow(const table_t* table) {
  if (table == nullptr || table->capacity == 0) return true;
  return 0.75 * static_cast<double>(table->capacity) <
         static_cast<double>(table->size + table->tombstones);
}

table_t* grown(table_t* table) {
  if (table == nullptr) return qor_allocate_map(smallestCapacity);
  return qor_reallocate_map(table, std::max(smallestCapacity, 2 * table->size + 2));
}

bool putNew(table_t*& table, const char* key, std::uint64_t hash, qor_data_t value) {
  entry_t* slot = mustGrow(table) ? nullptr : freeSlot(table, hash);
  if (slot == nullptr) {
    table_t* larger = grown(table);
    if (larger == nullptr) return false;
    table = larger;
    slot = freeSlot(table, hash);
  }
  char* copied = qor_copy_string(key);
  if (copied == nullptr) return false;
  slot->hash = hash;
  slot->key.value.string = copied;
  slot->key.tag = QOR_STRING;
  slot->value = value;
  // A tombstone that is used again stays counted: only reallocation clears the count.
  ++table->size;
  return true;
}

}  // namespace

table_t* qor_allocate_map(uint64_t capacity) {
  auto* table = static_cast<table_t*>(runtime::allocateBlock(runtime::mapShape, capacity));
  if (table != nullptr) table->capacity = capacity;
  return table;
}

table_t* qor_reallocate_map(table_t* table, uint64_t capacity) {
  if (table == nullptr) return qor_allocate_map(capacity);
  if (capacity < table->size) {
    runtime::reportError("Cannot reallocate a map of %llu entries to %llu slots",
                         static_cast<unsigned long long>(table->size),
                         static_cast<unsigned long long>(capacity));
    return nullptr;
  }
  table_t* moved = qor_allocate_map(capacity);
  if (moved == nullptr) return nullptr;
  for (const entry_t& slot : slotsOf(table)) {
    if (runtime::isLiveSlot(slot)) *freeSlot(moved, slot.hash) = slot;
  }
  moved->size = table->size;
  moved->header_string = table->header_string;
  std::free(table);
  return moved;
}

int qor_map_put(table_t** table, const char* key, qor_data_t value) {
  const std::uint64_t hash = qor_hash_string(key);
  entry_t* present = *table == nullptr ? nullptr : findText(*table, key, hash);
  if (present != nullptr) {
    qor_free_data(std::exchange(present->value, value));
    return 0;
  }
  if (putNew(*table, key, hash, value)) return 0;
  qor_free_data(value);
  return 1;
}

const qor_data_t* qor_map_find(const table_t* table, const char* key) {
  if (table == nullptr) return nullptr;
  // The probe is shared with the operations that write; nothing is written here.
  const entry_t* found = findText(const_cast<table_t*>(table), key, qor_hash_string(key));
  return found == nullptr ? nullptr : &found->value;
}
