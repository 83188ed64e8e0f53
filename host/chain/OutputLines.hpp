// A file or a pipe that lines are written to.
//
// Where the reader does not take them, write() waits: that is how a slow reader slows down the
// chain.
#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <string_view>

#include "host/system/Wakeup.hpp"

namespace host {

// Used by one thread, except for abandon().
class OutputLines {
 public:
  // Called before something is written to a terminal, so that nothing else stands on its last line.
  using BeforeTerminal = std::function<void()>;

  // "-" is standard output; a file is created or replaced. std::runtime_error "cannot write <path>:
  // <reason>".
  OutputLines(const std::string& path, BeforeTerminal beforeTerminal);
  ~OutputLines();
  OutputLines(const OutputLines&) = delete;
  OutputLines& operator=(const OutputLines&) = delete;

  // Writes whole lines, and says how many bytes of them went out: fewer than all after a failure,
  // and where abandon() ended a wait. The rest is lost.
  std::size_t write(std::string_view lines);
  // Why nothing can be written any more: "cannot write <path>: <reason>". Empty where it can.
  const std::string& failure() const noexcept { return _failure; }

  // Ends every wait for the reader, now and later: what it does not take at once is lost. From any
  // thread.
  void abandon() noexcept { _abandoned.set(); }

 private:
  bool waitUntilWritable() const;

  const std::string _path;
  const BeforeTerminal _beforeTerminal;
  const int _descriptor;
  const bool _isTerminal;
  const bool _mayBlock;  // a pipe, a terminal or a socket, whose reader may be slow
  Wakeup _abandoned;
  std::string _failure;
};

}  // namespace host
