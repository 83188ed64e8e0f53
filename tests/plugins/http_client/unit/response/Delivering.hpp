// Bodies, streams that end in every way, and what is delivered of them under a limit.
#pragma once

#include <algorithm>
#include <cstddef>
#include <sstream>
#include <stdexcept>
#include <streambuf>
#include <string>
#include <utility>
#include <vector>

#include "orrery/Exception.hpp"
#include "plugins/http_client/response/ResponseContent.hpp"

namespace connectivity::plugins {

inline const std::string marker = "[TRUNCATED]";
inline const std::string twoByteCharacter = "\xC3\xA4";
inline const std::string threeByteCharacter = "\xE2\x82\xAC";

inline std::string zeros(std::size_t count) { return std::string(count, '\0'); }

inline std::string deliver(std::istream& body, std::vector<char>& buffer, long long kilobytes,
                           const std::string& policy, const std::string& charset) {
  const unsigned int count = readResponseContent(body, buffer, charset, kilobytes, policy);
  return {buffer.data(), count};
}

inline std::string deliver(const std::string& text, long long kilobytes, const std::string& policy,
                           const std::string& charset = "utf-8") {
  std::istringstream body(text);
  std::vector<char> buffer;
  return deliver(body, buffer, kilobytes, policy, charset);
}

inline std::string failureOf(std::istream& body, long long kilobytes = -1,
                             const std::string& policy = "REJECT") {
  std::vector<char> buffer;
  try {
    deliver(body, buffer, kilobytes, policy, "utf-8");
  } catch (const orrery::StreamException& failure) {
    return failure.what();
  }
  return "no failure";
}

// Bytes that differ from their neighbours and hold no line feed.
inline std::string lineOf(std::size_t count) {
  std::string text(count, '\0');
  for (std::size_t i = 0; i < count; ++i) text[i] = static_cast<char>('a' + i * 7 % 23);
  return text;
}

// "....\n....\n", each line so long with its line feed.
inline std::string linesOf(std::size_t count, std::size_t lineLength) {
  std::string text = lineOf(count);
  for (std::size_t i = lineLength; i <= count; i += lineLength) text[i - 1] = '\n';
  return text;
}

// Hands out its bytes and then throws, as a connection does that is reset.
class BreakingBuffer final : public std::streambuf {
 public:
  explicit BreakingBuffer(std::string bytes) : _bytes(std::move(bytes)) {
    setg(_bytes.data(), _bytes.data(), _bytes.data() + _bytes.size());
  }

 protected:
  int_type underflow() override { throw std::runtime_error("reset"); }

 private:
  std::string _bytes;
};

// The same megabyte for ever.
class EndlessBuffer final : public std::streambuf {
 protected:
  int_type underflow() override {
    setg(_block.data(), _block.data(), _block.data() + _block.size());
    return traits_type::to_int_type(*gptr());
  }

 private:
  std::string _block = std::string(1U << 20U, 'x');
};

// Remembers how far its reader has read into memory, and how far it has skipped.
class WatchedBuffer final : public std::streambuf {
 public:
  explicit WatchedBuffer(std::size_t size) : _left(size) {}
  std::size_t readIntoMemory() const { return _read; }
  std::size_t left() const { return _left; }

 protected:
  std::streamsize xsgetn(char* into, std::streamsize count) override {
    const std::size_t got = std::min(_left, static_cast<std::size_t>(count));
    std::fill_n(into, got, 'x');
    _left -= got;
    _read += got;
    return static_cast<std::streamsize>(got);
  }
  int_type underflow() override { return _left == 0 ? traits_type::eof() : 'x'; }
  int_type uflow() override {
    if (_left == 0) return traits_type::eof();
    --_left;
    return 'x';
  }

 private:
  std::size_t _left;
  std::size_t _read = 0;
};

}  // namespace connectivity::plugins
