#include "host/messages/Base64.hpp"

#include <array>
#include <cstdint>

namespace host {

namespace {

constexpr std::string_view alphabet =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr std::uint8_t notInAlphabet = 0xFF;

constexpr std::array<std::uint8_t, 256> makeDecodingTable() {
  std::array<std::uint8_t, 256> table{};
  table.fill(notInAlphabet);
  for (std::size_t i = 0; i < alphabet.size(); ++i) {
    table[static_cast<unsigned char>(alphabet[i])] = static_cast<std::uint8_t>(i);
  }
  return table;
}

constexpr auto decodingTable = makeDecodingTable();

std::uint32_t byteAt(std::string_view bytes, std::size_t index) {
  return index < bytes.size() ? static_cast<unsigned char>(bytes[index]) : 0U;
}

std::size_t paddingOf(std::string_view text) {
  if (text.ends_with("==")) return 2;
  return text.ends_with('=') ? 1 : 0;
}

// The 24 bits of four characters, the last `padding` of which count as zero bits.
std::optional<std::uint32_t> groupBits(std::string_view group, std::size_t padding) {
  std::uint32_t bits = 0;
  for (std::size_t i = 0; i < 4; ++i) {
    std::uint8_t sextet = 0;
    if (i < 4 - padding) sextet = decodingTable[static_cast<unsigned char>(group[i])];
    if (sextet == notInAlphabet) return std::nullopt;
    bits = (bits << 6U) | sextet;
  }
  const std::uint32_t unused = padding == 0 ? 0U : bits & ((1U << (8U * padding)) - 1U);
  if (unused != 0) return std::nullopt;
  return bits;
}

}  // namespace

void appendBase64(std::string_view bytes, std::string& out) {
  out.reserve(out.size() + (bytes.size() + 2) / 3 * 4);
  for (std::size_t i = 0; i < bytes.size(); i += 3) {
    const std::uint32_t bits =
        (byteAt(bytes, i) << 16U) | (byteAt(bytes, i + 1) << 8U) | byteAt(bytes, i + 2);
    out += alphabet[(bits >> 18U) & 63U];
    out += alphabet[(bits >> 12U) & 63U];
    out += i + 1 < bytes.size() ? alphabet[(bits >> 6U) & 63U] : '=';
    out += i + 2 < bytes.size() ? alphabet[bits & 63U] : '=';
  }
}

std::optional<connectivity::buffer_t> decodeBase64(std::string_view text) {
  if (text.size() % 4 != 0) return std::nullopt;
  const std::size_t padding = paddingOf(text);
  const std::size_t length = text.size() / 4 * 3 - padding;
  connectivity::buffer_t buffer(qor_allocate_buffer(length));
  char* out = buffer.data();
  std::size_t written = 0;
  for (std::size_t i = 0; i < text.size(); i += 4) {
    const auto bits = groupBits(text.substr(i, 4), i + 4 == text.size() ? padding : 0);
    if (!bits) return std::nullopt;
    for (unsigned shift = 16; written < length; shift -= 8) {
      out[written++] = static_cast<char>((*bits >> shift) & 0xFFU);
      if (shift == 0) break;
    }
  }
  return buffer;
}

}  // namespace host
