#include "tests/support/Descriptor.hpp"

#include <arpa/inet.h>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <system_error>

namespace test_support {

namespace {

[[noreturn]] void failed(const char* what) {
  throw std::system_error(errno, std::generic_category(), what);
}

sockaddr_in loopback(int port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<std::uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return address;
}

sockaddr* general(sockaddr_in& address) { return reinterpret_cast<sockaddr*>(&address); }

}  // namespace

Descriptor listenOnLoopback(int port) {
  Descriptor listener(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (!listener.valid()) failed("socket");
  const int on = 1;
  ::setsockopt(listener.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  auto address = loopback(port);
  if (::bind(listener.get(), general(address), sizeof address) != 0) failed("bind");
  if (::listen(listener.get(), 128) != 0) failed("listen");
  return listener;
}

Descriptor listenOnLoopback6() {
  Descriptor listener(::socket(AF_INET6, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_in6 address{};
  address.sin6_family = AF_INET6;
  address.sin6_addr = in6addr_loopback;
  auto* const where = reinterpret_cast<sockaddr*>(&address);
  if (!listener.valid() || ::bind(listener.get(), where, sizeof address) != 0) return {};
  if (::listen(listener.get(), 128) != 0) failed("listen");
  return listener;
}

int localPort(const Descriptor& socket) {
  sockaddr_in6 address{};  // the port stands where an IPv4 address has it
  socklen_t length = sizeof address;
  auto* const where = reinterpret_cast<sockaddr*>(&address);
  if (::getsockname(socket.get(), where, &length) != 0) failed("getsockname");
  return ntohs(address.sin6_port);
}

Descriptor connectToLoopback(int port) {
  Descriptor client(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (!client.valid()) failed("socket");
  auto address = loopback(port);
  if (::connect(client.get(), general(address), sizeof address) != 0) client.reset();
  if (client.valid()) {
    const int on = 1;
    ::setsockopt(client.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  }
  return client;
}

int unusedPort() { return localPort(listenOnLoopback()); }

bool writeAll(int socket, std::string_view bytes) {
  while (!bytes.empty()) {
    const auto sent = ::send(socket, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (sent < 0 && errno == EINTR) continue;
    if (sent <= 0) return false;
    bytes.remove_prefix(static_cast<std::size_t>(sent));
  }
  return true;
}

void blockSigpipe() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGPIPE);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
}

}  // namespace test_support
