// What the parts of the host runtime share about the blocks of the data model.
//
// All functions may be called from any thread; none throws.
#pragma once

#include <cstdint>

#include "connectivity/qor_plugin.h"

namespace runtime {

// What kind of block is allocated, for its size and for the line that tells of a failure.
struct BlockShape {
  const char* kind;           // "list"
  const char* unit;           // "elements"
  std::uint64_t headSize;     // bytes
  std::uint64_t elementSize;  // bytes
};

inline constexpr BlockShape listShape{"list", "elements", sizeof(qor_underlying_list_t),
                                      sizeof(qor_data_t)};
inline constexpr BlockShape mapShape{"map", "slots", sizeof(qor_underlying_map_table_t),
                                     sizeof(qor_underlying_map_table_entry_t)};
inline constexpr BlockShape bufferShape{"buffer", "bytes", sizeof(qor_underlying_buffer_t), 1};
inline constexpr BlockShape stringShape{"string", "bytes", 0, 1};
inline constexpr BlockShape customShape{"custom value", "objects", 0,
                                        sizeof(qor_underlying_custom_t)};
inline constexpr BlockShape statusItemShape{"status item", "objects", 0, 2 * sizeof(void*)};

// Bytes for a block of `count` elements, or 0 where no machine of this size can hold it.
std::uint64_t blockSize(const BlockShape& shape, std::uint64_t count) noexcept;

// A block of zero bytes, freed with std::free; or null, after a line at error level,
// "Failed to allocate a <kind> of <count> <unit>".
void* allocateBlock(const BlockShape& shape, std::uint64_t count) noexcept;
void reportAllocationFailure(const BlockShape& shape, std::uint64_t count) noexcept;

// A line at error level under the runtime's own category.
void reportError(const char* format, ...) noexcept QOR_PRINTF(1, 2);
// A line under that category on standard error, whoever takes the other lines.
void reportOnStandardError(int level, const char* text) noexcept;

// --- Map slots: their three states ---------------------------------------------------------------

inline constexpr std::uint64_t emptyHash = 0;
inline constexpr std::uint64_t tombstoneHash = 1;

inline bool isEmptySlot(const qor_underlying_map_table_entry_t& slot) noexcept {
  return slot.key.tag == QOR_EMPTY && slot.hash == emptyHash;
}
inline bool isTombstone(const qor_underlying_map_table_entry_t& slot) noexcept {
  return slot.key.tag == QOR_EMPTY && slot.hash == tombstoneHash;
}
inline bool isLiveSlot(const qor_underlying_map_table_entry_t& slot) noexcept {
  return slot.key.tag != QOR_EMPTY || slot.hash > tombstoneHash;
}

}  // namespace runtime
