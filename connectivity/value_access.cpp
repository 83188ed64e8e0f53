#include "connectivity/value_access.hpp"

#include <array>
#include <cstdio>
#include <cstdlib>
#include <limits>
#include <memory>
#include <stdexcept>
#include <string_view>
#include <utility>
#include <vector>

#include "connectivity/walks.hpp"

namespace connectivity {

// --- Typed reads -------------------------------------------------------------------------------

namespace get_details {

void throwEmpty() { throw std::runtime_error("Get from empty"); }

void throwIncorrectType(const std::type_info& asked, const char* askedName,
                        const char* actualName) {
  const char* name = asked.name();
  if (*name == '*') ++name;  // marks a type that is compared by address
  std::fprintf(stderr, "GetVisitor<%s>.operator()(%s)\n", name, name);
  throw std::runtime_error(std::string("Incorrect type in get (you asked for ") + askedName +
                           " but it's actually " + actualName + ")");
}

}  // namespace get_details

namespace {

struct KindVisitor {
  const char* operator()() const noexcept { return "empty"; }
  template <typename Held>
  const char* operator()(const Held&) const noexcept {
    return get_details::nameOf(static_cast<const Held*>(nullptr));
  }
  const char* unknown() const noexcept { return "unknown"; }
};

std::string formatted(double value) {
  std::array<char, 50> text{};
  std::snprintf(text.data(), text.size(), "%g", value);
  return text.data();
}

std::string formatted(long long value) {
  std::array<char, 25> text{};
  std::snprintf(text.data(), text.size(), "%lld", value);
  return text.data();
}

const char* formatted(bool value) noexcept { return value ? "true" : "false"; }

}  // namespace

const char* kindOf(const data_t& value) noexcept { return value.apply_visitor(KindVisitor()); }

// --- Lenient reads -----------------------------------------------------------------------------

namespace convert_to_details {

namespace {

[[noreturn]] void throwIncorrectType(const char* actualName) {
  throw std::runtime_error(std::string("Trying to parse from incorrect type (actually ") +
                           actualName + ")");
}

// What is the same for every T: an empty value, and the alternatives that are not converted.
template <typename T>
struct Refusals {
  T operator()() const { throw std::runtime_error("Trying to parse from empty"); }
  template <typename Held>
  T operator()(const Held& held) const {
    throwIncorrectType(KindVisitor()(held));
  }
  T unknown() const { throwIncorrectType("unknown"); }
};

template <typename T>
struct _get_or_convert;

template <>
struct _get_or_convert<long long> : Refusals<long long> {
  using Refusals::operator();
  long long operator()(long long value) const noexcept { return value; }
  // Leading digits count; what is no number is 0.
  long long operator()(const char* text) const noexcept { return std::strtoll(text, nullptr, 10); }
};

template <>
struct _get_or_convert<std::string> : Refusals<std::string> {
  using Refusals::operator();
  std::string operator()(bool value) const { return formatted(value); }
  std::string operator()(double value) const { return formatted(value); }
  std::string operator()(long long value) const { return formatted(value); }
  std::string operator()(const char* text) const { return text; }
};

}  // namespace

}  // namespace convert_to_details

template <>
long long convert_to<long long>(const data_t& value) {
  return value.apply_visitor(convert_to_details::_get_or_convert<long long>());
}

template <>
std::string convert_to<std::string>(const data_t& value) {
  return value.apply_visitor(convert_to_details::_get_or_convert<std::string>());
}

// --- Text for people ---------------------------------------------------------------------------

namespace {

constexpr bool isControl(char32_t character) noexcept {
  if (character == '\t' || character == '\n' || character == '\r') return false;
  return character < 0x20 || (character >= 0x7F && character < 0xA0);
}

// How many bytes a UTF-8 sequence has that begins with `lead`, or 0.
constexpr std::size_t sequenceLength(unsigned char lead) noexcept {
  if (lead < 0x80) return 1;
  if (lead >= 0xC2 && lead < 0xE0) return 2;
  if (lead >= 0xE0 && lead < 0xF0) return 3;
  if (lead >= 0xF0 && lead < 0xF5) return 4;
  return 0;
}

// Takes the first character off `bytes` and tells whether it is one that people can read.
bool takeReadable(std::string_view& bytes) noexcept {
  constexpr std::array<char32_t, 5> smallest = {0, 0, 0x80, 0x800, 0x10000};
  const auto lead = static_cast<unsigned char>(bytes.front());
  const std::size_t length = sequenceLength(lead);
  if (length == 0 || bytes.size() < length) return false;
  char32_t character = length == 1 ? lead : lead & (0x7FU >> length);
  for (const char byte : bytes.substr(1, length - 1)) {
    const auto next = static_cast<unsigned char>(byte);
    if ((next & 0xC0U) != 0x80U) return false;
    character = (character << 6U) | (next & 0x3FU);
  }
  bytes.remove_prefix(length);
  const bool isSurrogate = character >= 0xD800 && character < 0xE000;
  return character >= smallest[length] && character <= 0x10FFFF && !isSurrogate &&
         !isControl(character);
}

bool isReadable(std::string_view bytes) noexcept {
  while (!bytes.empty())
    if (!takeReadable(bytes)) return false;
  return true;
}

// A list or map that is being rendered.
class Level {
 public:
  explicit Level(const details::Walk& walk) : _walk(walk), _isMap(walk.isOverMap()) {}

