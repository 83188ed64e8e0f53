#include "tests/connectivity/HostCalls.hpp"

#include <array>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <dlfcn.h>

using connectivity_test::HostCalls;

namespace {

HostCalls* current = nullptr;

void note(const char* name) {
  if (current != nullptr) current->made.emplace_back(name);
}

// The host runtime's own function.
template <typename Function>
Function* next(const char* name) {
  void* const found = dlsym(RTLD_NEXT, name);
  if (found == nullptr) std::abort();
  return reinterpret_cast<Function*>(found);
}

}  // namespace

namespace connectivity_test {

HostCalls::HostCalls() { current = this; }
HostCalls::~HostCalls() { current = nullptr; }

}  // namespace connectivity_test

extern "C" {

char* qor_copy_string(const char* text) {
  note("qor_copy_string");
  return next<decltype(qor_copy_string)>("qor_copy_string")(text);
}

void qor_free_string(char* text) {
  note("qor_free_string");
  next<decltype(qor_free_string)>("qor_free_string")(text);
}

qor_data_t qor_copy_data(qor_data_t value) {
  note("qor_copy_data");
  return next<decltype(qor_copy_data)>("qor_copy_data")(value);
}

qor_underlying_list_t* qor_reallocate_list(qor_underlying_list_t* list, uint64_t capacity) {
  note("qor_reallocate_list");
  if (current != nullptr && current->refuseLists) return nullptr;
  return next<decltype(qor_reallocate_list)>("qor_reallocate_list")(list, capacity);
}

void qor_free_vector(qor_underlying_list_t* list) {
  note("qor_free_vector");
  next<decltype(qor_free_vector)>("qor_free_vector")(list);
}

void qor_free_buffer(qor_underlying_buffer_t* buffer) {
  note("qor_free_buffer");
  next<decltype(qor_free_buffer)>("qor_free_buffer")(buffer);
}

void qor_free_custom(qor_underlying_custom_t* custom) {
  note("qor_free_custom");
  next<decltype(qor_free_custom)>("qor_free_custom")(custom);
}

qor_underlying_map_table_t* qor_allocate_map(uint64_t capacity) {
  note("qor_allocate_map");
  if (current != nullptr && current->refuseTables) return nullptr;
  return next<decltype(qor_allocate_map)>("qor_allocate_map")(capacity);
}

qor_underlying_map_table_t* qor_reallocate_map(qor_underlying_map_table_t* table,
                                               uint64_t capacity) {
  note("qor_reallocate_map");
  if (current != nullptr && current->refuseTables) return nullptr;
  return next<decltype(qor_reallocate_map)>("qor_reallocate_map")(table, capacity);
}

void qor_free_map(qor_underlying_map_table_t* table) {
  note("qor_free_map");
  next<decltype(qor_free_map)>("qor_free_map")(table);
}

char* qor_data_to_string(qor_data_t value) {
  note("qor_data_to_string");
  if (current != nullptr && current->onRender) current->onRender();
  return next<decltype(qor_data_to_string)>("qor_data_to_string")(value);
}

uint64_t qor_hash_string(const char* text) {
  note("qor_hash_string");
  if (current != nullptr && current->onHash) current->onHash();
  return next<decltype(qor_hash_string)>("qor_hash_string")(text);
}

int qor_get_log_level(const char* category) {
  note("qor_get_log_level");
  if (current != nullptr) return current->logLevel;
  return next<decltype(qor_get_log_level)>("qor_get_log_level")(category);
}

void qor_log_at(const char* category, int level, const char* format, ...) {
  note("qor_log_at");
  std::array<char, 2000> text{};
  std::va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(text.data(), text.size(), format, arguments);
  va_end(arguments);
  if (current != nullptr) current->logged.push_back({category, level, format, text.data()});
}

// An item is known by its key only.
void* qor_create_user_status_item(void* status_handle, const char* key, const char* text) {
  static_cast<void>(status_handle);
  note("qor_create_user_status_item");
  if (current == nullptr) return nullptr;
  auto& keys = current->statusKeys;
  if (std::find(keys.begin(), keys.end(), key) != keys.end()) return nullptr;
  keys.emplace_back(key);
  current->statusTexts.emplace_back(text);
  return current;
}

void qor_set_user_status_item(void*, const char* text) {
  note("qor_set_user_status_item");
  if (current != nullptr) current->statusTexts.emplace_back(text);
}

void qor_delete_user_status_item(void*) { note("qor_delete_user_status_item"); }

}  // extern "C"
