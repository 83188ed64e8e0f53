// The output side of a chain: from what was delivered to lines in a file or a pipe.
//
// Deliveries put answers here and go on; one thread renders and writes them, in the order in which
// they came. Between the two stand at most as many as a BoundedQueue holds: where the reader of the
// output is slower for longer than that, deliveries wait.
//
// What was rendered is written as soon as nothing more waits to be rendered, and else in pieces of
// `writeSize`. Where more answers are outstanding then, the thread rests for `restBetweenWrites`,
// so that it takes several at a time and costs each delivery no wake-up. An answer counts when its
// line has been written.
#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "connectivity/data_t.hpp"
#include "host/chain/BoundedQueue.hpp"
#include "host/chain/ChainLog.hpp"
#include "host/chain/ChainStatistics.hpp"
#include "host/chain/OutputLines.hpp"
#include "host/chain/Outstanding.hpp"
#include "host/messages/MessageWriter.hpp"
#include "host/messages/PayloadCodec.hpp"
#include "host/system/Wakeup.hpp"

namespace host {

class AnswerWriter {
 public:
  static constexpr std::size_t writeSize = std::size_t{64} * 1024;
  static constexpr std::chrono::milliseconds restBetweenWrites{1};
  // Called once, on the writing thread, after the output's failure has been told.
  using OnFailure = std::function<void()>;

  // `outstanding` and `log` are borrowed.
  AnswerWriter(Codec codec, Outstanding& outstanding, ChainLog& log, OnFailure onFailure,
               QueueBounds bounds = {});

  // Opens the output; std::runtime_error as OutputLines has it.
  void open(const std::string& path);
  // The writing thread: returns after close(), when everything is written. REQUIRES: open(); once.
  void run() noexcept;

  // From any thread: add a line, and wait while there is no room. Lines are lost after close(), and
  // where there is no room after abandon().
  // Leaves in the response's place one that has been rendered, or nothing, to be freed there.
  void answer(connectivity::Message& response);
  // The input's line with that number is no valid message; the first one is told in the log too.
  void invalidLine(std::uint64_t line, std::string text);
  void flushed(connectivity::data_t&& id);

  // Nothing is added any more. From any thread.
  void close() { _queue.close(); }
  // Waits for run() to return; false where it has not by then. From any thread.
  bool waitUntilEnded(std::chrono::steady_clock::time_point until) const noexcept {
    return _ended.waitUntil(until);
  }
  // Ends every wait, now and later: what finds no room, or is not taken by the output's reader, is
  // lost. From any thread. REQUIRES: open().
  void abandon() noexcept;
  // Who waits at the moment.
  QueueWaiting waiting() const { return _queue.waiting(); }

  // Answers whose lines have been written; of these, with a status outside 200 to 399; and lines
  // that were reported as invalid.
  std::uint64_t answered() const noexcept { return _answered.load(); }
  std::uint64_t failed() const noexcept { return _failed.load(); }
  std::uint64_t invalid() const noexcept { return _invalid.load(); }
  // Of the same answers; without what the writer does not know. The duration is that of run().
  // REQUIRES: run() has returned.
  const ChainStatistics& statistics() const noexcept { return _statistics; }

 private:
  using TimePoint = std::chrono::steady_clock::time_point;

  // What becomes a line.
  struct Answer {
    connectivity::Message message;
    std::uint64_t bytes;  // of its payload
    TimePoint deliveredAt;
  };
  struct InvalidLine {
    std::uint64_t line;
    std::string text;
  };
  struct Flushed {
    connectivity::data_t id;
  };
  using Item = std::variant<Answer, InvalidLine, Flushed>;

  // An answer whose line stands in _lines and is not written yet.
  struct Rendered {
    std::size_t end;  // of its line
    AnswerStatus status;
    std::uint64_t bytes;
    std::optional<LatencyHistogram::Duration> latency;
  };

  void render(Item& item);
  static Answer* largeAnswer(Item& item);
  void renderLine(const Answer& answer);
  void renderLine(const InvalidLine& line);
  void renderLine(const Flushed& flush);
  void write();
  void count(const Rendered& answer);

  Outstanding& _outstanding;
  ChainLog& _log;
  const OnFailure _onFailure;
  const AnswerReader _reader;
  BoundedQueue<Item> _queue;
  std::optional<OutputLines> _output;

  // Below: used by the writing thread.
  std::string _lines;
  MessageWriter _writer;
  std::vector<Rendered> _rendered;
  bool _failureTold = false;
  ChainStatistics _statistics;

  std::atomic<std::uint64_t> _answered{0};
  std::atomic<std::uint64_t> _failed{0};
  std::atomic<std::uint64_t> _invalid{0};
  Wakeup _ended;
};

}  // namespace host
