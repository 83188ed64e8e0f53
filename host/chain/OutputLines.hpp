// Lines written to a file or a pipe, buffered but never for long.
//
// What is appended reaches the reader at once where the caller asks for it, when the buffer is
// full, or after `flushInterval`. Where the reader does not take it, append() waits: that is how a
// slow reader slows down the chain.
#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <string_view>
#include <thread>

#include "host/system/Wakeup.hpp"
#include "orrery/Mutex.hpp"

namespace host {

// Any thread may call anything, except that close() is called once, with the last append() behind.
class OutputLines {
 public:
  static constexpr int flushIntervalMilliseconds = 20;
  static constexpr std::size_t bufferSize = std::size_t{64} * 1024;

  // `onFailure` is called once, with the reason, on the thread whose write failed; it must not call
  // back.
  using OnFailure = std::function<void(const std::string& reason)>;

  // Called before something is written to a terminal, so that nothing else stands on its last line.
  using BeforeTerminal = std::function<void()>;

  // "-" is standard output; a file is created or replaced. std::runtime_error "cannot write <path>:
  // <reason>".
  OutputLines(const std::string& path, OnFailure onFailure, BeforeTerminal beforeTerminal);
  // Closes.
  ~OutputLines();
  OutputLines(const OutputLines&) = delete;
  OutputLines& operator=(const OutputLines&) = delete;

  // Adds whole lines. After a failure, and where abandon() ended a wait, they are lost.
  void append(std::string_view lines, bool flushNow) ORRERY_EXCLUDES(_mutex);
  // Ends every wait for the reader, now and later: what it does not take at once is lost.
  void abandon() noexcept { _abandoned.set(); }
  // Writes what is buffered.
  void close() ORRERY_EXCLUDES(_mutex);

 private:
  void flushRegularly() ORRERY_EXCLUDES(_mutex);
  void writeBuffer() ORRERY_REQUIRES(_mutex);
  bool waitUntilWritable() const;
  void fail(const std::string& reason) ORRERY_REQUIRES(_mutex);

  const std::string _path;
  const OnFailure _onFailure;
  const BeforeTerminal _beforeTerminal;
  const int _descriptor;
  const bool _isTerminal;
  const bool _mayBlock;  // a pipe, a terminal or a socket, whose reader may be slow
  Wakeup _abandoned;
  orrery::Mutex _mutex{"OutputLines"};
  orrery::Condition _changed{_mutex};
  std::string _buffer ORRERY_GUARDED_BY(_mutex);
  bool _failed ORRERY_GUARDED_BY(_mutex) = false;
  bool _closing ORRERY_GUARDED_BY(_mutex) = false;
  std::thread _flusher;  // last: it uses all of the above
};

}  // namespace host
