#include "host/chain/InputLines.hpp"

#include <array>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <stdexcept>
#include <sys/stat.h>
#include <unistd.h>

namespace host {

namespace {

constexpr std::size_t readSize = std::size_t{64} * 1024;

[[noreturn]] void throwReadError(const std::string& path) {
  const std::string name = path == "-" ? "standard input" : path;
  throw std::runtime_error("cannot read " + name + ": " + std::strerror(errno));
}

// A FIFO is opened without a writer: wait() waits for one, and stop() ends that.
int openForReading(const std::string& path) {
  if (path == "-") return STDIN_FILENO;
  const int descriptor = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  if (descriptor < 0) throwReadError(path);
  ::fcntl(descriptor, F_SETFL, ::fcntl(descriptor, F_GETFL) & ~O_NONBLOCK);
  return descriptor;
}

std::optional<std::uint64_t> sizeOf(int descriptor) {
  struct stat about {};
  if (::fstat(descriptor, &about) != 0 || !S_ISREG(about.st_mode)) return std::nullopt;
  return static_cast<std::uint64_t>(about.st_size);
}

}  // namespace

InputLines::InputLines(const std::string& path)
    : _path(path), _descriptor(openForReading(path)), _size(sizeOf(_descriptor)) {
  _buffer.resize(readSize);
}

InputLines::~InputLines() {
  if (_descriptor != STDIN_FILENO) ::close(_descriptor);
}

bool InputLines::isTerminal() const noexcept { return ::isatty(_descriptor) != 0; }

bool InputLines::wait() {
  for (;;) {
    if (std::memchr(_buffer.data() + _scanned, '\n', _end - _scanned) != nullptr) return true;
    _scanned = _end;
    if (_atEnd) return _begin < _end || _discarding;
    if (stopped()) return false;
    if (_discarding || _end - _begin > maxLineLength) discardOverlong();
    if (!readMore()) return false;
  }
}

std::optional<InputLines::Line> InputLines::next() {
  const char* data = _buffer.data();
  const void* feed = std::memchr(data + _scanned, '\n', _end - _scanned);
  if (feed == nullptr && !(_atEnd && (_begin < _end || _discarding))) return std::nullopt;
  const std::size_t length =
      feed == nullptr ? _end : static_cast<std::size_t>(static_cast<const char*>(feed) - data);
  Line line{{data + _begin, length - _begin}, ++_number, _discarding};
  if (_discarding) line.text = {};
  _discarding = false;
  _begin = _scanned = feed == nullptr ? _end : length + 1;
  return line;
}

// Forgets what was read of a line that has become too long.
void InputLines::discardOverlong() {
  _discarding = true;
  _begin = _scanned = _end = 0;
  _buffer.resize(readSize);
  _buffer.shrink_to_fit();
}

// False when reading was stopped while waiting.
bool InputLines::readMore() {
  std::array<pollfd, 2> waiting{{{_descriptor, POLLIN, 0}, {_stop.descriptor(), POLLIN, 0}}};
  if (::poll(waiting.data(), waiting.size(), -1) < 0 && errno != EINTR) throwReadError(_path);
  if (waiting[1].revents != 0) return false;
  if (_begin > 0) {
    std::memmove(_buffer.data(), _buffer.data() + _begin, _end - _begin);
    _end -= _begin;
    _scanned -= _begin;
    _begin = 0;
  }
  if (_buffer.size() - _end < readSize) _buffer.resize(_buffer.size() * 2);
  const ssize_t count = ::read(_descriptor, _buffer.data() + _end, readSize);
  if (count < 0 && errno != EINTR && errno != EAGAIN) throwReadError(_path);
  if (count > 0) {
    _end += static_cast<std::size_t>(count);
    _bytesRead.fetch_add(static_cast<std::uint64_t>(count), std::memory_order_relaxed);
  }
  if (count == 0) _atEnd = true;
  return true;
}

}  // namespace host
