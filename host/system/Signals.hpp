// SIGINT and SIGTERM as something to wait for, and SIGPIPE out of the way.
#pragma once

#include <csignal>

namespace host {

// Blocks SIGINT and SIGTERM in the calling thread and in every thread that is started afterwards,
// and ignores SIGPIPE in the whole process: a closed pipe is an error of the write. One at a time,
// in the main thread, before other threads. What it changed is restored at its end.
class Signals {
 public:
  Signals();
  ~Signals();
  Signals(const Signals&) = delete;
  Signals& operator=(const Signals&) = delete;

  // Readable while a signal is pending.
  int descriptor() const noexcept { return _descriptor; }
  // Takes a pending signal; false where there is none.
  bool take() const noexcept;
  // From now on SIGINT and SIGTERM end the process.
  void letThrough() noexcept;

 private:
  sigset_t _signals{};
  sigset_t _maskBefore{};
  struct sigaction _pipeActionBefore {};
  int _descriptor = -1;
};

}  // namespace host
