// The bytes of a connection that were received and not used yet.
//
// Belongs to one session and its thread. Pointers into it hold until the next fill() or clear().
#pragma once

#include <cstddef>
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
  void attach(ByteSource* source) noexcept;

  bool empty() const noexcept { return _begin == _end; }
  std::size_t size() const noexcept { return _end - _begin; }
  const char* data() const noexcept { return _bytes.data() + _begin; }
  char* data() noexcept { return _bytes.data() + _begin; }
  std::string_view view() const noexcept { return {data(), size()}; }
  // REQUIRES: count <= size().
  void consume(std::size_t count) noexcept;
  // Receives more behind what is held, which stays in one piece. False at the end of the stream.
  bool fill();
  // Moves up to `size` bytes out: what is held, else what one receive into `data` yields. 0 at the
  // end of the stream.
  std::size_t read(char* data, std::size_t size);

 private:
  void makeRoom();

  ByteSource* _source = nullptr;
  std::vector<char> _bytes;
  std::size_t _begin = 0;
  std::size_t _end = 0;
};

}  // namespace connectivity::plugins
