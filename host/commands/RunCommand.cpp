#include "host/commands/RunCommand.hpp"

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <memory>
#include <optional>
#include <poll.h>
#include <thread>
#include <unistd.h>
#include <utility>
#include <vector>

#include "host/chain/Chain.hpp"
#include "host/chain/ChainFile.hpp"
#include "host/log/HostLog.hpp"
#include "host/program/Progress.hpp"
#include "host/program/UsageError.hpp"
#include "host/status/StatusServer.hpp"
#include "host/status/StatusTable.hpp"
#include "host/system/Signals.hpp"
#include "host/system/Wakeup.hpp"

namespace host {

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;
constexpr milliseconds progressInterval{250};
constexpr milliseconds logInterval{1000};

// The program ends within five seconds after a second signal: what runs by then is given up, with
// time left to write what has been answered.
constexpr std::chrono::seconds timeToFinish{4};
constexpr milliseconds timeToWrite{500};

// The chain file with what the command line says in its place.
ChainFile readOptions(const RunOptions& options) {
  ChainFile file = readChainFile(options.chainFile);
  if ((options.input || options.output) && file.chains.size() > 1) {
    throw UsageError("--input and --output need a chain file with one chain");
  }
  if (options.input) file.chains.front().input = {*options.input, {}, "--input"};
  if (options.output) file.chains.front().output = {*options.output, {}, "--output"};
  if (options.statusPort) {
    if (!file.status) file.status.emplace();
    file.status->port = *options.statusPort;
  }
  if (options.logLevel) file.log.level = *options.logLevel;
  return file;
}

// The chains at work, from their start to the end of the last.
class Run {
 public:
  Run(const ChainFile& file, const RunOptions& options, HostLog& log, Signals& signals)
      : _options(options), _log(log), _signals(signals) {
    for (const ChainDefinition& definition : file.chains) {
      _chains.push_back(std::make_unique<Chain>(definition, _status, log));
    }
    if (file.status) serveStatus(file);
  }

  void start() {
    for (const auto& chain : _chains) chain->start();
  }

  // False where chains still run although their time after a second signal is over.
  bool untilTheEnd() {
    _running = _chains.size();
    std::vector<std::thread> threads;
    threads.reserve(_chains.size());
    for (const auto& chain : _chains) {
      threads.emplace_back([this, &chain] {
        chain->run();
        if (_running.fetch_sub(1) == 1) _allEnded.set();
      });
    }
    const bool ended = watch();
    for (std::thread& thread : threads) ended ? thread.join() : thread.detach();
    _log.showProgress({});
    return ended;
  }

  // Destroys the transports and tells what has been done.
  ExitStatus finish() {
    const std::vector<ChainSummary> summaries = allSummaries();
    const bool failed = anyFailed();
    _chains.clear();
    return conclude(summaries, failed);
  }

  // Tells what has been done, and ends the process beside the transports that still run: nothing of
  // them can be destroyed.
  [[noreturn]] void giveUp() {
    _log.warn("Requests that still run are given up");
    const auto until = Clock::now() + timeToWrite;
    bool isAllWritten = true;
    for (const auto& chain : _chains) isAllWritten = chain->giveUp(until) && isAllWritten;
    std::vector<ChainSummary> summaries;
    if (isAllWritten) {
      summaries = allSummaries();
    } else {
      for (const auto& chain : _chains)
        summaries.push_back({chain->id(), chain->name(), chain->counts(), {}});
    }
    std::_Exit(static_cast<int>(conclude(summaries, anyFailed())));
  }

 private:
  void serveStatus(const ChainFile& file) {
    std::vector<std::string> prefixes;
    for (const ChainDefinition& chain : file.chains)
      prefixes.push_back(chain.name + "." + chain.id);
    _statusServer.emplace(*file.status, _status, std::move(prefixes));
    _log.info("The status server listens on http://" + file.status->address + ":" +
              std::to_string(_statusServer->port()));
  }

  std::vector<ChainCounts> allCounts() const {
    std::vector<ChainCounts> counts;
    for (const auto& chain : _chains) counts.push_back(chain->counts());
    return counts;
  }

  std::vector<ChainSummary> allSummaries() const {
    std::vector<ChainSummary> summaries;
    for (const auto& chain : _chains) {
      summaries.push_back({chain->id(), chain->name(), chain->counts(), chain->statistics()});
    }
    return summaries;
  }

