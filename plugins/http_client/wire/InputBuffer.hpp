// The bytes of a connection that were received and not used yet.
//
// Belongs to one session and its thread. Pointers into it hold until the next fill() or clear().
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <string_view>
#include <vector>

namespace connectivity::plugins {

// Where bytes come from: a connection.
class ByteSource {
 public:
  ByteSource() = default;
  ByteSource(const ByteSource&) = delete;
  ByteSource& operator=(const ByteSource&) = delete;
  virtual ~ByteSource() = default;
  // At least one byte, at most `size`; 0 at the end of the stream. Blocks within the connection's
  // time-out. Throws Poco::TimeoutException, or a Poco::IOException where the connection failed.
  virtual std::size_t receive(char* data, std::size_t size) = 0;
};

class InputBuffer {
 public:
  // What one receive asks for.
  static constexpr std::size_t blockSize = 16384;

  // Forgets what is held and reads from `source` from now on; null for none. Borrowed.
  void attach(ByteSource* source) noexcept {
    _source = source;
    _begin = _end = 0;
  }

  bool empty() const noexcept { return _begin == _end; }
  std::size_t size() const noexcept { return _end - _begin; }
  const char* data() const noexcept { return _bytes.data() + _begin; }
  char* data() noexcept { return _bytes.data() + _begin; }
  std::string_view view() const noexcept { return {data(), size()}; }
  // REQUIRES: count <= size().
  void consume(std::size_t count) noexcept {
    _begin += count;
    if (_begin == _end) _begin = _end = 0;
  }
  // Receives more behind what is held, which stays in one piece. False at the end of the stream.
  bool fill() {
    if (_source == nullptr) return false;
    makeRoom();
    const std::size_t received = _source->receive(_bytes.data() + _end, blockSize);
    _end += received;
    return received > 0;
  }
  // Moves up to `size` bytes out: what is held, else what one receive into `data` yields. 0 at the
  // end of the stream.
  std::size_t read(char* into, std::size_t size) {
    if (empty()) return _source == nullptr ? 0 : _source->receive(into, size);
    const std::size_t count = std::min(size, this->size());
    std::memcpy(into, data(), count);
    consume(count);
    return count;
  }

 private:
  void makeRoom() {
    if (_begin > 0) {
      std::memmove(_bytes.data(), data(), size());
      _end -= _begin;
      _begin = 0;
    }
    if (_bytes.size() < _end + blockSize) _bytes.resize(_end + blockSize);
  }

  ByteSource* _source = nullptr;
  std::vector<char> _bytes;
  std::size_t _begin = 0;
  std::size_t _end = 0;
};

}  // namespace connectivity::plugins
