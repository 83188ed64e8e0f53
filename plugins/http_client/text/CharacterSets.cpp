#include "plugins/http_client/text/CharacterSets.hpp"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <dlfcn.h>
#include <limits>
#include <memory>
#include <stdexcept>

#include <unicode/ucnv.h>

#include "orrery/Memory.hpp"

namespace connectivity::plugins {

namespace {

struct Free {
  void operator()(char* block) const noexcept { std::free(block); }
};

bool isAscii(char c) noexcept { return static_cast<unsigned char>(c) < 0x80; }

bool isAscii(const std::string& text) noexcept {
  return std::all_of(text.begin(), text.end(), [](char c) { return isAscii(c); });
}

// The second byte of a character of two, in UTF-8.
bool isContinuation(char c) noexcept { return (static_cast<unsigned char>(c) & 0xC0U) == 0x80; }

// ICU keeps the tables that it makes until the process ends. Were it unloaded together with the
// transport, each load of the transport would leak them; so it stays.
bool keepIcuLoaded() noexcept {
  Dl_info icu{};
  return ::dladdr(reinterpret_cast<const void*>(&ucnv_convert), &icu) != 0 &&
         ::dlopen(icu.dli_fname, RTLD_LAZY | RTLD_NOLOAD | RTLD_NODELETE) != nullptr;
}

// The text up to its first NUL.
std::string upToNul(const std::string& text) { return text.substr(0, text.find('\0')); }

// factor * length + extra, or as much as a capacity can be.
unsigned int capacityFor(std::size_t length, std::size_t factor, std::size_t extra) noexcept {
  constexpr std::size_t most = std::numeric_limits<std::int32_t>::max();
  if (length > (most - extra) / factor) return static_cast<unsigned int>(most);
  return static_cast<unsigned int>(factor * length + extra);
}

}  // namespace

std::string convertBetweenCharsets(const std::string& text, const std::string& from,
                                   const std::string& to, unsigned int capacity) {
  [[maybe_unused]] static const bool kept = keepIcuLoaded();
  const std::unique_ptr<char, Free> buffer(static_cast<char*>(orrery::zq_malloc(capacity)));
  if (!buffer) throw std::runtime_error("Failed to allocate memory");
  UErrorCode status = U_ZERO_ERROR;
  const std::int32_t length =
      capacity > std::numeric_limits<std::int32_t>::max()
          ? -1
          : ucnv_convert(to.c_str(), from.c_str(), buffer.get(),
                         static_cast<std::int32_t>(capacity), text.c_str(), -1, &status);
  // A result that fills the buffer has no room for its NUL: only a warning for ICU.
  if (length < 0 || U_FAILURE(status) || status == U_STRING_NOT_TERMINATED_WARNING) {
    throw std::runtime_error("Could not convert argument from " + from + " to " + to);
  }
  return {buffer.get(), static_cast<std::size_t>(length)};
}

std::string convertToISO88591(const std::string& text) {
  if (isAscii(text)) return upToNul(text);
  return convertBetweenCharsets(text, "UTF-8", "iso8859-1", capacityFor(text.size(), 1, 2));
}

std::string convertFromCharset(const std::string& text, const std::string& charset) {
  return convertBetweenCharsets(text, charset, "UTF-8", capacityFor(text.size(), 4, 8));
}

std::string convertFromISO88591(const std::string& text) {
  if (isAscii(text)) return upToNul(text);
  return convertFromCharset(text, "iso8859-1");
}

// Not by ICU, which leaves out what it holds for ignorable (U+200B, U+FEFF, U+FE0F, ...) and says
// nothing. A character up to U+00FF has one byte in UTF-8, or two that begin with C2 or C3.
std::optional<std::string> tryHeaderToWire(std::string_view text) {
  std::string wire;
  wire.reserve(text.size());
  for (std::size_t at = 0; at < text.size(); ++at) {
    const char c = text[at];
    if (c == '\0') return std::nullopt;
    if (isAscii(c)) {
      wire.push_back(c);
      continue;
    }
    const bool isLead = c == '\xC2' || c == '\xC3';
    if (!isLead || ++at == text.size() || !isContinuation(text[at])) return std::nullopt;
    wire.push_back(c == '\xC2' ? text[at] : static_cast<char>(text[at] + 0x40));
  }
  return wire;
}

std::string headerToWire(std::string_view text, const std::string& item) {
  std::optional<std::string> wire = tryHeaderToWire(text);
  if (!wire) throw std::runtime_error(item + " holds a character that ISO-8859-1 lacks");
  return *std::move(wire);
}

std::string headerFromWire(const std::string& text) { return convertFromISO88591(text); }

std::string shownFromWire(std::string_view bytes) {
  std::string text;
  text.reserve(bytes.size());
  for (const char c : bytes) {
    if (c == '\0') {
      text += "\\x00";
    } else if (isAscii(c)) {
      text.push_back(c);
    } else {
      const auto byte = static_cast<unsigned char>(c);
      text.push_back(byte < 0xC0 ? '\xC2' : '\xC3');
      text.push_back(static_cast<char>(0x80U | (byte & 0x3FU)));
    }
  }
  return text;
}

}  // namespace connectivity::plugins
