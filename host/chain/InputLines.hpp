// Lines of a file or a pipe, as they arrive.
//
// A reader asks for what is there and goes on at once, so that a line that comes slowly is not held
// back for the next:
//
//   while (lines.wait()) {
//     while (auto line = lines.next()) { ... }
//   }
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "host/system/Wakeup.hpp"

namespace host {

// Used by one thread, except for stop(), bytesRead() and size().
class InputLines {
 public:
  // A longer line is not kept: its text is empty and `tooLong` is set.
  static constexpr std::size_t maxLineLength = std::size_t{256} * 1024 * 1024;

  struct Line {
    std::string_view text;  // without its line feed; valid until the next call of wait()
    std::uint64_t number;   // from 1
    bool tooLong;
  };

  // "-" is standard input. std::runtime_error "cannot read <path>: <reason>".
  explicit InputLines(const std::string& path);
  ~InputLines();
  InputLines(const InputLines&) = delete;
  InputLines& operator=(const InputLines&) = delete;

  // Waits until there is a line to take; false at the end of the input, and after stop() where no
  // whole line is left of what was read. The text after the last line feed is a line. Read errors
  // are std::runtime_error "cannot read <path>:
  // ...".
  bool wait();
  // The next line that has arrived, or nothing.
  std::optional<Line> next();

  // Reads no further: what was read up to the last line feed can still be taken. From any thread.
  void stop() noexcept { _stop.set(); }
  bool stopped() const noexcept { return _stop.isSet(); }

  bool isTerminal() const noexcept;
  // The length of the input in bytes, where the system knows it.
  std::optional<std::uint64_t> size() const noexcept { return _size; }
  // How many bytes have been read.
  std::uint64_t bytesRead() const noexcept { return _bytesRead.load(std::memory_order_relaxed); }

 private:
  bool readMore();
  void discardOverlong();

  const std::string _path;
  int _descriptor;
  std::optional<std::uint64_t> _size;
  Wakeup _stop;
  std::atomic<std::uint64_t> _bytesRead{0};
  std::vector<char> _buffer;
  std::size_t _begin = 0;    // of what was not taken
  std::size_t _end = 0;      // of what was read
  std::size_t _scanned = 0;  // up to here there is no line feed after _begin
  std::uint64_t _number = 0;
  bool _discarding = false;  // inside a line that is too long
  bool _atEnd = false;
};

}  // namespace host
