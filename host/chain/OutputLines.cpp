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

OutputLines::OutputLines(const std::string& path, BeforeTerminal beforeTerminal)
    : _path(path == "-" ? "standard output" : path),
      _beforeTerminal(std::move(beforeTerminal)),
      _descriptor(openForWriting(path)),
      _isTerminal(::isatty(_descriptor) != 0),
      _mayBlock(!isRegularFile(_descriptor)) {}

OutputLines::~OutputLines() {
  if (_descriptor != STDOUT_FILENO) ::close(_descriptor);
}

std::size_t OutputLines::write(std::string_view lines) {
  std::string_view rest = lines;
  if (_isTerminal && !rest.empty()) _beforeTerminal();
  while (!rest.empty() && _failure.empty()) {
    if (_mayBlock && !waitUntilWritable()) break;
    // A pipe that is writable takes PIPE_BUF bytes without waiting.
    const std::size_t length =
        _mayBlock ? std::min<std::size_t>(rest.size(), PIPE_BUF) : rest.size();
    const ssize_t written = ::write(_descriptor, rest.data(), length);
    if (written > 0) {
      rest.remove_prefix(static_cast<std::size_t>(written));
    } else if (errno != EINTR && errno != EAGAIN) {
      _failure = "cannot write " + _path + ": " + std::strerror(errno);
    }
  }
  return lines.size() - rest.size();
}

// False where the reader does not take anything and waiting for it has been given up.
bool OutputLines::waitUntilWritable() const {
  std::array<pollfd, 2> waiting{{{_descriptor, POLLOUT, 0}, {_abandoned.descriptor(), POLLIN, 0}}};
  while (::poll(waiting.data(), waiting.size(), -1) < 0 && errno == EINTR) {
  }
  return waiting[0].revents != 0;
}

}  // namespace host
