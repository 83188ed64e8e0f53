#include "tests/plugins/http_client/unit/wire/Waits.hpp"

#include <atomic>
#include <ctime>
#include <poll.h>

namespace test_support {

namespace {

std::atomic<bool> nextExpires{false};
std::atomic<int> expired{0};

}  // namespace

void letNextWaitExpire() { nextExpires = true; }

int expiredWait() { return expired; }

}  // namespace test_support

// In place of the C library's.
extern "C" __attribute__((visibility("default"))) int poll(pollfd* entries, nfds_t count,
                                                           int timeout) {
  if (test_support::nextExpires.exchange(false)) {
    test_support::expired = timeout;
    return 0;
  }
  const timespec time{timeout / 1000, timeout % 1000 * 1000000L};
  return ::ppoll(entries, count, timeout < 0 ? nullptr : &time, nullptr);
}
