// Values as text for people.
#include <algorithm>
#include <charconv>
#include <cstring>
#include <new>
#include <string>
#include <string_view>
#include <vector>

#include "connectivity/qor_plugin.h"
#include "orrery/runtime/Blocks.hpp"
#include "orrery/runtime/Decimal.hpp"
#include "orrery/runtime/Utf8.hpp"

namespace runtime {

namespace {

bool isPrintable(std::string_view bytes) {
  const auto isControl = [](char c) {
    const auto code = static_cast<unsigned char>(c);
    return (code < 0x20 && c != '\t' && c != '\n' && c != '\r') || code == 0x7F;
  };
  // U+0080 to U+009F are control characters too.
  const auto startsC1 = [](char lead, char next) {
    return lead == '\xC2' && static_cast<unsigned char>(next) < 0xA0;
  };
  return std::none_of(bytes.begin(), bytes.end(), isControl) && isUtf8(bytes) &&
         std::adjacent_find(bytes.begin(), bytes.end(), startsC1) == bytes.end();
}

// As printf's "%g" in the C locale, whatever the process's locale is.
std::string doubleText(double value) {
  char digits[32];
  const auto written =
      std::to_chars(std::begin(digits), std::end(digits), value, std::chars_format::general, 6);
  return {digits, written.ptr};
}

std::string bufferText(qor_underlying_buffer_t* buffer) {
  if (buffer == nullptr) return {};
  const std::string_view bytes(qor_buffer_bytes(buffer),
                               static_cast<std::uint32_t>(buffer->length));
  if (isPrintable(bytes)) return std::string(bytes);
  return "<" + std::to_string(bytes.size()) + " bytes>";
}

std::string customText(const qor_underlying_custom_t* custom) {
  if (custom == nullptr || custom->operations->text == nullptr) return "(custom)";
  const char* text = custom->operations->text(custom->object);
  return text == nullptr ? "(custom)" : text;
}

std::string leafText(const qor_data_t& value) {
  switch (value.tag) {
    case QOR_EMPTY:
      return "(null)";
    case QOR_BOOL:
      return value.value.boolean ? "true" : "false";
    case QOR_DOUBLE:
      return doubleText(value.value.float64);
    case QOR_INT64:
      return std::to_string(value.value.int64);
    case QOR_DECIMAL:
      return decimalToText(value.value.decimal);
    case QOR_STRING:
    case QOR_BORROWED_STRING:
      return value.value.borrowed == nullptr ? "" : value.value.borrowed;
    case QOR_BUFFER:
      return bufferText(value.value.buffer);
    case QOR_CUSTOM:
      return customText(value.value.custom);
    default:
      return "(unknown)";
  }
}

// The place in a list or a map that is being written. The values of a map come as keys and values
// in turn. The level is on the heap, so that depth costs no stack.
class Level {
 public:
  explicit Level(qor_underlying_list_t* list)
      : _values(list == nullptr ? nullptr : qor_list_elements(list)),
        _count(list == nullptr ? 0 : static_cast<std::size_t>(list->count)) {}
  explicit Level(qor_underlying_map_table_t* table)
      : _slots(table == nullptr ? nullptr : qor_map_entries(table)),
        _count(table == nullptr ? 0 : static_cast<std::size_t>(table->capacity)),
        _isMap(true) {}

  char opening() const { return _isMap ? '{' : '['; }
  char closing() const { return _isMap ? '}' : ']'; }
  // What stands before the value that next() gave.
  const char* separator() const {
    if (_written == 1) return "";
    return _isMap && _written % 2 == 0 ? "=" : ", ";
  }

  // The next value, or null at the end.
  const qor_data_t* next() {
    const qor_data_t* value = _isMap ? nextInMap() : nextInList();
    if (value != nullptr) ++_written;
    return value;
  }

 private:
  const qor_data_t* nextInList() { return _index < _count ? &_values[_index++] : nullptr; }
  const qor_data_t* nextInMap() {
    if (_written % 2 == 1) return &_slots[_index++].value;
    while (_index < _count && !isLiveSlot(_slots[_index])) ++_index;
    return _index < _count ? &_slots[_index].key : nullptr;
  }

  const qor_data_t* _values = nullptr;
  const qor_underlying_map_table_entry_t* _slots = nullptr;
  std::size_t _count;
  std::size_t _index = 0;
  std::size_t _written = 0;
  bool _isMap = false;
};

class Renderer {
 public:
  std::string render(const qor_data_t& value) {
    write(value);
    while (!_levels.empty()) {
      const qor_data_t* next = _levels.back().next();
      if (next == nullptr) {
        _text += _levels.back().closing();
        _levels.pop_back();
      } else {
        _text += _levels.back().separator();
        write(*next);
      }
    }
    return std::move(_text);
  }

 private:
  void write(const qor_data_t& value) {
    if (value.tag == QOR_LIST) {
      enter(Level(value.value.list));
    } else if (value.tag == QOR_MAP) {
      enter(Level(value.value.map));
    } else {
      _text += leafText(value);
    }
  }
  void enter(const Level& level) {
    _text += level.opening();
    _levels.push_back(level);
  }

  std::string _text;
  std::vector<Level> _levels;
};

}  // namespace

}  // namespace runtime

char* qor_data_to_string(qor_data_t value) {
  try {
    return qor_copy_string(runtime::Renderer().render(value).c_str());
  } catch (const std::bad_alloc&) {
    runtime::reportError("Failed to render a value: out of memory");
    return nullptr;
  }
}
