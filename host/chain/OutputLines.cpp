#include "host/chain/OutputLines.hpp"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <stdexcept>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

#include <climits>

namespace host {

namespace {

int openForWriting(const std::string& path) {
  if (path == "-") return STDOUT_FILENO;
  const int descriptor = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
  if (descriptor < 0) {
    throw std::runtime_error("cannot write " + path + ": " + std::strerror(errno));
  }
  return descriptor;
}

bool isRegularFile(int descriptor) {
  struct stat about {};
  return ::fstat(descriptor, &about) == 0 && S_ISREG(about.st_mode);
}

}  // namespace

OutputLines::OutputLines(const std::string& path, OnFailure onFailure,
                         BeforeTerminal beforeTerminal)
    : _path(path == "-" ? "standard output" : path),
      _onFailure(std::move(onFailure)),
      _beforeTerminal(std::move(beforeTerminal)),
      _descriptor(openForWriting(path)),
      _isTerminal(::isatty(_descriptor) != 0),
      _mayBlock(!isRegularFile(_descriptor)),
      _flusher([this] { flushRegularly(); }) {}

OutputLines::~OutputLines() {
  close();
  if (_descriptor != STDOUT_FILENO) ::close(_descriptor);
}

void OutputLines::append(std::string_view lines, bool flushNow) {
  const orrery::AutoMutex lock(_mutex);
  if (_failed) return;
  const bool wasEmpty = _buffer.empty();
  _buffer += lines;
  if (flushNow || _buffer.size() >= bufferSize) {
    writeBuffer();
  } else if (wasEmpty) {
    _changed.broadcast();
  }
}

void OutputLines::close() {
  {
    const orrery::AutoMutex lock(_mutex);
    if (_closing) return;
    _closing = true;
    writeBuffer();
    _changed.broadcast();
  }
  _flusher.join();
}

void OutputLines::flushRegularly() {
  const orrery::AutoMutex lock(_mutex);
  while (!_closing) {
    if (_buffer.empty()) {
      _changed.wait();
    } else {
      _changed.timedWait(flushIntervalMilliseconds);
      writeBuffer();
    }
  }
}

void OutputLines::writeBuffer() {
  std::string_view rest = _buffer;
  if (_isTerminal && !rest.empty()) _beforeTerminal();
  while (!rest.empty() && !_failed) {
    if (_mayBlock && !waitUntilWritable()) break;
    // A pipe that is writable takes PIPE_BUF bytes without waiting.
    const std::size_t length =
        _mayBlock ? std::min<std::size_t>(rest.size(), PIPE_BUF) : rest.size();
    const ssize_t written = ::write(_descriptor, rest.data(), length);
    if (written > 0) {
      rest.remove_prefix(static_cast<std::size_t>(written));
    } else if (errno != EINTR && errno != EAGAIN) {
      fail(std::strerror(errno));
    }
  }
  _buffer.clear();
  if (_buffer.capacity() > 16 * bufferSize) _buffer.shrink_to_fit();
}

// False where the reader does not take anything and waiting for it has been given up.
bool OutputLines::waitUntilWritable() const {
  std::array<pollfd, 2> waiting{{{_descriptor, POLLOUT, 0}, {_abandoned.descriptor(), POLLIN, 0}}};
  while (::poll(waiting.data(), waiting.size(), -1) < 0 && errno == EINTR) {
  }
  return waiting[0].revents != 0;
}

void OutputLines::fail(const std::string& reason) {
  _failed = true;
  _onFailure("cannot write " + _path + ": " + reason);
}

}  // namespace host
