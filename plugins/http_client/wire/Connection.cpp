#include "plugins/http_client/wire/Connection.hpp"

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <exception>
#include <poll.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <vector>

#include <Poco/Exception.h>
#include <Poco/Net/DNS.h>
#include <Poco/Net/HostEntry.h>
#include <Poco/Net/IPAddress.h>
#include <Poco/Net/NetException.h>
#include <Poco/Net/SocketAddress.h>
#include <Poco/Net/StreamSocketImpl.h>

#include "plugins/http_client/wire/SocketCalls.hpp"

namespace connectivity::plugins {

namespace {

using Poco::Net::IPAddress;
using Poco::Net::SocketAddress;
using Poco::Net::StreamSocket;

StreamSocket newSocket(const SocketAddress& address) {
  const int fd = ::socket(address.af(), SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (fd < 0) socketFailure(errno, address.toString());
  return {new Poco::Net::StreamSocketImpl(fd)};
}

StreamSocket connectToAddress(const SocketAddress& address, Deadline deadline) {
  StreamSocket socket = newSocket(address);
  const int fd = descriptor(socket);
  if (::connect(fd, address.addr(), address.length()) != 0) {
    if (errno != EINPROGRESS && errno != EINTR) socketFailure(errno, address.toString());
    if (!awaitSocket(fd, POLLOUT, deadline)) {
      throw Poco::TimeoutException("connect timed out", address.toString());
    }
    if (const int failure = socket.impl()->socketError()) {
      socketFailure(failure, address.toString());
    }
  }
  setBlocking(fd, true);
  return socket;
}

class PlainConnection final : public Connection {
 public:
  explicit PlainConnection(const StreamSocket& socket) : _socket(socket) {}

  void send(std::string_view first, std::string_view second) override {
    std::array<iovec, 2> pieces{toPiece(first), toPiece(second)};
    std::size_t at = pieces[0].iov_len > 0 ? 0 : 1;
    while (at < pieces.size() && pieces[at].iov_len > 0) {
      std::size_t sent = sendPieces(pieces.data() + at, pieces.size() - at);
      for (; at < pieces.size() && sent >= pieces[at].iov_len; ++at) sent -= pieces[at].iov_len;
      if (at == pieces.size()) return;
      pieces[at].iov_base = static_cast<char*>(pieces[at].iov_base) + sent;
      pieces[at].iov_len -= sent;
    }
  }

  std::size_t receive(char* data, std::size_t size) override {
    ssize_t count = 0;
    do {
      count = ::recv(descriptor(_socket), data, size, 0);
    } while (count < 0 && errno == EINTR);
    if (count < 0) receiveFailure(errno);
    return static_cast<std::size_t>(count);
  }

  bool quiet() noexcept override { return !isReadable(descriptor(_socket)); }

 private:
  static iovec toPiece(std::string_view bytes) noexcept {
    // sendmsg only reads what the pieces point to.
    return {const_cast<char*>(bytes.data()), bytes.size()};  // NOLINT(*-const-cast)
  }

  std::size_t sendPieces(iovec* pieces, std::size_t count) {
    msghdr message{};
    message.msg_iov = pieces;
    message.msg_iovlen = count;
    ssize_t sent = 0;
    do {
      sent = ::sendmsg(descriptor(_socket), &message, MSG_NOSIGNAL);
    } while (sent < 0 && errno == EINTR);
    if (sent < 0) sendFailure(errno);
    return static_cast<std::size_t>(sent);
  }

  StreamSocket _socket;
};

}  // namespace

std::vector<SocketAddress> addressesOf(const std::string& host, std::uint16_t port) {
  IPAddress literal;
  if (IPAddress::tryParse(host, literal)) return {SocketAddress(literal, port)};
  std::vector<SocketAddress> addresses;
  const Poco::Net::HostEntry entry = Poco::Net::DNS::hostByName(host);
  for (const IPAddress& address : entry.addresses()) {
    addresses.emplace_back(address, port);
  }
  if (addresses.empty()) throw Poco::Net::NoAddressFoundException(host);
  std::stable_partition(addresses.begin(), addresses.end(), [](const SocketAddress& address) {
    return address.family() == SocketAddress::IPv4;
  });
  return addresses;
}

StreamSocket connectToFirst(const std::vector<SocketAddress>& addresses,
                            const Poco::Timespan& timeout) {
  const Deadline deadline = deadlineAfter(timeout);
  std::exception_ptr first;
  auto left = static_cast<int>(addresses.size());
  for (const SocketAddress& address : addresses) {
    const auto now = std::chrono::steady_clock::now();
    // An address that does not answer leaves their share of the time to those behind it.
    const Deadline share = now + (deadline - now) / left--;
    try {
      StreamSocket socket = connectToAddress(address, share);
      socket.setReceiveTimeout(timeout);
      socket.setSendTimeout(timeout);
      socket.setNoDelay(true);
      return socket;
    } catch (const Poco::Exception&) {
      if (!first) first = std::current_exception();
    }
  }
  std::rethrow_exception(first);
}

std::unique_ptr<Connection> plainConnection(const StreamSocket& socket) {
  return std::make_unique<PlainConnection>(socket);
}

}  // namespace connectivity::plugins
