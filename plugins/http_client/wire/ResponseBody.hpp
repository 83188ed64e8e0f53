// The body of a response, as a stream that knows where the body ends.
//
// Owned by its session, and valid until the session's next request, its reset, or its end. Belongs
// to the session's thread. Large reads go from the socket straight into the caller's memory.
//
// States of the stream: at the end of the body end-of-file, also where the body was cut short,
// which cutShort() tells. A connection that fails while the body is read (reset, time-out, TLS)
// sets the bad bit; failure() has the reason in both cases.
#pragma once

#include <cstddef>
#include <cstdint>
#include <istream>
#include <limits>
#include <optional>
#include <streambuf>
#include <string>
#include <string_view>

#include "plugins/http_client/wire/Framing.hpp"
#include "plugins/http_client/wire/HeadReader.hpp"
#include "plugins/http_client/wire/InputBuffer.hpp"

namespace connectivity::plugins {

class BodyBuffer final : public std::streambuf {
 public:
  explicit BodyBuffer(InputBuffer& input) noexcept : _input(input) {}

  void begin(Framing framing, std::int64_t length) {
    setg(nullptr, nullptr, nullptr);
    _framing = framing;
    _remaining = framing == Framing::Length ? length : 0;
    if (framing == Framing::UntilClose) _remaining = unbounded;
    _chunkEndExpected = false;
    const bool empty = framing == Framing::None || (framing == Framing::Length && length == 0);
    _state = empty ? State::Complete : State::Reading;
    _failure.clear();
  }
  // The connection is gone: nothing more can be read.
  void abandon() noexcept {
    if (_state == State::Reading) _state = complete() ? State::Complete : State::Failed;
    setg(nullptr, nullptr, nullptr);
  }
  bool complete() const noexcept {
    return _state == State::Complete || (_state == State::Reading && _framing == Framing::Length &&
                                         _remaining == gptr() - eback());
  }
  bool cutShort() const noexcept { return _state == State::CutShort; }
  std::size_t skipSome();
  std::int64_t announcedRest() const noexcept {
    return _framing == Framing::Length ? _remaining : 0;
  }
  const std::string& failure() const noexcept { return _failure; }
  // Ends the get area, which lies over the input: what was used of it leaves the input.
  void settle() noexcept {
    const auto used = static_cast<std::size_t>(gptr() - eback());
    setg(nullptr, nullptr, nullptr);
    _input.consume(used);
    taken(used);
  }

 protected:
  int_type underflow() override;
  std::streamsize xsgetn(char* into, std::streamsize count) override;

 private:
  enum class State { Reading, Complete, CutShort, Failed };

  static constexpr std::int64_t unbounded = std::numeric_limits<std::int64_t>::max();

  void taken(std::size_t count) noexcept {
    if (_framing != Framing::UntilClose) _remaining -= static_cast<std::int64_t>(count);
  }
  // True when bytes of the body are to come; false at its end, whole or cut short.
  bool more();
  std::size_t readPiece(char* into, std::size_t count);
  bool fillInput();
  template <typename Receive>
  std::size_t received(Receive&& receive);
  bool nextChunk();
  bool readTrailers();
  std::optional<HeadLine> peekLine(std::size_t bound);
  bool breakOff(const char* reason);

  InputBuffer& _input;
  Framing _framing = Framing::None;
  State _state = State::Complete;
  std::int64_t _remaining = 0;     // of the body, or of the chunk
  bool _chunkEndExpected = false;  // the line end behind a chunk's data is still to come
  std::string _failure;
};

class ResponseBody final : public std::istream {
 public:
  explicit ResponseBody(InputBuffer& input) : std::istream(nullptr), _buffer(input) {
    rdbuf(&_buffer);
  }

  // For the session: a new response's body; `length` counts under Framing::Length only.
  void begin(Framing framing, std::int64_t length = 0) {
    clear();
    _announcedEmpty = framing == Framing::None || (framing == Framing::Length && length == 0);
    _buffer.begin(framing, length);
  }
  void abandon() noexcept { _buffer.abandon(); }
  // Leaves in the input only what was not read.
  void settle() noexcept { _buffer.settle(); }

  // The whole message has been consumed, with the last chunk and the trailers. Never true for a
  // body that ends with the connection before its end was read.
  bool complete() const noexcept { return _buffer.complete(); }
  // The peer ended before the announced length or the last chunk, or broke the chunks' form.
  bool cutShort() const noexcept { return _buffer.cutShort(); }
  // No body can come: HEAD, 1xx, 204, 304, or a length of 0.
  bool announcedEmpty() const noexcept { return _announcedEmpty; }
  // Waits for bytes, consumes them and says how many; 0 where the body has ended, or has failed.
  std::size_t skipSome() noexcept;
  // Bytes that are announced to come, where a length was announced; else 0. REQUIRES: settle().
  std::int64_t announcedRest() const noexcept { return _buffer.announcedRest(); }
  // Why the body was cut short, or what made the stream bad; else empty.
  const std::string& failure() const noexcept { return _buffer.failure(); }

 private:
  BodyBuffer _buffer;
  bool _announcedEmpty = true;
};

}  // namespace connectivity::plugins