  void open(std::string& text) const { text += _isMap ? '{' : '['; }
  void close(std::string& text) const { text += _isMap ? '}' : ']'; }
  // Writes up to a value that is a container, or to the end: then null.
  const data_t* nextContainer(std::string& text) {
    for (;;) {
      const data_t* const value = _walk.next();
      if (value == nullptr) return nullptr;
      text += separator();
      if (details::isContainer(*value)) return value;
      text += toText(*value);
    }
  }

 private:
  const char* separator() noexcept {
    if (!std::exchange(_hasBegun, true)) return "";
    return _isMap && !_walk.isAtKey() ? "=" : ", ";
  }

  details::Walk _walk;
  bool _isMap;
  bool _hasBegun = false;
};

// Renders by a stack of its own.
void writeDeep(const data_t& container, std::string& text) {
  std::vector<Level> levels;
  const auto enter = [&](const data_t& inner) {
    levels.emplace_back(details::Walk(inner));
    levels.back().open(text);
  };
  enter(container);
  while (!levels.empty()) {
    if (const data_t* const inner = levels.back().nextContainer(text)) {
      enter(*inner);
    } else {
      levels.back().close(text);
      levels.pop_back();
    }
  }
}

void writeShallow(const details::Walk& walk, std::string& text, unsigned deeper) {
  Level level(walk);
  level.open(text);
  while (const data_t* const inner = level.nextContainer(text)) {
    if (deeper == 0) {
      writeDeep(*inner, text);
    } else {
      writeShallow(details::Walk(*inner), text, deeper - 1);
    }
  }
  level.close(text);
}

std::string rendered(const details::Walk& walk) {
  std::string text;
  writeShallow(walk, text, details::recursionLimit);
  return text;
}

}  // namespace

std::string bufferToString(const buffer_t& buffer) {
  const auto* const block = buffer.block();
  if (block != nullptr && block->length > std::numeric_limits<std::uint32_t>::max())
    throw std::runtime_error("Out of bounds");
  const std::string_view bytes = buffer.view();
  if (isReadable(bytes)) return std::string(bytes);
  return "<" + std::to_string(bytes.size()) + " bytes>";
}

std::string Data_tToString::operator()() const { return "(null)"; }
std::string Data_tToString::operator()(bool value) const { return formatted(value); }
std::string Data_tToString::operator()(double value) const { return formatted(value); }
std::string Data_tToString::operator()(long long value) const { return formatted(value); }
std::string Data_tToString::operator()(const char* text) const { return text; }
std::string Data_tToString::operator()(const custom_t&) const { return "(custom)"; }
std::string Data_tToString::unknown() const { return "(unknown)"; }
std::string Data_tToString::operator()(const buffer_t& buffer) const {
  return bufferToString(buffer);
}

// Only the host knows what the bits say.
std::string Data_tToString::operator()(decimal_t value) const {
  const std::unique_ptr<char, decltype(&qor_free_string)> text(
      qor_data_to_string(data_t(value).raw()), &qor_free_string);
  return text == nullptr ? "" : text.get();
}

std::string Data_tToString::operator()(const list_t& list) const {
  return rendered(details::Walk(list));
}

std::string Data_tToString::operator()(const map_t& map) const {
  return rendered(details::Walk(map));
}

}  // namespace connectivity
