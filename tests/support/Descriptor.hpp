// Owners of POSIX file descriptors, and the few loopback calls that the servers share.
#pragma once

#include <string_view>
#include <unistd.h>
#include <utility>

namespace test_support {

// Closes what it holds.
class Descriptor {
 public:
  Descriptor() noexcept = default;
  explicit Descriptor(int fd) noexcept : _fd(fd) {}
  Descriptor(Descriptor&& other) noexcept : _fd(std::exchange(other._fd, -1)) {}
  Descriptor& operator=(Descriptor&& other) noexcept {
    reset(std::exchange(other._fd, -1));
    return *this;
  }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  ~Descriptor() { reset(); }

  int get() const noexcept { return _fd; }
  bool valid() const noexcept { return _fd >= 0; }
  int release() noexcept { return std::exchange(_fd, -1); }
  void reset(int fd = -1) noexcept {
    if (_fd >= 0) ::close(_fd);
    _fd = fd;
  }

 private:
  int _fd = -1;
};

// A socket that listens on 127.0.0.1. Port 0: one that the system picks. Throws std::system_error.
Descriptor listenOnLoopback(int port = 0);
// The same on ::1. Invalid where the machine has no IPv6.
Descriptor listenOnLoopback6();
// The port a socket is bound to.
int localPort(const Descriptor& socket);
// A connected socket to 127.0.0.1, invalid where nobody listens.
Descriptor connectToLoopback(int port);
// A port that nobody listens on at the moment of the call.
int unusedPort();
// Writes all of it, without signals; false where the peer is gone.
bool writeAll(int socket, std::string_view bytes);
// Blocks SIGPIPE in the calling thread.
void blockSigpipe();

}  // namespace test_support
