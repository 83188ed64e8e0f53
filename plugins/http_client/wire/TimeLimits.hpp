// How long a session waits: for each step on the network the time-out, for a whole request its
// deadline.
//
// Belongs to one session and its thread. The layers of the session's connection refer to it.
#pragma once

#include <algorithm>
#include <chrono>
#include <optional>
#include <stdexcept>

namespace connectivity::plugins {

// The request's time is up. what() is "Deadline exceeded".
class DeadlineExceeded final : public std::runtime_error {
 public:
  DeadlineExceeded() : std::runtime_error("Deadline exceeded") {}
};

class TimeLimits {
 public:
  using Clock = std::chrono::steady_clock;
  using Deadline = Clock::time_point;

  explicit TimeLimits(std::chrono::milliseconds timeout) noexcept : _timeout(timeout) {}
  TimeLimits(const TimeLimits&) = delete;
  TimeLimits& operator=(const TimeLimits&) = delete;

  // For the requests from now on; nothing: no deadline.
  void setDeadline(std::optional<Deadline> deadline) noexcept { _deadline = deadline; }
  bool hasDeadline() const noexcept { return _deadline.has_value(); }
  std::chrono::milliseconds timeout() const noexcept { return _timeout; }

  // When a wait that begins now has to end: after the time-out, or at the deadline if that comes
  // first.
  Deadline endOfWait() const noexcept { return sooner(Clock::now() + _timeout); }
  // Throws DeadlineExceeded once the deadline has passed.
  void check() const {
    if (_deadline && Clock::now() >= *_deadline) throw DeadlineExceeded();
  }

  // For its lifetime there is a deadline `most` from now, unless one comes sooner.
  class Shortened {
   public:
    Shortened(TimeLimits& limits, std::chrono::milliseconds most) noexcept
        : _limits(limits), _before(limits._deadline) {
      limits._deadline = limits.sooner(Clock::now() + most);
    }
    ~Shortened() { _limits._deadline = _before; }
    Shortened(const Shortened&) = delete;
    Shortened& operator=(const Shortened&) = delete;

   private:
    TimeLimits& _limits;
    const std::optional<Deadline> _before;
  };

 private:
  Deadline sooner(Deadline end) const noexcept {
    return _deadline ? std::min(end, *_deadline) : end;
  }

  const std::chrono::milliseconds _timeout;
  std::optional<Deadline> _deadline;
};

}  // namespace connectivity::plugins
