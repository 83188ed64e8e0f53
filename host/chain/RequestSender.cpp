#include "host/chain/RequestSender.hpp"

#include <algorithm>
#include <chrono>
#include <exception>
#include <numeric>
#include <utility>
#include <variant>

#include "host/chain/FlushMessage.hpp"

namespace host {

using connectivity::Message;

namespace {

// What is sent at once. Large enough to make the hand-over cheap, small enough for answers to come
// while the next batch is handed over.
constexpr std::size_t maxBatch = 128;

}  // namespace

void RequestSender::run() noexcept {
  try {
    sendAll();
  } catch (const std::exception& error) {
    _ways.log.fail(error.what());
    _ways.reader.abandon();
  }
  _ways.outstanding.endOfInput();
}

void RequestSender::sendAll() {
  while (_ways.reader.take(_lines, maxBatch)) {
    if (_ways.transport.isHostShuttingDown()) {
      drop(_lines);
      continue;
    }
    for (ParsedLine& line : _lines) addToBatch(std::move(line));
    sendBatch();
  }
}

void RequestSender::drop(const std::vector<ParsedLine>& lines) {
  for (const ParsedLine& line : lines) {
    if (std::holds_alternative<Message>(line.content)) _dropped.fetch_add(1);
  }
}

void RequestSender::addToBatch(ParsedLine&& line) {
  if (auto* flush = std::get_if<FlushRequest>(&line.content)) {
    return addFlush(std::move(*flush), line.number);
  }
  auto& request = std::get<Message>(line.content);
  const std::uint64_t key = _ids.keyOfId(request);
  _origins.push_back({line.number, false, key, line.payloadBytes});
  _idKeys.push_back(key);
  _batch.push_back(std::move(request));
}

void RequestSender::addFlush(FlushRequest&& flush, std::uint64_t line) {
  if (!_ways.transport.wantsFlushMessages()) {
    return _ways.answers.invalidLine(line, "the transport takes no flush messages");
  }
  _batch.push_back(_makeFlush(std::move(flush)));
  _origins.push_back({line, true, 0, 0});
}

void RequestSender::sendBatch() {
  if (_batch.empty()) return;
  if (const auto level = _room.levelFor(_batch.size())) _ways.outstanding.waitUntilAtMost(*level);
  handOver(std::chrono::steady_clock::now());
  _room.handedOver();
}

void RequestSender::batchWaits(bool waiting) noexcept {
  if (!waiting) return;
  const std::uint64_t outstanding = _ways.outstanding.count();
  _room.waits(outstanding - std::min<std::uint64_t>(outstanding, _batch.size()));
}

void RequestSender::handOver(Outstanding::TimePoint now) {
  _sent.fetch_add(_idKeys.size());
  _requestBytes.fetch_add(
      std::accumulate(_origins.begin(), _origins.end(), std::uint64_t{0},
                      [](std::uint64_t sum, const Origin& origin) { return sum + origin.bytes; }));
  _ways.outstanding.add(_batch.size(), _idKeys, now);
  for (std::size_t first = 0; first < _batch.size();) {
    _ways.transport.send(_batch.data() + first, _batch.data() + _batch.size());
    first = firstNotTaken(first);
    if (first == _batch.size()) break;
    takeBack(first);
    ++first;
  }
  _batch.clear();
  _origins.clear();
  _idKeys.clear();
}

bool RequestSender::wasTaken(std::size_t index) const {
  if (_origins[index].isFlush) return !holdsFlushObject(_batch[index]);
  return _batch[index].metadata.table() == nullptr;
}

std::size_t RequestSender::firstNotTaken(std::size_t from) const {
  while (from < _batch.size() && wasTaken(from)) ++from;
  return from;
}

// Undoes the counting of a message that the transport left.
void RequestSender::takeBack(std::size_t index) {
  const Origin& origin = _origins[index];
  const bool shuttingDown = _ways.transport.isHostShuttingDown();
  if (origin.isFlush) {
    withdrawFlushMessage(_batch[index]);
    _ways.outstanding.remove(1);
  } else {
    if (shuttingDown) _dropped.fetch_add(1);
    _sent.fetch_sub(1);
    _requestBytes.fetch_sub(origin.bytes);
    _ways.outstanding.withdraw(origin.idKey);
  }
  if (!shuttingDown) {
    _ways.answers.invalidLine(origin.line, "the transport refused the message (see the log)");
  }
}

}  // namespace host
