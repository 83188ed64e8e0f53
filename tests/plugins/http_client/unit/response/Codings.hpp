// Coded bodies, and bytes that do not compress.
#pragma once

#include <cstddef>
#include <random>
#include <sstream>
#include <string>

#include <Poco/DeflatingStream.h>

namespace connectivity::plugins {

inline std::string coded(const std::string& text, Poco::DeflatingStreamBuf::StreamType type) {
  std::ostringstream out;
  Poco::DeflatingOutputStream deflating(out, type);
  // Without a byte written the stream would not write its frame either.
  deflating.write(text.data(), static_cast<std::streamsize>(text.size()));
  deflating.close();
  return out.str();
}
inline std::string gzip(const std::string& text) {
  return coded(text, Poco::DeflatingStreamBuf::STREAM_GZIP);
}
inline std::string zlib(const std::string& text) {
  return coded(text, Poco::DeflatingStreamBuf::STREAM_ZLIB);
}

inline const std::string emptyGzip(
    "\x1F\x8B\x08\x00\x00\x00\x00\x00\x00\x03\x03\x00\0\0\0\0\0\0\0\0", 20);
inline const std::string emptyZlib("\x78\x9C\x03\x00\x00\x00\x00\x01", 8);

inline std::string noise(std::size_t count) {
  std::mt19937 generator(17);
  std::string text(count, '\0');
  for (char& c : text) c = static_cast<char>(generator());
  return text;
}

// Deflate's bytes without zlib's format around them.
inline std::string rawDeflate(const std::string& text) {
  const std::string framed = zlib(text);
  constexpr std::size_t header = 2;
  constexpr std::size_t checksum = 4;
  return framed.substr(header, framed.size() - header - checksum);
}

}  // namespace connectivity::plugins
