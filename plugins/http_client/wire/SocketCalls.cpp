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
#include <system_error>
#include <unistd.h>

#include <Poco/Exception.h>
#include <Poco/Net/NetException.h>

namespace connectivity::plugins {

namespace {

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
  switch (error) {
    case ECONNREFUSED:
      throw Poco::Net::ConnectionRefusedException(text, error);
    case ECONNRESET:
      throw Poco::Net::ConnectionResetException(text, error);
    case ECONNABORTED:
      throw Poco::Net::ConnectionAbortedException(text, error);
    case EPIPE:
      throw Poco::IOException(text + ": broken pipe", error);
    case ETIMEDOUT:
      throw Poco::TimeoutException(text + ": timed out", error);
    default:
      throw Poco::IOException(text + ": " + std::generic_category().message(error), error);
  }
}

}  // namespace connectivity::plugins
