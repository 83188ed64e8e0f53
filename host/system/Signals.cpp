#include "host/system/Signals.hpp"

#include <cerrno>
#include <pthread.h>
#include <sys/signalfd.h>
#include <system_error>
#include <unistd.h>

namespace host {

Signals::Signals() {
  sigemptyset(&_signals);
  sigaddset(&_signals, SIGINT);
  sigaddset(&_signals, SIGTERM);
  _descriptor = ::signalfd(-1, &_signals, SFD_CLOEXEC | SFD_NONBLOCK);
  if (_descriptor < 0) throw std::system_error(errno, std::generic_category(), "signalfd");
  ::pthread_sigmask(SIG_BLOCK, &_signals, &_maskBefore);
  struct sigaction ignore {};
  ignore.sa_handler = SIG_IGN;
  ::sigaction(SIGPIPE, &ignore, &_pipeActionBefore);
}

Signals::~Signals() {
  while (take()) {
  }
  ::sigaction(SIGPIPE, &_pipeActionBefore, nullptr);
  ::pthread_sigmask(SIG_SETMASK, &_maskBefore, nullptr);
  ::close(_descriptor);
}

bool Signals::take() const noexcept {
  signalfd_siginfo about{};
  return ::read(_descriptor, &about, sizeof about) == static_cast<ssize_t>(sizeof about);
}

void Signals::letThrough() noexcept { ::pthread_sigmask(SIG_UNBLOCK, &_signals, nullptr); }

}  // namespace host
