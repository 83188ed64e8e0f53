// What plain and TLS connections share: waiting on a socket, and its failures as exceptions.
#pragma once

#include <chrono>
#include <string>

#include <Poco/Net/StreamSocket.h>
#include <Poco/Timespan.h>

namespace connectivity::plugins {

using Deadline = std::chrono::steady_clock::time_point;

Deadline deadlineAfter(const Poco::Timespan& timeout);

// The socket's file descriptor; -1 once it was closed.
inline int descriptor(const Poco::Net::StreamSocket& socket) noexcept {
  return socket.impl()->sockfd();
}

void setBlocking(int fd, bool blocking);
// Waits for one of poll's events; false at the deadline.
bool awaitSocket(int fd, short events, Deadline deadline);
// Bytes, the peer's end or a failure are waiting. Does not wait itself.
bool isReadable(int fd) noexcept;

// Throw Poco's exception for the error number: Poco::Net::ConnectionResetException and the like. A
// time-out of a send or receive is a Poco::TimeoutException.
[[noreturn]] void socketFailure(int error, const std::string& text);
[[noreturn]] void sendFailure(int error);
[[noreturn]] void receiveFailure(int error);

}  // namespace connectivity::plugins
