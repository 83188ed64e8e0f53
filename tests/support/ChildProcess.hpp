// A program run as a child: its standard input fed, its output collected while it runs, signals
// sent to it. Killed and reaped at the latest by the destructor. Used by one thread.
#pragma once

#include <condition_variable>
#include <mutex>
#include <string>
#include <string_view>
#include <sys/types.h>
#include <thread>
#include <vector>

#include "tests/support/Descriptor.hpp"

namespace test_support {

class ChildProcess {
 public:
  struct Options {
    std::vector<std::string> environment;  // "NAME=value", added to the test's own
    std::vector<int> inherited;            // descriptors passed on under their own numbers
    bool ownGroup = false;  // a process group of its own, which ends as a whole with the object
  };

  // arguments[0] is the program's path. Throws std::system_error where it cannot be run.
  explicit ChildProcess(const std::vector<std::string>& arguments, const Options& options);
  explicit ChildProcess(const std::vector<std::string>& arguments)
      : ChildProcess(arguments, Options()) {}
  ~ChildProcess();
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  // False where the child does not read any more.
  bool write(std::string_view text);
  void closeInput();
  void signal(int number) const;

  // What it wrote so far.
  std::string output() const;
  std::string errors() const;
  // Wait until the text has been written. TimedOut, also where the child ends without it.
  void waitForOutput(std::string_view text, std::size_t howMany = 1) const;
  void waitForErrors(std::string_view text, std::size_t howMany = 1) const;

  // Waits for its end and that of its output: the exit status, or 128 + the signal's number.
  // TimedOut.
  int wait();
  bool running();
  pid_t pid() const noexcept { return _pid; }

 private:
  struct Stream {
    Descriptor pipe;
    std::string text;    // guarded by _mutex
    bool ended = false;  // guarded by _mutex
    std::thread reader;
  };
  void collect(Stream& stream);
  void waitFor(const Stream& stream, std::string_view text, std::size_t howMany) const;
  bool reap(int options);

  const std::string _name;
  const bool _ownsGroup;
  Descriptor _input;
  mutable std::mutex _mutex;
  mutable std::condition_variable _changed;
  Stream _output;
  Stream _errors;
  Descriptor _end;  // becomes readable when the child has ended
  pid_t _pid = -1;
  bool _reaped = false;
  int _status = 0;
};

}  // namespace test_support
