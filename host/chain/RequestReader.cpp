#include "host/chain/RequestReader.hpp"

#include <algorithm>
#include <exception>
#include <utility>
#include <variant>

#include "host/chain/ChainStatistics.hpp"

namespace host {

using connectivity::Message;

namespace {

// Lines that come together are handed on together, up to so many.
constexpr std::size_t handedOnAtOnce = 128;

}  // namespace

void RequestReader::run() noexcept {
  try {
    while (_input->wait()) {
      while (const auto line = _input->next()) {
        handle(*line);
        if (line->number % handedOnAtOnce == 0) _queue.wakeTaker();
      }
      _queue.wakeTaker();
    }
  } catch (const std::exception& error) {
    _log.fail(error.what());
  }
  _queue.close();
}

void RequestReader::abandon() noexcept {
  stop();
  _queue.abandon();
}

void RequestReader::handle(const InputLines::Line& line) {
  if (line.tooLong) return _answers.invalidLine(line.number, "the line is too long");
  if (MessageReader::isBlank(line.text)) return;
  try {
    queue(_reader.read(line.text, line.number), line);
  } catch (const InvalidLine& error) {
    _answers.invalidLine(line.number, error.what());
  }
}

void RequestReader::queue(MessageReader::Line&& content, const InputLines::Line& line) {
  const auto* request = std::get_if<Message>(&content);
  const bool isRequest = request != nullptr;
  const std::uint64_t bytes = isRequest ? payloadBytes(request->payload) : 0;
  // The line's length stands for what a payload of many small values takes.
  const std::uint64_t room = std::max<std::uint64_t>(bytes, line.text.size());
  if (!_queue.put({line.number, std::move(content), bytes}, room, Wake::Later) && isRequest) {
    _dropped.fetch_add(1);
  }
}

}  // namespace host
