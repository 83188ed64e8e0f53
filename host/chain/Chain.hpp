// One chain of a run: lines from its input to the transport, answers to its output.
//
// Threads: the controlling thread constructs, starts and destroys the chain. run() belongs to one
// thread and starts three others, which pass messages on in queues with bounds:
//
//   RequestReader   reads and parses lines
//   RequestSender   hands the messages over to the transport, in batches
//   AnswerWriter    renders and writes what the transport has delivered on threads of its own
//
// stopReading() and drop() may be called from anywhere at any time.
//
// Where something waits: the reader for input, or for room in its queue; the sender for the reader,
// or for room in the transport's queue; a delivery for room in the writer's queue; the writer for
// deliveries, or for the reader of the output; run() for the last answer. drop() ends all of these.
#pragma once

#include <atomic>
#include <chrono>
#include <memory>
#include <string>

#include "connectivity/data_t.hpp"
#include "host/chain/AnswerWriter.hpp"
#include "host/chain/ChainFile.hpp"
#include "host/chain/ChainLog.hpp"
#include "host/chain/ChainStatistics.hpp"
#include "host/chain/Outstanding.hpp"
#include "host/chain/PluginLibrary.hpp"
#include "host/chain/RequestReader.hpp"
#include "host/chain/RequestSender.hpp"
#include "host/chain/Transport.hpp"
#include "host/log/HostLog.hpp"
#include "host/messages/MessageReader.hpp"
#include "host/program/ChainCounts.hpp"
#include "host/status/StatusTable.hpp"

namespace host {

class Chain final : private ResponseReceiver {
 public:
  // Loads the library and creates the transport. `definition`, `status` and `log` are borrowed and
  // outlive the chain. std::runtime_error where something is missing or refused.
  Chain(const ChainDefinition& definition, StatusTable& status, HostLog& log);
  ~Chain() override;
  Chain(const Chain&) = delete;
  Chain& operator=(const Chain&) = delete;

  // Opens input and output and starts the transport. std::runtime_error as above.
  void start();
  // Feeds the input to its end, waits for what is outstanding, shuts the transport down, and writes
  // what has been delivered. REQUIRES: started; once.
  void run();
  // Reads no further; run() still waits for the answers to what has been read.
  void stopReading() noexcept;
  // Waits for nothing any more; what has not been handed over, or is queued in the transport, is
  // dropped.
  void drop() noexcept;
  // After drop(), where run() does not return: writes what has been delivered, and loses what comes
  // later. False where the output has not taken it until then. The chain cannot be destroyed any
  // more: its transport still runs.
  bool giveUp(std::chrono::steady_clock::time_point until) noexcept;

  const std::string& id() const noexcept { return _definition.id; }
  const std::string& name() const noexcept { return _definition.name; }
  ChainCounts counts() const;
  // REQUIRES: run() has returned, or giveUp() with true.
  ChainStatistics statistics() const;
  // Why the chain ended early: an input or output error, or a failure of the transport. Empty where
  // it did not.
  std::string failure() const { return _log.failure(); }

 private:
  void receive(connectivity::Message& response) override;
  void batchWaits(bool waiting) noexcept override;
  connectivity::Message flushMessage(FlushRequest&& flush);
  void onFlushReleased(connectivity::data_t&& id) noexcept;

  const ChainDefinition& _definition;
  ChainLog _log;
  const PluginLibrary _library;
  std::atomic<bool> _ending{false};  // the transport is being destroyed
  Outstanding _outstanding;
  AnswerWriter _answers;
  RequestReader _requests;
  Transport _transport;  // its threads use all of the above
  RequestSender _sender;
};

}  // namespace host
