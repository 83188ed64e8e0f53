// A small vocabulary for tests of the C data model: values that own what they hold.
#pragma once

#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <memory>
#include <string>
#include <string_view>

#include "connectivity/qor_plugin.h"

namespace runtime_test {

inline qor_data_t tagged(qor_tag_t tag) {
  qor_data_t value{};
  value.tag = tag;
  return value;
}
inline qor_data_t boolean(bool held) {
  qor_data_t value = tagged(QOR_BOOL);
  value.value.boolean = held;
  return value;
}
inline qor_data_t float64(double held) {
  qor_data_t value = tagged(QOR_DOUBLE);
  value.value.float64 = held;
  return value;
}
inline qor_data_t int64(std::int64_t held) {
  qor_data_t value = tagged(QOR_INT64);
  value.value.int64 = held;
  return value;
}
inline qor_data_t decimal(std::uint64_t bits) {
  qor_data_t value = tagged(QOR_DECIMAL);
  value.value.decimal = bits;
  return value;
}
inline qor_data_t text(const char* held) {
  qor_data_t value = tagged(QOR_STRING);
  value.value.string = qor_copy_string(held);
  return value;
}
inline qor_data_t borrowed(const char* held) {
  qor_data_t value = tagged(QOR_BORROWED_STRING);
  value.value.borrowed = held;
  return value;
}
inline qor_data_t buffer(std::string_view bytes) {
  qor_data_t value = tagged(QOR_BUFFER);
  value.value.buffer = qor_allocate_buffer(bytes.size());
  std::memcpy(qor_buffer_bytes(value.value.buffer), bytes.data(), bytes.size());
  return value;
}
// Takes the elements over.
inline qor_data_t list(std::initializer_list<qor_data_t> elements) {
  qor_data_t value = tagged(QOR_LIST);
  value.value.list = qor_allocate_list(elements.size());
  for (const qor_data_t& element : elements) {
    qor_list_elements(value.value.list)[value.value.list->count++] = element;
  }
  return value;
}
struct Entry {
  const char* key;
  qor_data_t value;
};
// Takes the values over.
inline qor_data_t map(std::initializer_list<Entry> entries) {
  qor_data_t value = tagged(QOR_MAP);
  for (const Entry& entry : entries) qor_map_put(&value.value.map, entry.key, entry.value);
  return value;
}

// A value that is freed at the end of its scope.
class Owned {
 public:
  explicit Owned(qor_data_t value) : _value(value) {}
  ~Owned() { qor_free_data(_value); }
  Owned(const Owned&) = delete;
  Owned& operator=(const Owned&) = delete;
  const qor_data_t& operator*() const { return _value; }
  const qor_data_t* operator->() const { return &_value; }

 private:
  const qor_data_t _value;
};

inline std::string rendered(const qor_data_t& value) {
  const std::unique_ptr<char, void (*)(char*)> rendering(qor_data_to_string(value),
                                                         qor_free_string);
  return rendering.get();
}

}  // namespace runtime_test
