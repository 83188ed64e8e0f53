#include "plugins/http_client/wire/SocketCalls.hpp"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <limits>
#include <poll.h>

#include <Poco/Exception.h>
#include <Poco/Net/SocketImpl.h>

namespace connectivity::plugins {

namespace {

// Makes Poco's table of error numbers and exceptions usable.
struct SocketErrors : Poco::Net::SocketImpl {
  using Poco::Net::SocketImpl::error;
};

int millisecondsUntil(Deadline deadline) noexcept {
  const auto left =
      std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
  constexpr long long most = std::numeric_limits<int>::max();
  return static_cast<int>(std::clamp<long long>(left.count(), 0, most));
}

}  // namespace

Deadline deadlineAfter(const Poco::Timespan& timeout) {
  return std::chrono::steady_clock::now() + std::chrono::microseconds(timeout.totalMicroseconds());
}

void setBlocking(int fd, bool blocking) {
  const int flags = ::fcntl(fd, F_GETFL);
  const int wanted = blocking ? flags & ~O_NONBLOCK : flags | O_NONBLOCK;
  if (flags < 0 || ::fcntl(fd, F_SETFL, wanted) < 0) socketFailure(errno, "fcntl");
}

bool awaitSocket(int fd, short events, Deadline deadline) {
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
  SocketErrors::error(error, text);
  throw Poco::IOException(text, error);  // for a number that Poco's table takes for no error
}

void sendFailure(int error) {
  if (error == EAGAIN || error == EWOULDBLOCK) {
    throw Poco::TimeoutException("The server took no data within the time-out");
  }
  socketFailure(error, "sending to the server");
}

void receiveFailure(int error) {
  if (error == EAGAIN || error == EWOULDBLOCK) {
    throw Poco::TimeoutException("The server sent nothing within the time-out");
  }
  socketFailure(error, "receiving from the server");
}

}  // namespace connectivity::plugins