  bool anyFailed() const {
    return std::any_of(_chains.begin(), _chains.end(),
                       [](const auto& chain) { return !chain->failure().empty(); });
  }

  ExitStatus conclude(const std::vector<ChainSummary>& summaries, bool failed) {
    adviseOn(totalOf(summaries));
    tell(summaries);
    const ChainCounts sum = totalOf(summaries).counts;
    // The last line, whatever else is told.
    _log.write(HostLog::ownCategory, sum.dropped() > 0 ? QOR_LOG_WARN : QOR_LOG_INFO,
               "Done: " + describe(sum));
    if (failed) return ExitStatus::CouldNotRun;
    return sum.invalid > 0 ? ExitStatus::InvalidLines : ExitStatus::Success;
  }

  void adviseOn(const ChainSummary& total) {
    const std::uint64_t answered = total.counts.answered;
    if (answered == 0 || total.statistics.withoutResponse != answered) return;
    _log.warn("No request got a response: each answer's statusReason says why");
  }

  void tell(const std::vector<ChainSummary>& summaries) {
    const bool areSeveral = summaries.size() > 1;
    if (areSeveral) {
      for (const ChainSummary& chain : summaries) tellChain("Chain " + chain.id + ": ", chain);
    }
    if (_options.summary == SummaryForm::Text) {
      tellChain(areSeveral ? "All chains: " : "Summary: ", totalOf(summaries));
    }
    if (_options.summary == SummaryForm::Json) _log.writeRaw(summaryJson(summaries));
  }

  // Of several chains, the counts of each are told in any case.
  void tellChain(const std::string& prefix, const ChainSummary& summary) {
    std::vector<std::string> lines = summaryLines(summary);
    if (_options.summary != SummaryForm::Text) lines.resize(1);
    for (const std::string& line : lines) _log.info(prefix + line);
  }

  // False as untilTheEnd() has it.
  bool watch() {
    const bool showsProgress = _options.showsProgress && ::isatty(STDERR_FILENO) != 0;
    const milliseconds interval = showsProgress ? progressInterval : logInterval;
    const auto begin = Clock::now();
    std::array<pollfd, 2> waiting{
        {{_signals.descriptor(), POLLIN, 0}, {_allEnded.descriptor(), POLLIN, 0}}};
    while (!_allEnded.isSet()) {
      if (timeLeft() == milliseconds{0}) return false;
      ::poll(waiting.data(), waiting.size(),
             static_cast<int>(std::min(interval, timeLeft()).count()));
      _log.writeOverdue();
      if (_signals.take()) onSignal();
      if (showsProgress) _log.showProgress(progressLine(allCounts(), Clock::now() - begin));
    }
    return true;
  }

  milliseconds timeLeft() const {
    if (!_endsAt) return milliseconds::max();
    return std::max(std::chrono::ceil<milliseconds>(*_endsAt - Clock::now()), milliseconds{0});
  }

  void onSignal() {
    if (!_stopping) {
      _stopping = true;
      _log.info("Stopping: reading no further, waiting for the answers still to come");
      for (const auto& chain : _chains) chain->stopReading();
    } else {
      _endsAt = Clock::now() + timeToFinish;
      for (const auto& chain : _chains) chain->drop();
      _signals.letThrough();
      // Behind its effect: who sees the line can rely on it.
      _log.warn("Stopping at once: what is queued is dropped");
    }
  }

  const RunOptions& _options;
  HostLog& _log;
  Signals& _signals;
  StatusTable _status;
  std::vector<std::unique_ptr<Chain>> _chains;
  std::optional<StatusServer> _statusServer;
  Wakeup _allEnded;
  std::atomic<std::size_t> _running{0};
  bool _stopping = false;
  std::optional<Clock::time_point> _endsAt;  // after a second signal
};

}  // namespace

ExitStatus run(const RunOptions& options) {
  const ChainFile file = readOptions(options);
  checkFiles(file);
  Signals signals;
  HostLog log(file.log.level, file.log.levels);
  Run chains(file, options, log, signals);
  chains.start();
  if (!chains.untilTheEnd()) chains.giveUp();
  return chains.finish();
}

}  // namespace host
