// Making, copying and freeing values.
//
// Nesting can be as deep as memory allows: copying and freeing keep their place in the heap, not on
// the thread's stack, and freeing allocates nothing.
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <new>
#include <span>
#include <vector>

#include "connectivity/qor_plugin.h"
#include "orrery/runtime/Blocks.hpp"

namespace runtime {

std::uint64_t blockSize(const BlockShape& shape, std::uint64_t count) noexcept {
  constexpr std::uint64_t largest = std::numeric_limits<std::ptrdiff_t>::max();
  if (count > (largest - shape.headSize) / shape.elementSize) return 0;
  return std::max<std::uint64_t>(shape.headSize + count * shape.elementSize, 1);
}

void* allocateBlock(const BlockShape& shape, std::uint64_t count) noexcept {
  const std::uint64_t size = blockSize(shape, count);
  void* block = size == 0 ? nullptr : std::calloc(static_cast<std::size_t>(size), 1);
  if (block == nullptr) reportAllocationFailure(shape, count);
  return block;
}

void reportAllocationFailure(const BlockShape& shape, std::uint64_t count) noexcept {
  reportError("Failed to allocate a %s of %llu %s", shape.kind,
              static_cast<unsigned long long>(count), shape.unit);
}

namespace {

constexpr std::uint64_t longestBuffer = std::numeric_limits<std::uint32_t>::max();

std::span<qor_data_t> elementsOf(qor_underlying_list_t* list) {
  return {qor_list_elements(list), static_cast<std::size_t>(list->count)};
}

std::span<qor_underlying_map_table_entry_t> slotsOf(qor_underlying_map_table_t* table) {
  return {qor_map_entries(table), static_cast<std::size_t>(table->capacity)};
}

// --- Freeing -------------------------------------------------------------------------------------

// A value that waits to be freed is kept in a chain that runs through the blocks themselves: a list
// links by its capacity, a table by its header text, which has been freed by then.
class Releaser {
 public:
  void release(qor_data_t value) noexcept {
    switch (value.tag) {
      case QOR_STRING:
        return qor_free_string(value.value.string);
      case QOR_LIST:
        return push(value.value.list);
      case QOR_MAP:
        return push(value.value.map);
      case QOR_BUFFER:
        return qor_free_buffer(value.value.buffer);
      case QOR_CUSTOM:
        return qor_free_custom(value.value.custom);
      default:
        return;
    }
  }

  void push(qor_underlying_list_t* list) noexcept {
    if (list == nullptr) return;
    std::memcpy(&list->capacity, &_lists, sizeof(void*));
    _lists = list;
  }
  void push(qor_underlying_map_table_t* table) noexcept {
    if (table == nullptr) return;
    qor_free_string(table->header_string);
    table->header_string = reinterpret_cast<char*>(_tables);
    _tables = table;
  }

  // Frees everything that waits.
  void drain() noexcept {
    while (_lists != nullptr || _tables != nullptr) {
      if (_lists != nullptr) {
        freeFirstList();
      } else {
        freeFirstTable();
      }
    }
  }

 private:
  void freeFirstList() noexcept {
    qor_underlying_list_t* list = _lists;
    std::memcpy(&_lists, &list->capacity, sizeof(void*));
    for (const qor_data_t& element : elementsOf(list)) release(element);
    std::free(list);
  }
  void freeFirstTable() noexcept {
    qor_underlying_map_table_t* table = _tables;
    _tables = reinterpret_cast<qor_underlying_map_table_t*>(table->header_string);
    const auto slots = slotsOf(table);
    for (std::size_t i = 0; i < slots.size(); ++i) {
      // In the order of slots, the values of a large table lie all over memory.
      if (i + ahead < slots.size()) prefetch(slots[i + ahead]);
      release(slots[i].key);
      release(slots[i].value);
    }
    std::free(table);
  }

  static constexpr std::size_t ahead = 32;
  // Asks for what the allocator is to read when the slot's key and value are freed: it stands in
  // front of the block.
  static void prefetch(const qor_underlying_map_table_entry_t& slot) noexcept {
    for (const qor_data_t& value : {slot.key, slot.value}) {
      if (value.tag == QOR_STRING) __builtin_prefetch(value.value.string - sizeof(std::size_t));
    }
  }

