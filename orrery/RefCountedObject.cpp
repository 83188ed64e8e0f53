#include "orrery/RefCountedObject.hpp"

namespace orrery {

RefCountedObject::~RefCountedObject() = default;

void RefCountedObject::incrRefCount(const char* /*tag*/) noexcept {
  _count.fetch_add(1, std::memory_order_relaxed);
}

void RefCountedObject::decrRefCount(const char* /*tag*/) noexcept {
  // Acquire and release in one operation: what every holder did happens before the deletion, and
  // the thread sanitizer, which does not know fences, can see it.
  if (_count.fetch_sub(1, std::memory_order_acq_rel) == 1) delete this;
}

}  // namespace orrery
