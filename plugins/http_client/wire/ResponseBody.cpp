#include "plugins/http_client/wire/ResponseBody.hpp"

#include <algorithm>
#include <limits>

#include <Poco/Exception.h>
#include <Poco/Net/SSLException.h>

#include "plugins/http_client/text/Ascii.hpp"

namespace connectivity::plugins {

namespace {

constexpr std::int64_t largestSize = std::numeric_limits<std::int64_t>::max();
// A chunk's size with its extensions; the trailer fields together.
constexpr std::size_t maxChunkLine = 16384;
constexpr std::size_t maxTrailers = 65536;
// Less than this is not worth a receive of its own: it is read ahead into the input's buffer.
constexpr std::size_t directReadFrom = 1024;

bool isControl(char c) noexcept { return isAsciiControl(c) && c != '\t'; }

// The size in "1a2B ; name=value"; nothing where the line is malformed or the size beyond 63 bits.
std::optional<std::int64_t> chunkSize(std::string_view line) {
  std::int64_t size = 0;
  std::size_t at = 0;
  for (; at < line.size() && hexDigit(line[at]) >= 0; ++at) {
    if (size > (largestSize >> 4)) return std::nullopt;
    size = (size << 4) | hexDigit(line[at]);
  }
  if (at == 0) return std::nullopt;
  const std::size_t rest = line.find_first_not_of(" \t", at);
  if (rest == std::string_view::npos) return size;
  const std::string_view extension = line.substr(rest);
  if (extension.front() != ';' || std::any_of(extension.begin(), extension.end(), isControl)) {
    return std::nullopt;
  }
  return size;
}

}  // namespace

bool BodyBuffer::more() {
  if (_state != State::Reading) return false;
  if (_remaining > 0) return true;
  if (_framing == Framing::Chunked) return nextChunk();
  _state = State::Complete;
  return false;
}

BodyBuffer::int_type BodyBuffer::underflow() {
  settle();
  if (!more() || (_input.empty() && !fillInput())) return traits_type::eof();
  const auto held = std::min(_remaining, static_cast<std::int64_t>(_input.size()));
  setg(_input.data(), _input.data(), _input.data() + held);
  return traits_type::to_int_type(*gptr());
}

std::streamsize BodyBuffer::xsgetn(char* into, std::streamsize count) {
  settle();
  std::streamsize done = 0;
  while (done < count && more()) {
    const auto wanted = std::min<std::int64_t>(_remaining, count - done);
    const std::size_t read = readPiece(into + done, static_cast<std::size_t>(wanted));
    if (read == 0) break;
    done += static_cast<std::streamsize>(read);
  }
  return done;
}

// A large piece goes straight into the caller's memory.
std::size_t BodyBuffer::readPiece(char* into, std::size_t count) {
  if (_input.empty() && count < directReadFrom && !fillInput()) return 0;
  const std::size_t read = received([&] { return _input.read(into, count); });
  taken(read);
  return read;
}

bool BodyBuffer::fillInput() {
  return received([&] { return std::size_t{_input.fill()}; }) > 0;
}

// What `receive` returns; at 0 the body ends here. A TLS connection that ended without saying so
// has cut the body short where its end was announced; else nobody knows, and it is a failure.
template <typename Receive>
std::size_t BodyBuffer::received(Receive&& receive) {
  try {
    const std::size_t count = receive();
    if (count > 0) return count;
  } catch (const Poco::Net::SSLConnectionUnexpectedlyClosedException& closed) {
    if (_framing == Framing::UntilClose) {
      _failure = closed.displayText();
      _state = State::Failed;
      throw;
    }
  } catch (const Poco::Exception& failure) {
    _failure = failure.displayText();
    _state = State::Failed;
    throw;
  } catch (const std::exception& failure) {
    _failure = failure.what();
    _state = State::Failed;
    throw;
  }
  if (_framing == Framing::UntilClose) {
    _state = State::Complete;
  } else {
    breakOff("The server ended the connection within the response body");
  }
  return 0;
}

bool BodyBuffer::nextChunk() {
  if (_chunkEndExpected) {
    const auto end = peekLine(2);
    if (!end) return false;
    if (!end->text.empty()) return breakOff("A chunk of the response is longer than its size");
    _input.consume(end->size);
    _chunkEndExpected = false;
  }
  const auto line = peekLine(maxChunkLine);
  if (!line) return false;
  const auto size = chunkSize(line->text);
  if (!size) return breakOff("A chunk of the response has a malformed size");
  _input.consume(line->size);
  if (*size == 0) return readTrailers();
  _remaining = *size;
  _chunkEndExpected = true;
  return true;
}

// The trailer fields are read past: nobody asks for them.
bool BodyBuffer::readTrailers() {
  for (std::size_t left = maxTrailers;;) {
    const auto line = peekLine(left);
    if (!line) return false;
    const bool last = line->text.empty();
    _input.consume(line->size);
    if (last) break;
    left -= line->size;
  }
  _state = State::Complete;
  return false;
}

// The next line of the chunks' framing, at most `bound` bytes with its end. It stays in the input.
// Nothing where the body is broken off.
std::optional<HeadLine> BodyBuffer::peekLine(std::size_t bound) {
  std::size_t searched = 0;
  for (;;) {
    const std::string_view held = _input.view().substr(0, bound);
    const HeadLine line = nextHeadLine(held, searched);
    if (line.state == HeadLine::State::Whole) return line;
    if (line.state == HeadLine::State::Malformed || held.size() == bound) {
      breakOff("The response's chunks are malformed");
      return std::nullopt;
    }
    searched = held.size();
    if (!fillInput()) return std::nullopt;
  }
}

// The body ends here, short. Always false.
bool BodyBuffer::breakOff(const char* reason) {
  _failure = reason;
  _state = State::CutShort;
  return false;
}

std::size_t BodyBuffer::skipSome() {
  settle();
  if (!more() || (_input.empty() && !fillInput())) return 0;
  const auto held = std::min(_remaining, static_cast<std::int64_t>(_input.size()));
  _input.consume(static_cast<std::size_t>(held));
  taken(static_cast<std::size_t>(held));
  return static_cast<std::size_t>(held);
}

std::size_t ResponseBody::skipSome() noexcept {
  try {
    return _buffer.skipSome();
  } catch (...) {
    return 0;  // failure() has the reason
  }
}

}  // namespace connectivity::plugins
