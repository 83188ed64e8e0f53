#include "host/chain/AnswerWriter.hpp"

#include <exception>
#include <thread>
#include <utility>

namespace host {

using connectivity::data_t;
using connectivity::Message;

namespace {

constexpr std::size_t takenAtOnce = 128;
constexpr std::size_t keptCapacity = 16 * AnswerWriter::writeSize;

}  // namespace

AnswerWriter::AnswerWriter(Codec codec, Outstanding& outstanding, ChainLog& log,
                           OnFailure onFailure, QueueBounds bounds)
    : _outstanding(outstanding),
      _log(log),
      _onFailure(std::move(onFailure)),
      _queue(bounds),
      _writer(codec, _lines) {}

void AnswerWriter::open(const std::string& path) {
  _output.emplace(path, [this] { _log.hideProgress(); });
}

void AnswerWriter::abandon() noexcept {
  _queue.abandon();
  _output->abandon();
}

// --- What is delivered ---------------------------------------------------------------------------

void AnswerWriter::answer(Message& response) {
  const auto now = std::chrono::steady_clock::now();
  const std::uint64_t bytes = payloadBytes(response.payload);
  Item item = Answer{std::move(response), bytes, now};
  _queue.put(item, bytes);
  if (auto* done = std::get_if<Answer>(&item)) response = std::move(done->message);
}

void AnswerWriter::invalidLine(std::uint64_t line, std::string text) {
  // The first one tells what is wrong; the others stand in the output.
  if (_invalid.fetch_add(1) == 0) {
    _log.warn("input line " + std::to_string(line) + " is not a valid message: " + text +
              " (each such line is answered with an error line)");
  }
  _queue.put(InvalidLine{line, std::move(text)}, 0);
}

void AnswerWriter::flushed(data_t&& id) { _queue.put(Flushed{std::move(id)}, 0); }

// --- The writing thread --------------------------------------------------------------------------

void AnswerWriter::run() noexcept {
  const auto begin = std::chrono::steady_clock::now();
  std::vector<Item> items;
  while (_queue.take(items, takenAtOnce)) {
    for (Item& item : items) render(item);
    _queue.giveBack(items);
    if (!_queue.isEmpty()) continue;
    write();
    if (_outstanding.count() > 0) std::this_thread::sleep_for(restBetweenWrites);
  }
  _statistics.duration = std::chrono::steady_clock::now() - begin;
  _ended.set();
}

void AnswerWriter::render(Item& item) {
  // What takes long to render does not hold up what stands before it, nor is it kept afterwards.
  Answer* const large = largeAnswer(item);
  if (large != nullptr) write();
  const std::size_t before = _lines.size();
  try {
    std::visit([this](const auto& line) { renderLine(line); }, item);
  } catch (const std::exception& error) {
    _lines.resize(before);
    _log.fail(error.what());
  }
  if (large != nullptr) large->message = {};
  if (_lines.size() >= writeSize) write();
}

AnswerWriter::Answer* AnswerWriter::largeAnswer(Item& item) {
  auto* const answer = std::get_if<Answer>(&item);
  return answer != nullptr && answer->bytes >= writeSize ? answer : nullptr;
}

void AnswerWriter::renderLine(const Answer& answer) {
  const auto handedOver = _outstanding.takeHandoverTime(_reader.keyOfId(answer.message));
  _writer.writeResponse(answer.message);
  Rendered rendered{_lines.size(), _reader.statusOf(answer.message), answer.bytes, std::nullopt};
  if (handedOver) rendered.latency = answer.deliveredAt - *handedOver;
  _rendered.push_back(rendered);
}

void AnswerWriter::renderLine(const InvalidLine& line) { _writer.writeError(line.line, line.text); }

void AnswerWriter::renderLine(const Flushed& flush) { _writer.writeFlushed(flush.id); }

void AnswerWriter::write() {
  const std::size_t written = _output->write(_lines);
  for (const Rendered& answer : _rendered) {
    if (answer.end <= written) count(answer);
  }
  _rendered.clear();
  _lines.clear();
  if (_lines.capacity() > keptCapacity) _lines.shrink_to_fit();
  if (_output->failure().empty() || std::exchange(_failureTold, true)) return;
  _log.fail(_output->failure());
  _onFailure();
}

void AnswerWriter::count(const Rendered& answer) {
  ++_statistics.answers[static_cast<std::size_t>(answer.status.statusClass())];
  if (answer.status.isTransportError) ++_statistics.withoutResponse;
  _statistics.responseBytes += answer.bytes;
  if (answer.latency) _statistics.latencies.record(*answer.latency);
  if (!answer.status.isSuccess()) _failed.fetch_add(1);
  _answered.fetch_add(1);
}

}  // namespace host
