// Keeps SIGPIPE from the calling thread: writing to a connection that the peer has closed is then
// an error, and never ends the host's process.
#pragma once

#include <signal.h>  // NOLINT(modernize-deprecated-headers): POSIX

namespace connectivity::plugins {

// For the rest of the thread's life.
void blockSigpipe() noexcept;

// For a scope, on a thread that is not ours. A SIGPIPE that came within the scope is swallowed.
class SigpipeBlocker {
 public:
  SigpipeBlocker() noexcept;
  ~SigpipeBlocker();
  SigpipeBlocker(const SigpipeBlocker&) = delete;
  SigpipeBlocker& operator=(const SigpipeBlocker&) = delete;

 private:
  sigset_t _previous{};
  bool _wasPending = false;
};

}  // namespace connectivity::plugins