  qor_underlying_list_t* _lists = nullptr;
  qor_underlying_map_table_t* _tables = nullptr;
};

// --- Copying -------------------------------------------------------------------------------------

// Whatever has been copied so far can be freed at any time: the rest of the copy is empty values.
class Copier {
 public:
  // False where something could not be allocated. `to` must be empty.
  bool copy(const qor_data_t& from, qor_data_t& to) {
    _containers.push_back({&from, &to});
    while (!_containers.empty() && !_failed) {
      const Task task = _containers.back();
      _containers.pop_back();
      copyNow(*task.from, *task.to);
    }
    return !_failed;
  }

 private:
  struct Task {
    const qor_data_t* from;
    qor_data_t* to;
  };

  void copyNow(const qor_data_t& from, qor_data_t& to) {
    if (from.tag == QOR_LIST && from.value.list != nullptr) return copyList(from.value.list, to);
    if (from.tag == QOR_MAP && from.value.map != nullptr) return copyTable(from.value.map, to);
    copyLeaf(from, to);
  }

  // A list or a map waits for its turn, so that depth costs no stack.
  void copyElement(const qor_data_t& from, qor_data_t& to) {
    if (from.tag == QOR_LIST || from.tag == QOR_MAP) {
      _containers.push_back({&from, &to});
    } else {
      copyLeaf(from, to);
    }
  }

  void copyLeaf(const qor_data_t& from, qor_data_t& to) {
    qor_data_t copied = from;
    if (from.tag == QOR_STRING || from.tag == QOR_BORROWED_STRING) {
      copied.tag = QOR_STRING;
      copied.value.string = check(from.value.borrowed, qor_copy_string(from.value.borrowed));
    } else if (from.tag == QOR_BUFFER) {
      copied.value.buffer = check(from.value.buffer, copyOf(from.value.buffer));
    } else if (from.tag == QOR_CUSTOM) {
      copied.value.custom = check(from.value.custom, copyOf(from.value.custom));
    }
    to = copied;
  }

  void copyList(qor_underlying_list_t* from, qor_data_t& to) {
    qor_underlying_list_t* list = check(from, qor_allocate_list(from->count));
    if (list == nullptr) return;
    list->count = from->count;
    to.value.list = list;
    to.tag = QOR_LIST;
    const auto target = elementsOf(list);
    const auto source = elementsOf(from);
    for (std::size_t i = 0; i < source.size() && !_failed; ++i) copyElement(source[i], target[i]);
  }

  // Slot for slot, so that the copy is iterated in the order of the original.
  void copyTable(qor_underlying_map_table_t* from, qor_data_t& to) {
    qor_underlying_map_table_t* table = check(from, qor_allocate_map(from->capacity));
    if (table == nullptr) return;
    to.value.map = table;
    to.tag = QOR_MAP;
    table->size = from->size;
    table->tombstones = from->tombstones;
    table->header_string = check(from->header_string, qor_copy_string(from->header_string));
    const auto target = slotsOf(table);
    const auto source = slotsOf(from);
    for (std::size_t i = 0; i < source.size() && !_failed; ++i) {
      target[i].hash = source[i].hash;
      copyElement(source[i].key, target[i].key);
      copyElement(source[i].value, target[i].value);
    }
  }

  static qor_underlying_buffer_t* copyOf(qor_underlying_buffer_t* from) {
    if (from == nullptr) return nullptr;
    const auto length = static_cast<std::uint32_t>(from->length);
    qor_underlying_buffer_t* buffer = qor_allocate_buffer(length);
    if (buffer != nullptr) {
      std::memcpy(qor_buffer_bytes(buffer), qor_buffer_bytes(from), length);
    }
    return buffer;
  }

  static qor_underlying_custom_t* copyOf(const qor_underlying_custom_t* from) {
    if (from == nullptr) return nullptr;
    void* object = from->operations->copy(from->object);
    qor_underlying_custom_t* custom = qor_allocate_custom(object, from->operations);
    if (custom == nullptr) from->operations->free(object);
    return custom;
  }

