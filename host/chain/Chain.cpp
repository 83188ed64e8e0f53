#include "host/chain/Chain.hpp"

#include <algorithm>
#include <chrono>
#include <exception>
#include <memory>
#include <numeric>
#include <thread>
#include <utility>

#include "host/chain/FlushMessage.hpp"

namespace host {

using connectivity::data_t;
using connectivity::Message;

namespace {

// What is sent at once. Large enough to make the hand-over cheap, small enough for answers to come
// while the next batch is read.
constexpr std::size_t maxBatch = 128;
constexpr std::size_t keptLineCapacity = std::size_t{1024} * 1024;

}  // namespace

Chain::Chain(const ChainDefinition& definition, StatusTable& status, HostLog& log)
    : _definition(definition),
      _log(log),
      _library(definition.transport.text,
               definition.library ? std::optional(definition.library->text) : std::nullopt),
      _reader(definition.codec, definition.assignRequestIds),
      _writer(definition.codec, _lines) {
  _transport.emplace(_library, definition, status, static_cast<ResponseReceiver&>(*this));
}

Chain::~Chain() {
  _ending.store(true);
  _transport.reset();
  _output.reset();
}

void Chain::start() {
  _input.emplace(_definition.input.text);
  _output.emplace(
      _definition.output.text, [this](const std::string& reason) { onOutputFailure(reason); },
      [this] { _log.showProgress({}); });
  _transport->start();
  if (_input->isTerminal()) {
    _log.info("chain " + _definition.id +
              ": reading requests from the terminal, one a line; Ctrl-D ends the input");
  }
}

void Chain::run() {
  const auto begin = std::chrono::steady_clock::now();
  std::thread reader([this] { readInput(); });
  _outstanding.waitUntilNone();
  if (!_transport->shutdown()) fail("the transport could not be shut down (see the log)");
  // A reader that is still there waits for the transport's queue, which has ended, or for input.
  _input->stop();
  reader.join();
  _output->close();
  const orrery::AutoMutex lock(_writerMutex);
  _statistics.duration = std::chrono::steady_clock::now() - begin;
}

void Chain::stopReading() noexcept { _input->stop(); }

void Chain::drop() noexcept {
  _transport->hostShutsDown();
  _input->stop();
  _output->abandon();
  _outstanding.abandon();
}

ChainCounts Chain::counts() const {
  ChainCounts counts;
  counts.sent = _sent.load();
  counts.answered = _answered.load();
  counts.failed = _failed.load();
  counts.invalid = _invalid.load();
  if (_input) {
    counts.bytesRead = _input->bytesRead();
    counts.bytesInAll = _input->size();
  }
  return counts;
}

ChainStatistics Chain::statistics() const {
  const orrery::AutoMutex lock(_writerMutex);
  ChainStatistics statistics = _statistics;
  statistics.requestBytes = _requestBytes.load();
  return statistics;
}

// --- Towards the transport -----------------------------------------------------------------------

void Chain::readInput() noexcept {
  try {
    readLines();
  } catch (const std::exception& error) {
    fail(error.what());
  }
  _outstanding.endOfInput();
}

void Chain::readLines() {
  while (_input->wait()) {
    while (auto line = _input->next()) {
      handle(*line);
      if (_batch.size() < maxBatch) continue;
      sendBatch();
      if (_input->stopped()) return;
    }
    sendBatch();
  }
}

void Chain::handle(const InputLines::Line& line) {
  if (line.tooLong) return reportInvalid(line.number, "the line is too long");
  if (MessageReader::isBlank(line.text)) return;
  try {
    auto read = _reader.read(line.text, line.number);
    if (auto* flush = std::get_if<FlushRequest>(&read)) {
      _batch.push_back(flushMessage(std::move(*flush)));
      _origins.push_back({line.number, true, 0, 0});
    } else {
      queueRequest(std::move(std::get<Message>(read)), line.number);
    }
  } catch (const InvalidLine& error) {
    reportInvalid(line.number, error.what());
  }
}

void Chain::queueRequest(Message&& request, std::uint64_t line) {
  const std::uint64_t key = _answers.keyOfId(request);
  _origins.push_back({line, false, key, payloadBytes(request.payload)});
  _idKeys.push_back(key);
  _batch.push_back(std::move(request));
}

Message Chain::flushMessage(FlushRequest&& flush) {
  if (!_transport->wantsFlushMessages()) {
    throw InvalidLine("the transport takes no flush messages");
  }
  const auto id = std::make_shared<data_t>(std::move(flush.id));
  return makeFlushMessage([this, id] { onFlushReleased(*id); });
}

void Chain::sendBatch() {
  if (_batch.empty()) return;
  if (const auto level = _room.levelFor(_batch.size())) _outstanding.waitUntilAtMost(*level);
  handOver(std::chrono::steady_clock::now());
  _room.handedOver();
}

void Chain::batchWaits(bool waiting) noexcept {
  if (!waiting) return;
  const std::uint64_t outstanding = _outstanding.count();
  _room.waits(outstanding - std::min<std::uint64_t>(outstanding, _batch.size()));
}

void Chain::handOver(Outstanding::TimePoint now) {
  _sent.fetch_add(_idKeys.size());
  _requestBytes.fetch_add(
      std::accumulate(_origins.begin(), _origins.end(), std::uint64_t{0},
                      [](std::uint64_t sum, const Origin& origin) { return sum + origin.bytes; }));
  _outstanding.add(_batch.size(), _idKeys, now);
  for (std::size_t first = 0; first < _batch.size();) {
    _transport->send(_batch.data() + first, _batch.data() + _batch.size());
    first = firstNotTaken(first);
    if (first == _batch.size()) break;
    takeBack(first);
    if (!_transport->isHostShuttingDown()) {
      reportInvalid(_origins[first].line, "the transport refused the message (see the log)");
    }
    ++first;
  }
  _batch.clear();
  _origins.clear();
  _idKeys.clear();
}

bool Chain::wasTaken(std::size_t index) const {
  if (_origins[index].isFlush) return !holdsFlushObject(_batch[index]);
  return _batch[index].metadata.table() == nullptr;
}

std::size_t Chain::firstNotTaken(std::size_t from) const {
  while (from < _batch.size() && wasTaken(from)) ++from;
  return from;
}

// Undoes the counting of a message that the transport left.
void Chain::takeBack(std::size_t index) {
  if (_origins[index].isFlush) {
    withdrawFlushMessage(_batch[index]);
    _outstanding.remove(1);
  } else {
    _sent.fetch_sub(1);
    _requestBytes.fetch_sub(_origins[index].bytes);
    _outstanding.withdraw(_origins[index].idKey);
  }
}

void Chain::reportInvalid(std::uint64_t line, const std::string& text) {
  // The first one tells what is wrong; the others stand in the output.
  if (_invalid.fetch_add(1) == 0) {
    _log.warn("chain " + _definition.id + ": input line " + std::to_string(line) +
              " is not a valid message: " + text +
              " (each such line is answered with an error line)");
  }
  write([&](MessageWriter& writer) { writer.writeError(line, text); }, false);
}

// --- From the transport --------------------------------------------------------------------------

void Chain::receive(const Message& response) {
  const auto now = std::chrono::steady_clock::now();
  const AnswerStatus status = _answers.statusOf(response);
  _answered.fetch_add(1);
  if (!status.isSuccess()) _failed.fetch_add(1);
  try {
    const auto answered = _outstanding.answer(_answers.keyOfId(response));
    const orrery::AutoMutex lock(_writerMutex);
    record(response, status, answered, now);
    _lines.clear();
    _writer.writeResponse(response);
    appendLines(answered.isLast);
  } catch (const std::exception& error) {
    fail(error.what());
  }
  // Only now, when it is written: nobody ends the output before.
  _outstanding.remove(1);
}

void Chain::record(const Message& response, const AnswerStatus& status,
                   const Outstanding::Answered& answered, Outstanding::TimePoint now) {
  ++_statistics.answers[static_cast<std::size_t>(status.statusClass())];
  if (status.isTransportError) ++_statistics.withoutResponse;
  _statistics.responseBytes += payloadBytes(response.payload);
  if (answered.handedOver) _statistics.latencies.record(now - *answered.handedOver);
}

void Chain::onFlushReleased(const data_t& id) noexcept {
  try {
    // While the host or the transport ends, a flush object may go although its barrier still
    // stands.
    const bool complete = !_ending.load() && !_transport->isHostShuttingDown();
    if (complete) write([&](MessageWriter& writer) { writer.writeFlushed(id); }, true);
  } catch (const std::exception& error) {
    fail(error.what());
  }
  _outstanding.remove(1);
}

template <typename Write>
void Chain::write(Write&& write, bool flushNow) {
  const orrery::AutoMutex lock(_writerMutex);
  _lines.clear();
  std::forward<Write>(write)(_writer);
  appendLines(flushNow);
}

void Chain::appendLines(bool flushNow) {
  _output->append(_lines, flushNow);
  if (_lines.capacity() > keptLineCapacity) _lines.shrink_to_fit();
}

void Chain::onOutputFailure(const std::string& reason) {
  fail(reason);
  if (!_ending.load()) drop();
}

void Chain::fail(const std::string& reason) {
  const orrery::AutoMutex lock(_failureMutex);
  if (_failure.empty()) _failure = reason;
  _log.error("chain " + _definition.id + ": " + reason);
}

}  // namespace host
