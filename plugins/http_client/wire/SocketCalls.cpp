#include "plugins/http_client/wire/SocketCalls.hpp"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <limits>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <Poco/Exception.h>
#include <Poco/Net/NetException.h>
#include <Poco/Net/SocketImpl.h>

namespace connectivity::plugins {

namespace {

// Makes Poco's table of error numbers and exceptions usable.
struct SocketErrors : Poco::Net::SocketImpl {
  using Poco::Net::SocketImpl::error;
};

int millisecondsUntil(TimeLimits::Deadline deadline) noexcept {
  const auto left =
      std::chrono::ceil<std::chrono::milliseconds>(deadline - TimeLimits::Clock::now());
  constexpr long long most = std::numeric_limits<int>::max();
  return static_cast<int>(std::clamp<long long>(left.count(), 0, most));
}

}  // namespace

void Socket::close() noexcept {
  if (_descriptor >= 0) ::close(std::exchange(_descriptor, -1));
}

void setBlocking(int fd, bool blocking) {
  const int flags = ::fcntl(fd, F_GETFL);
  const int wanted = blocking ? flags & ~O_NONBLOCK : flags | O_NONBLOCK;
  if (flags < 0 || ::fcntl(fd, F_SETFL, wanted) < 0) socketFailure(errno, "fcntl");
}

void setReceiveTimeout(int fd, std::chrono::milliseconds timeout) {
  timeval value{};
  value.tv_sec = static_cast<decltype(value.tv_sec)>(timeout.count() / 1000);
  value.tv_usec = static_cast<decltype(value.tv_usec)>(timeout.count() % 1000 * 1000);
  if (::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &value, sizeof value) != 0) {
    socketFailure(errno, "SO_RCVTIMEO");
  }
}

void setNoDelay(int fd) {
  const int on = 1;
  if (::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on) != 0) {
    socketFailure(errno, "TCP_NODELAY");
  }
}

int takeSocketError(int fd) noexcept {
  int error = 0;
  socklen_t size = sizeof error;
  return ::getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &size) == 0 ? error : errno;
}

bool awaitSocket(int fd, short events, TimeLimits::Deadline deadline) {
  pollfd entry{fd, events, 0};
  for (;;) {
    const int ready = ::poll(&entry, 1, millisecondsUntil(deadline));
    if (ready > 0) return true;
    if (ready == 0) return false;
    if (errno != EINTR) socketFailure(errno, "poll");
  }
}

bool isReadable(int fd) noexcept {
  pollfd entry{fd, POLLIN, 0};
  return ::poll(&entry, 1, 0) != 0;
}

void socketFailure(int error, const std::string& text) {
  // Poco's table drops the text of these, and with it who is to blame.
  if (error == ECONNRESET) throw Poco::Net::ConnectionResetException(text, error);
  if (error == ECONNABORTED) throw Poco::Net::ConnectionAbortedException(text, error);
  if (error == EPIPE) throw Poco::IOException(text + ": broken pipe", error);
  SocketErrors::error(error, text);
  throw Poco::IOException(text, error);  // for a number that Poco's table takes for no error
}

}  // namespace connectivity::plugins
