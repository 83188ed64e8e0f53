#include "host/chain/Chain.hpp"

#include <exception>
#include <optional>
#include <thread>
#include <utility>

#include "host/chain/FlushMessage.hpp"
#include "host/messages/OwnedTexts.hpp"

namespace host {

using connectivity::data_t;
using connectivity::Message;

Chain::Chain(const ChainDefinition& definition, StatusTable& status, HostLog& log)
    : _definition(definition),
      _log(definition.id, log),
      _library(definition.transport.text,
               definition.library ? std::optional(definition.library->text) : std::nullopt),
      _answers(definition.codec, _outstanding, _log, [this] { drop(); }),
      _requests(definition.codec, definition.assignRequestIds, _answers, _log),
      _transport(_library, definition, status, static_cast<ResponseReceiver&>(*this)),
      _sender({_requests, _transport, _outstanding, _answers, _log},
              [this](FlushRequest&& flush) { return flushMessage(std::move(flush)); }) {}

Chain::~Chain() { _ending.store(true); }

void Chain::start() {
  _requests.open(_definition.input.text);
  _answers.open(_definition.output.text);
  _transport.start();
  if (_requests.input()->isTerminal()) {
    _log.info("reading requests from the terminal, one a line; Ctrl-D ends the input");
  }
}

void Chain::run() {
  std::thread writer([this] { _answers.run(); });
  std::thread reader([this] { _requests.run(); });
  std::thread sender([this] { _sender.run(); });
  _outstanding.waitUntilNone();
  // After drop(), the sender may wait for the transport's queue: this ends it.
  if (!_transport.shutdown()) _log.fail("the transport could not be shut down (see the log)");
  sender.join();
  reader.join();
  // All that is delivered has been delivered.
  _answers.close();
  writer.join();
}

void Chain::stopReading() noexcept { _requests.stop(); }

void Chain::drop() noexcept {
  _transport.hostShutsDown();
  _requests.abandon();
  _answers.abandon();
  _outstanding.abandon();
}

bool Chain::giveUp(std::chrono::steady_clock::time_point until) noexcept {
  _answers.close();
  return _answers.waitUntilEnded(until);
}

ChainCounts Chain::counts() const {
  ChainCounts counts;
  counts.sent = _sender.sent();
  counts.answered = _answers.answered();
  counts.failed = _answers.failed();
  counts.invalid = _answers.invalid();
  counts.notSent = _requests.dropped() + _sender.dropped();
  if (const auto& input = _requests.input()) {
    counts.bytesRead = input->bytesRead();
    counts.bytesInAll = input->size();
  }
  return counts;
}

ChainStatistics Chain::statistics() const {
  ChainStatistics statistics = _answers.statistics();
  statistics.requestBytes = _sender.requestBytes();
  return statistics;
}

// --- From the transport --------------------------------------------------------------------------

void Chain::receive(Message& response) {
  try {
    // It is kept for longer than this call.
    ownTexts(response);
    _answers.answer(response);
  } catch (const std::exception& error) {
    _log.fail(error.what());
  }
  // Only now, when it has its place: nobody closes the output's queue before.
  _outstanding.remove(1);
}

void Chain::batchWaits(bool waiting) noexcept { _sender.batchWaits(waiting); }

Message Chain::flushMessage(FlushRequest&& flush) {
  // Shared, since a function object has to be copied.
  const auto id = std::make_shared<data_t>(std::move(flush.id));
  return makeFlushMessage([this, id] { onFlushReleased(std::move(*id)); });
}

void Chain::onFlushReleased(data_t&& id) noexcept {
  try {
    // While the host or the transport ends, a flush object may go although its barrier still
    // stands.
    const bool complete = !_ending.load() && !_transport.isHostShuttingDown();
    if (complete) _answers.flushed(std::move(id));
  } catch (const std::exception& error) {
    _log.fail(error.what());
  }
  _outstanding.remove(1);
}

}  // namespace host
