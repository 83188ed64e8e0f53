// Content codings for tests, by the library's streams: an opinion of its own beside the code under
// test, which has none of them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <sstream>
#include <string>

#include <Poco/DeflatingStream.h>
#include <Poco/InflatingStream.h>
#include <Poco/StreamCopier.h>

namespace test_support {

namespace coders_details {

inline std::string deflate(const std::string& text, Poco::DeflatingStreamBuf::StreamType type,
                           int level) {
  std::ostringstream out;
  Poco::DeflatingOutputStream coder(out, type, level);
  // Also where there is nothing to write: without that the stream would not write its frame either.
  coder.write(text.data(), static_cast<std::streamsize>(text.size()));
  coder.close();
  return out.str();
}

inline std::string inflate(const std::string& bytes, Poco::InflatingStreamBuf::StreamType type) {
  std::istringstream in(bytes);
  Poco::InflatingInputStream decoder(in, type);
  std::string text;
  Poco::StreamCopier::copyToString(decoder, text);
  return decoder.bad() ? "what cannot be decoded" : text;
}

}  // namespace coders_details

// `level` is zlib's, 0 to 9.
inline std::string gzip(const std::string& text, int level = 6) {
  return coders_details::deflate(text, Poco::DeflatingStreamBuf::STREAM_GZIP, level);
}
inline std::string zlib(const std::string& text, int level = 6) {
  return coders_details::deflate(text, Poco::DeflatingStreamBuf::STREAM_ZLIB, level);
}
// Deflate's bytes without zlib's format around them.
inline std::string rawDeflate(const std::string& text, int level = 6) {
  const std::string framed = zlib(text, level);
  constexpr std::size_t header = 2;
  constexpr std::size_t checksum = 4;
  return framed.substr(header, framed.size() - header - checksum);
}

// What the bytes mean; "what cannot be decoded" where they are corrupt.
inline std::string gunzip(const std::string& bytes) {
  return coders_details::inflate(bytes, Poco::InflatingStreamBuf::STREAM_GZIP);
}
inline std::string unzlib(const std::string& bytes) {
  return coders_details::inflate(bytes, Poco::InflatingStreamBuf::STREAM_ZLIB);
}

// Contents of no byte.
inline const std::string emptyGzip(
    "\x1F\x8B\x08\x00\x00\x00\x00\x00\x00\x03\x03\x00\0\0\0\0\0\0\0\0", 20);
inline const std::string emptyZlib("\x78\x9C\x03\x00\x00\x00\x00\x01", 8);

// Printable bytes that cannot be compressed away, the same in every run.
inline std::string noise(std::size_t count) {
  std::string text;
  text.reserve(count);
  std::uint32_t state = 1;
  while (text.size() < count) {
    state = state * 1664525U + 1013904223U;
    text.push_back(static_cast<char>('!' + (state >> 24U) % 90U));
  }
  return text;
}

}  // namespace test_support
