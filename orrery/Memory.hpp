// The host's allocator for raw blocks.
#pragma once

#include <cstddef>

#include "orrery/Export.hpp"

namespace orrery {

// `size` bytes, or null. Freed with std::free by whoever holds the block.
ORRERY_API void* zq_malloc(std::size_t size) noexcept;

}  // namespace orrery
