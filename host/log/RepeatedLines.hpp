// Keeps a log from filling with the same lines: which lines to write, and when to write how often
// one has come again.
//
// A line is held back where it repeats the line that came just before it, or, at warning level and
// above, one of the last few lines (a failing server makes each worker write its own), as long as
// that was written within `window`. Held back, it is counted. The counts are written when another
// line comes, before that line; at the latest when a window is over; and at the end:
//
//   last line repeated 41 times
//   repeated 17 times: Caught exception processing a request: ...
//
// What has come again once only is written as it came. So no line is lost, none appears before one
// that came earlier except among those that are held back, and times never run backwards. Used by
// one thread at a time.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace host {

struct LogLine {
  std::string category;
  int level = 0;
  std::string text;
  std::chrono::system_clock::time_point time;
};

class RepeatedLines {
 public:
  using TimePoint = std::chrono::system_clock::time_point;
  static constexpr std::chrono::seconds window{5};
  static constexpr std::size_t remembered = 8;

  // A line has come: what is to be written now.
  std::vector<LogLine> take(const LogLine& line);
  // What is to be written although no line has come: counts whose window is over.
  std::vector<LogLine> overdue(TimePoint now);
  // Everything that is held back.
  std::vector<LogLine> rest(TimePoint now);

 private:
  // A line that was written not long ago.
  struct Recent {
    LogLine line;     // as it came last
    TimePoint since;  // the beginning of its window
    std::uint64_t heldBack = 0;
  };

  Recent* find(const LogLine& line);
  LogLine release(Recent& recent, TimePoint now);

  std::vector<Recent> _recents;  // the oldest first
  LogLine _lastCome;
  LogLine _lastWritten;
};

}  // namespace host
