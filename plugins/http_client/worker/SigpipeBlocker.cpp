// A blocked signal stays pending for its thread until it is taken.
#include "plugins/http_client/worker/SigpipeBlocker.hpp"

#include <ctime>

namespace connectivity::plugins {

namespace {

sigset_t onlySigpipe() noexcept {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGPIPE);
  return set;
}

bool isSigpipePending() noexcept {
  sigset_t pending;
  sigemptyset(&pending);
  sigpending(&pending);
  return sigismember(&pending, SIGPIPE) == 1;
}

}  // namespace

void blockSigpipe() noexcept {
  const sigset_t set = onlySigpipe();
  pthread_sigmask(SIG_BLOCK, &set, nullptr);
}

SigpipeBlocker::SigpipeBlocker() noexcept : _wasPending(isSigpipePending()) {
  const sigset_t set = onlySigpipe();
  pthread_sigmask(SIG_BLOCK, &set, &_previous);
}

SigpipeBlocker::~SigpipeBlocker() {
  if (!_wasPending && isSigpipePending()) {
    const sigset_t set = onlySigpipe();
    const timespec noWait{};
    sigtimedwait(&set, nullptr, &noWait);
  }
  pthread_sigmask(SIG_SETMASK, &_previous, nullptr);
}

}  // namespace connectivity::plugins
