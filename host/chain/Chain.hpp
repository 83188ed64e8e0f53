// One chain of a run: lines from its input to the transport, answers to its output.
//
// Threads: the controlling thread constructs, starts and destroys the chain. run() belongs to one
// thread and starts another, which reads the input. The transport delivers responses on threads of
// its own. stopReading() and drop() may be called from anywhere at any time.
//
// Where something waits: the reader for input, or for room in the transport's queue; a delivery for
// the reader of the output; run() for the last answer. drop() ends all of these.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "connectivity/data_t.hpp"
#include "host/chain/ChainFile.hpp"
#include "host/chain/ChainStatistics.hpp"
#include "host/chain/InputLines.hpp"
#include "host/chain/OutputLines.hpp"
#include "host/chain/Outstanding.hpp"
#include "host/chain/PluginLibrary.hpp"
#include "host/chain/QueueRoom.hpp"
#include "host/chain/Transport.hpp"
#include "host/log/HostLog.hpp"
#include "host/messages/MessageReader.hpp"
#include "host/messages/MessageWriter.hpp"
#include "host/program/ChainCounts.hpp"
#include "host/status/StatusTable.hpp"
#include "orrery/Mutex.hpp"

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
  // Feeds the input to its end, waits for what is outstanding, and shuts the transport down.
  // REQUIRES: started; once.
  void run();
  // Reads no further; run() still waits for what is outstanding.
  void stopReading() noexcept;
  // Waits for nothing any more; what the transport has queued is dropped.
  void drop() noexcept;

  const std::string& id() const noexcept { return _definition.id; }
  const std::string& name() const noexcept { return _definition.name; }
  ChainCounts counts() const;
  ChainStatistics statistics() const ORRERY_EXCLUDES(_writerMutex);
  // Why the chain ended early: an input or output error, or a failure of the transport. Empty where
  // it did not. REQUIRES: run() has returned.
  const std::string& failure() const noexcept { return _failure; }

 private:
  // Where a message of the batch comes from.
  struct Origin {
    std::uint64_t line;
    bool isFlush;
    std::uint64_t idKey;  // of a request
    std::uint64_t bytes;  // of its payload
  };

  void receive(const connectivity::Message& response) override;
  void batchWaits(bool waiting) noexcept override;
  void readInput() noexcept;
  void readLines();
  void handle(const InputLines::Line& line);
  void queueRequest(connectivity::Message&& request, std::uint64_t line);
  connectivity::Message flushMessage(FlushRequest&& flush);
  void sendBatch();
  void handOver(Outstanding::TimePoint now);
  bool wasTaken(std::size_t index) const;
  std::size_t firstNotTaken(std::size_t from) const;
  void takeBack(std::size_t index);
  void record(const connectivity::Message& response, const AnswerStatus& status,
              const Outstanding::Answered& answered, Outstanding::TimePoint now)
      ORRERY_REQUIRES(_writerMutex);
  void reportInvalid(std::uint64_t line, const std::string& text);
  void onFlushReleased(const connectivity::data_t& id) noexcept;
  void onOutputFailure(const std::string& reason);
  void fail(const std::string& reason) ORRERY_EXCLUDES(_failureMutex);
  template <typename Write>
  void write(Write&& write, bool flushNow) ORRERY_EXCLUDES(_writerMutex);
  void appendLines(bool flushNow) ORRERY_REQUIRES(_writerMutex);

  const ChainDefinition& _definition;
  HostLog& _log;
  const PluginLibrary _library;
  const AnswerReader _answers;
  std::atomic<bool> _ending{false};  // the transport is being destroyed
  std::optional<InputLines> _input;
  std::optional<OutputLines> _output;
  Outstanding _outstanding;

  // Below: used by the reading thread.
  MessageReader _reader;
  std::vector<connectivity::Message> _batch;
  QueueRoom _room;
  std::vector<Origin> _origins;        // of the messages in _batch
  std::vector<std::uint64_t> _idKeys;  // of the requests among them

  mutable orrery::Mutex _writerMutex{"ChainWriter"};
  std::string _lines ORRERY_GUARDED_BY(_writerMutex);
  MessageWriter _writer ORRERY_GUARDED_BY(_writerMutex);
  // What is known of answers; the rest is filled in by statistics().
  ChainStatistics _statistics ORRERY_GUARDED_BY(_writerMutex);

  mutable orrery::Mutex _failureMutex{"ChainFailure"};
  std::string _failure;  // written under the mutex; read when all threads have ended

  std::atomic<std::uint64_t> _sent{0};
  std::atomic<std::uint64_t> _answered{0};
  std::atomic<std::uint64_t> _failed{0};
  std::atomic<std::uint64_t> _invalid{0};
  std::atomic<std::uint64_t> _requestBytes{0};

  std::optional<Transport> _transport;  // last: its threads use all of the above
};

}  // namespace host
