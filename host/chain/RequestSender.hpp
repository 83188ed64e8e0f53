// Hands what a RequestReader has parsed over to the transport, in batches, on a thread of its own.
// It waits where the transport's queue is full.
//
// Latencies begin here: the times of the hand-over are noted in Outstanding.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <utility>
#include <vector>

#include "connectivity/data_t.hpp"
#include "host/chain/AnswerWriter.hpp"
#include "host/chain/ChainLog.hpp"
#include "host/chain/ChainStatistics.hpp"
#include "host/chain/Outstanding.hpp"
#include "host/chain/QueueRoom.hpp"
#include "host/chain/RequestReader.hpp"
#include "host/chain/Transport.hpp"
#include "host/messages/MessageReader.hpp"

namespace host {

class RequestSender {
 public:
  // Makes the message for a flush line.
  using MakeFlush = std::function<connectivity::Message(FlushRequest&&)>;
  // Where the messages come from and go to, and what is told of them; borrowed.
  struct Ways {
    RequestReader& reader;
    Transport& transport;
    Outstanding& outstanding;
    AnswerWriter& answers;
    ChainLog& log;
  };

  RequestSender(const Ways& ways, MakeFlush makeFlush)
      : _ways(ways), _makeFlush(std::move(makeFlush)) {}

  // The sending thread: returns when everything that was read has been handed over, or dropped
  // where the host is shutting down.
  void run() noexcept;
  // What Transport tells its receiver.
  void batchWaits(bool waiting) noexcept;

  // From any thread: requests that the transport took, and the bytes of their payloads.
  std::uint64_t sent() const noexcept { return _sent.load(); }
  std::uint64_t requestBytes() const noexcept { return _requestBytes.load(); }
  // Requests that were not handed over, or not taken, because the host is shutting down.
  std::uint64_t dropped() const noexcept { return _dropped.load(); }

 private:
  // Where a message of the batch comes from.
  struct Origin {
    std::uint64_t line;
    bool isFlush;
    std::uint64_t idKey;  // of a request
    std::uint64_t bytes;  // of its payload
  };

  void sendAll();
  void addToBatch(ParsedLine&& line);
  void addFlush(FlushRequest&& flush, std::uint64_t line);
  void sendBatch();
  void handOver(Outstanding::TimePoint now);
  bool wasTaken(std::size_t index) const;
  std::size_t firstNotTaken(std::size_t from) const;
  void takeBack(std::size_t index);
  void drop(const std::vector<ParsedLine>& lines);

  const Ways _ways;
  const MakeFlush _makeFlush;
  const AnswerReader _ids;

  // Below: used by the sending thread.
  std::vector<ParsedLine> _lines;
  std::vector<connectivity::Message> _batch;
  std::vector<Origin> _origins;        // of the messages in _batch
  std::vector<std::uint64_t> _idKeys;  // of the requests among them
  QueueRoom _room;

  std::atomic<std::uint64_t> _sent{0};
  std::atomic<std::uint64_t> _requestBytes{0};
  std::atomic<std::uint64_t> _dropped{0};
};

}  // namespace host
