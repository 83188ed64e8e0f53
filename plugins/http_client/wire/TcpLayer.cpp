#include "plugins/http_client/wire/TcpLayer.hpp"

#include <array>
#include <cctype>
#include <cerrno>
#include <exception>
#include <poll.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <utility>

#include <Poco/Exception.h>
#include <Poco/Net/SocketAddress.h>

namespace connectivity::plugins {

namespace {

using Poco::Net::SocketAddress;

bool wouldBlock(int error) noexcept { return error == EAGAIN || error == EWOULDBLOCK; }

// So many pieces leave in one call.
constexpr std::size_t maxPieces = 64;
// And so many bytes. While the server reads as fast as we send, the system's call would go on to
// the end of the body, and nobody would look for an early answer.
constexpr std::size_t turnBytes = 262144;

iovec toVector(std::string_view piece) noexcept {
  // sendmsg only reads what the vector points to.
  return {const_cast<char*>(piece.data()), piece.size()};  // NOLINT(*-const-cast)
}

}  // namespace

std::string sentenceStart(std::string phrase) {
  if (!phrase.empty()) phrase.front() = static_cast<char>(std::toupper(phrase.front()));
  return phrase;
}

TcpLayer::TcpLayer(std::string host, std::uint16_t port, Resolver& resolver,
                   const TimeLimits& limits)
    : _host(std::move(host)), _port(port), _resolver(resolver), _limits(limits) {}

std::string TcpLayer::shown(const SocketAddress& address) const {
  return _peer == theServer ? address.toString() : _peer + " at " + address.toString();
}

void TcpLayer::connect() {
  const TimeLimits::Deadline end = _limits.endOfWait();
  const auto addresses =
      _resolver.addressesOf(_host, _port, _peer == theServer ? _host : _peer, _limits);
  std::exception_ptr first;
  auto left = static_cast<int>(addresses.size());
  for (const SocketAddress& address : addresses) {
    const auto now = TimeLimits::Clock::now();
    // An address that does not answer leaves their share of the time to those behind it.
    const TimeLimits::Deadline share = now + (end - now) / left--;
    try {
      _socket = connectTo(address, share);
      return;
    } catch (const Poco::Exception&) {
      if (!first) first = std::current_exception();
    }
  }
  _limits.check();
  std::rethrow_exception(first);
}

Socket TcpLayer::connectTo(const SocketAddress& address, TimeLimits::Deadline end) const {
  Socket socket(::socket(address.af(), SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (!socket.isOpen()) socketFailure(errno, shown(address));
  const int fd = socket.descriptor();
  if (::connect(fd, address.addr(), address.length()) != 0) {
    if (errno != EINPROGRESS && errno != EINTR) socketFailure(errno, shown(address));
    if (!awaitSocket(fd, POLLOUT, end)) {
      throw Poco::TimeoutException("connect timed out", shown(address));
    }
    if (const int failure = takeSocketError(fd)) socketFailure(failure, shown(address));
  }
  setBlocking(fd, true);
  setReceiveTimeout(fd, _limits.timeout());
  setNoDelay(fd);
  return socket;
}

std::size_t TcpLayer::send(std::span<const std::string_view> pieces) {
  std::array<iovec, maxPieces> vectors;  // NOLINT(*-member-init): filled as far as it is used
  std::size_t count = 0;
  std::size_t bytes = 0;
  for (const std::string_view piece : pieces) {
    if (count == maxPieces || bytes == turnBytes) break;
    vectors[count++] = toVector(piece.substr(0, turnBytes - bytes));
    bytes += vectors[count - 1].iov_len;
  }
  msghdr message{};
  message.msg_iov = vectors.data();
  message.msg_iovlen = count;
  ssize_t sent = 0;
  do {
    sent = ::sendmsg(_socket.descriptor(), &message, MSG_NOSIGNAL | MSG_DONTWAIT);
  } while (sent < 0 && errno == EINTR);
  if (sent < 0 && wouldBlock(errno)) return 0;
  if (sent < 0) socketFailure(errno, "sending to " + _peer);
  return static_cast<std::size_t>(sent);
}

std::optional<std::size_t> TcpLayer::receive(char* data, std::size_t size, Wait wait) {
  // With a deadline the socket's own time-out would be too long.
  const bool timed = wait == Wait::Yes && _limits.hasDeadline();
  const int flags = wait == Wait::No || timed ? MSG_DONTWAIT : 0;
  // Where something always comes, nobody waits, and no wait ends at the deadline.
  if (wait == Wait::No) _limits.check();
  for (;;) {
    if (timed) awaitOrThrow(POLLIN, " sent nothing within the time-out");
    const ssize_t count = ::recv(_socket.descriptor(), data, size, flags);
    if (count >= 0) return static_cast<std::size_t>(count);
    if (errno == EINTR || (timed && wouldBlock(errno))) continue;
    if (!wouldBlock(errno)) socketFailure(errno, "receiving from " + _peer);
    if (wait == Wait::No) return std::nullopt;
    throw Poco::TimeoutException(sentenceStart(_peer) + " sent nothing within the time-out");
  }
}

void TcpLayer::awaitEither() {
  awaitOrThrow(POLLIN | POLLOUT, " took no data within the time-out");
}

void TcpLayer::awaitRoom() { awaitOrThrow(POLLOUT, " took no data within the time-out"); }

void TcpLayer::awaitOrThrow(short events, const char* otherwise) const {
  _limits.check();
  if (await(events, _limits.endOfWait())) return;
  _limits.check();
  throw Poco::TimeoutException(sentenceStart(_peer) + otherwise);
}

bool TcpLayer::await(short events, TimeLimits::Deadline end) const {
  return awaitSocket(_socket.descriptor(), events, end);
}

}  // namespace connectivity::plugins