  // Notes a copy that is null although the original is not.
  template <typename From, typename To>
  To* check(From* from, To* copied) {
    if (from != nullptr && copied == nullptr) _failed = true;
    return copied;
  }

  std::vector<Task> _containers;
  bool _failed = false;
};

}  // namespace

}  // namespace runtime

using runtime::allocateBlock;
using runtime::Copier;
using runtime::Releaser;

// --- Strings -------------------------------------------------------------------------------------

char* qor_copy_string(const char* text) {
  if (text == nullptr) return nullptr;
  const std::size_t size = std::strlen(text) + 1;
  void* copied = allocateBlock(runtime::stringShape, size);
  if (copied != nullptr) std::memcpy(copied, text, size);
  return static_cast<char*>(copied);
}

void qor_free_string(char* text) { std::free(text); }

// --- Lists ---------------------------------------------------------------------------------------

qor_underlying_list_t* qor_allocate_list(uint64_t capacity) {
  auto* list = static_cast<qor_underlying_list_t*>(allocateBlock(runtime::listShape, capacity));
  if (list != nullptr) list->capacity = capacity;
  return list;
}

qor_underlying_list_t* qor_reallocate_list(qor_underlying_list_t* list, uint64_t capacity) {
  if (list == nullptr) return qor_allocate_list(capacity);
  if (capacity < list->count) {
    runtime::reportError("Cannot reallocate a list of %llu elements to a capacity of %llu",
                         static_cast<unsigned long long>(list->count),
                         static_cast<unsigned long long>(capacity));
    return nullptr;
  }
  const std::uint64_t size = runtime::blockSize(runtime::listShape, capacity);
  void* block = size == 0 ? nullptr : std::realloc(list, static_cast<std::size_t>(size));
  if (block == nullptr) {
    runtime::reportAllocationFailure(runtime::listShape, capacity);
    return nullptr;
  }
  auto* grown = static_cast<qor_underlying_list_t*>(block);
  grown->capacity = capacity;
  std::fill(qor_list_elements(grown) + grown->count, qor_list_elements(grown) + capacity,
            qor_data_t{});
  return grown;
}

void qor_free_vector(qor_underlying_list_t* list) {
  Releaser releaser;
  releaser.push(list);
  releaser.drain();
}

// --- Buffers -------------------------------------------------------------------------------------

qor_underlying_buffer_t* qor_allocate_buffer(uint64_t length) {
  if (length > runtime::longestBuffer) {
    runtime::reportAllocationFailure(runtime::bufferShape, length);
    return nullptr;
  }
  auto* buffer = static_cast<qor_underlying_buffer_t*>(allocateBlock(runtime::bufferShape, length));
  if (buffer != nullptr) buffer->length = length;
  return buffer;
}

void qor_free_buffer(qor_underlying_buffer_t* buffer) { std::free(buffer); }

// --- Custom values -------------------------------------------------------------------------------

qor_underlying_custom_t* qor_allocate_custom(void* object,
                                             const qor_custom_operations_t* operations) {
  auto* custom = static_cast<qor_underlying_custom_t*>(allocateBlock(runtime::customShape, 1));
  if (custom == nullptr) return nullptr;
  custom->object = object;
  custom->operations = operations;
  return custom;
}

void qor_free_custom(qor_underlying_custom_t* custom) {
  if (custom == nullptr) return;
  custom->operations->free(custom->object);
  std::free(custom);
}

// --- Whole values --------------------------------------------------------------------------------

void qor_free_map(qor_underlying_map_table_t* table) {
  Releaser releaser;
  releaser.push(table);
  releaser.drain();
}

void qor_free_data(qor_data_t value) {
  Releaser releaser;
  releaser.release(value);
  releaser.drain();
}

qor_data_t qor_copy_data(qor_data_t value) {
  qor_data_t copied{};
  bool complete = false;
  try {
    complete = Copier().copy(value, copied);
  } catch (const std::bad_alloc&) {
    runtime::reportError("Failed to copy a value: out of memory");
  }
  if (complete) return copied;
  qor_free_data(copied);
  return {};
}
