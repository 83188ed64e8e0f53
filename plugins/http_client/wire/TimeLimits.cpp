#include "plugins/http_client/wire/TimeLimits.hpp"

#include <algorithm>

namespace connectivity::plugins {

TimeLimits::Deadline TimeLimits::endOfWait() const noexcept {
  const Deadline end = Clock::now() + _timeout;
  return _deadline ? std::min(end, *_deadline) : end;
}

void TimeLimits::check() const {
  if (_deadline && Clock::now() >= *_deadline) throw DeadlineExceeded();
}

TimeLimits::Shortened::Shortened(TimeLimits& limits, std::chrono::milliseconds most) noexcept
    : _limits(limits), _before(limits._deadline) {
  const Deadline end = Clock::now() + most;
  limits._deadline = _before ? std::min(end, *_before) : end;
}

}  // namespace connectivity::plugins
