#include "host/system/Wakeup.hpp"

#include <cerrno>
#include <cstdint>
#include <poll.h>
#include <sys/eventfd.h>
#include <system_error>
#include <unistd.h>

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

}  // namespace host
