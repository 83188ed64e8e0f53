#include "host/system/Wakeup.hpp"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <poll.h>
#include <sys/eventfd.h>
#include <system_error>
#include <unistd.h>

#include <climits>

namespace host {

Wakeup::Wakeup() : _descriptor(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
  if (_descriptor < 0) throw std::system_error(errno, std::generic_category(), "eventfd");
}

Wakeup::~Wakeup() { ::close(_descriptor); }

void Wakeup::set() const noexcept {
  const std::uint64_t one = 1;
  // It fails only where the count is at its end, and then the flag is set.
  [[maybe_unused]] const ssize_t written = ::write(_descriptor, &one, sizeof one);
}

bool Wakeup::isSet() const noexcept {
  pollfd waiting{_descriptor, POLLIN, 0};
  return ::poll(&waiting, 1, 0) > 0;
}

bool Wakeup::waitUntil(std::chrono::steady_clock::time_point until) const noexcept {
  using std::chrono::ceil;
  using std::chrono::milliseconds;
  while (!isSet()) {
    const auto left = ceil<milliseconds>(until - std::chrono::steady_clock::now()).count();
    if (left <= 0) return false;
    pollfd waiting{_descriptor, POLLIN, 0};
    ::poll(&waiting, 1, static_cast<int>(std::min<std::int64_t>(left, INT_MAX)));
  }
  return true;
}

}  // namespace host
