// Intrusive reference counting for objects shared between threads.
//
// An object starts with a count of 0; the first IntrusivePtr makes it 1, and the release that
// brings it back to 0 deletes it. The tag of each call names the kind of holder, for tracing.
#pragma once

#include <atomic>
#include <cstdint>
#include <utility>

#include "orrery/Export.hpp"

namespace orrery {

class ORRERY_API RefCountedObject {
 public:
  RefCountedObject() noexcept = default;
  RefCountedObject(const RefCountedObject&) = delete;
  RefCountedObject& operator=(const RefCountedObject&) = delete;
  virtual ~RefCountedObject();

  virtual void incrRefCount(const char* tag) noexcept;
  // Deletes the object when the last reference goes.
  virtual void decrRefCount(const char* tag) noexcept;

 private:
  std::atomic<std::uint32_t> _count{0};
};

// Owns one reference (tag "IntrusivePtr") to T, a RefCountedObject; may be null.
template <typename T>
class IntrusivePtr {
 public:
  IntrusivePtr() noexcept = default;
  explicit IntrusivePtr(T* object) noexcept : _object(object) {
    if (_object != nullptr) _object->incrRefCount(tag);
  }
  IntrusivePtr(const IntrusivePtr& other) noexcept : IntrusivePtr(other._object) {}
  IntrusivePtr(IntrusivePtr&& other) noexcept : _object(std::exchange(other._object, nullptr)) {}
  IntrusivePtr& operator=(IntrusivePtr other) noexcept {
    std::swap(_object, other._object);
    return *this;
  }
  ~IntrusivePtr() {
    if (_object != nullptr) _object->decrRefCount(tag);
  }

  T* get() const noexcept { return _object; }
  T* operator->() const noexcept { return _object; }
  T& operator*() const noexcept { return *_object; }
  explicit operator bool() const noexcept { return _object != nullptr; }

 private:
  static constexpr const char* tag = "IntrusivePtr";
  T* _object = nullptr;
};

}  // namespace orrery
