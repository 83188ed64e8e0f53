// One layer of a connection. TCP is the lowest; over it may lie a proxy's tunnel, and TLS. All have
// this one shape, so that a session neither knows nor cares how many there are:
//
//   connect   opens the layers below, then this one
//   send      takes what it can without waiting
//   receive   gives what has come, and waits for it where it is told to
//   await     waits for both directions, or for room to send alone
//   quiet     looks whether the connection can be used again
//   close     closes the layers below too
//
// Used by one thread, that of the session which owns the layers. No function raises SIGPIPE,
// whatever the thread's signal mask says. Waits keep to the session's TimeLimits: they throw
// Poco::TimeoutException after the time-out and DeadlineExceeded at the deadline.
#pragma once

#include <cstddef>
#include <optional>
#include <span>
#include <string_view>

namespace connectivity::plugins {

enum class Wait { No, Yes };

class Layer {
 public:
  Layer() = default;
  Layer(const Layer&) = delete;
  Layer& operator=(const Layer&) = delete;
  virtual ~Layer() = default;

  // Throws a Poco::Exception that says what could not be opened. REQUIRES: closed.
  virtual void connect() = 0;
  // Sends bytes from the front of `pieces`, one behind the other, and returns how many were taken;
  // 0 where it would have to wait. Never waits. What was not taken must be offered again, unchanged
  // but for what may follow it. Throws a Poco::IOException where the peer takes no more; what it
  // has sent can still be received after that.
  virtual std::size_t send(std::span<const std::string_view> pieces) = 0;
  // At least one byte and at most `size`; 0 at the end of the stream. Nothing where none has come
  // and it was told not to wait. Throws a Poco::IOException where the connection failed.
  virtual std::optional<std::size_t> receive(char* data, std::size_t size, Wait wait) = 0;
  // Waits until more can be sent or received. At the end of the stream there is nothing to wait
  // for: it can be received again and again.
  virtual void awaitEither() = 0;
  // Waits until more can be sent.
  virtual void awaitRoom() = 0;
  // Nothing to read: no stray bytes, and the peer has not closed. Never waits. REQUIRES: what was
  // received so far ended with a whole message.
  virtual bool quiet() noexcept = 0;
  virtual void close() noexcept = 0;
};

}  // namespace connectivity::plugins
