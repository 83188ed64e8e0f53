#include "orrery/Memory.hpp"

#include <cstdlib>

namespace orrery {

// One byte at least: whether malloc(0) gives null is the C library's choice.
void* zq_malloc(std::size_t size) noexcept { return std::malloc(size == 0 ? 1 : size); }

}  // namespace orrery
