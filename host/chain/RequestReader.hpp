// The input side of a chain: reads lines from a file or a pipe and parses them, on a thread of its
// own, ahead of who hands the messages over. It waits where a BoundedQueue of them is full.
//
// A whole line that was read is handed on, also after stop().
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "host/chain/AnswerWriter.hpp"
#include "host/chain/BoundedQueue.hpp"
#include "host/chain/ChainLog.hpp"
#include "host/chain/InputLines.hpp"
#include "host/messages/MessageReader.hpp"
#include "host/messages/PayloadCodec.hpp"

namespace host {

// A valid line of the input.
struct ParsedLine {
  std::uint64_t number;
  MessageReader::Line content;
  std::uint64_t payloadBytes;  // of a request
};

class RequestReader {
 public:
  // `answers`, where lines are reported that are no valid messages, and `log` are borrowed.
  RequestReader(Codec codec, bool assignRequestIds, AnswerWriter& answers, ChainLog& log,
                QueueBounds bounds = {})
      : _answers(answers), _log(log), _queue(bounds), _reader(codec, assignRequestIds) {}

  // Opens the input; std::runtime_error as InputLines has it.
  void open(const std::string& path) { _input.emplace(path); }
  // The reading thread: returns at the end of the input, after stop() and after an error of the
  // input, which is told. REQUIRES: open().
  void run() noexcept;

  // For one thread: what has been parsed, as BoundedQueue::take() has it.
  bool take(std::vector<ParsedLine>& lines, std::size_t most) { return _queue.take(lines, most); }

  // Reads no further. From any thread. REQUIRES: open().
  void stop() noexcept { _input->stop(); }
  // Reads no further, and does not wait for who takes: lines without room are dropped. From any
  // thread. REQUIRES: open().
  void abandon() noexcept;

  // From any thread. Nothing is known before open().
  const std::optional<InputLines>& input() const noexcept { return _input; }
  // Requests that were read and found no room after abandon().
  std::uint64_t dropped() const noexcept { return _dropped.load(); }
  QueueWaiting waiting() const { return _queue.waiting(); }

 private:
  void handle(const InputLines::Line& line);
  void queue(MessageReader::Line&& content, const InputLines::Line& line);

  AnswerWriter& _answers;
  ChainLog& _log;
  std::optional<InputLines> _input;
  BoundedQueue<ParsedLine> _queue;
  MessageReader _reader;  // used by the reading thread
  std::atomic<std::uint64_t> _dropped{0};
};

}  // namespace host
