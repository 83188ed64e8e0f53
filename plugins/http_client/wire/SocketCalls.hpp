// System calls on sockets: waiting for one, and their failures as exceptions.
#pragma once

#include <chrono>
#include <string>
#include <utility>

#include "plugins/http_client/wire/TimeLimits.hpp"

namespace connectivity::plugins {

// An open socket, or none; closed with its owner.
class Socket {
 public:
  explicit Socket(int descriptor = -1) noexcept : _descriptor(descriptor) {}
  Socket(Socket&& other) noexcept : _descriptor(std::exchange(other._descriptor, -1)) {}
  Socket& operator=(Socket&& other) noexcept {
    std::swap(_descriptor, other._descriptor);
    return *this;
  }
  Socket(const Socket&) = delete;
  Socket& operator=(const Socket&) = delete;
  ~Socket() { close(); }

  int descriptor() const noexcept { return _descriptor; }
  bool isOpen() const noexcept { return _descriptor >= 0; }
  void close() noexcept;

 private:
  int _descriptor;
};

void setBlocking(int fd, bool blocking);
// Each receive that waits fails with EAGAIN after this long.
void setReceiveTimeout(int fd, std::chrono::milliseconds timeout);
// Whatever is sent leaves at once (no Nagle's algorithm).
void setNoDelay(int fd);
// The failure that a connect in the background ended with; 0 for none.
int takeSocketError(int fd) noexcept;
// Waits for one of poll's events; false at the deadline.
bool awaitSocket(int fd, short events, TimeLimits::Deadline deadline);
// Bytes, the peer's end or a failure are waiting. Does not wait itself.
bool isReadable(int fd) noexcept;

// Throws Poco's exception for the error number, with the number as its code. The message is `text`
// for Poco::Net::ConnectionRefusedException, -ResetException and -AbortedException, and goes on
// with the reason for Poco::TimeoutException ("10.0.0.1:80: timed out") and for every other number,
// a Poco::IOException ("10.0.0.1:80: Network is unreachable").
[[noreturn]] void socketFailure(int error, const std::string& text);

}  // namespace connectivity::plugins
