// The answers of the demo, by request, and what they say about its barriers.
//
// Requests are numbered from 0, in the order in which they are sent; their numbers are their ids. A
// queue flush stands behind every `flushInterval` of them.
#pragma once

#include <chrono>
#include <cstddef>
#include <string>
#include <vector>

#include "connectivity/data_t.hpp"
#include "host/chain/ChainStatistics.hpp"
#include "host/chain/Transport.hpp"
#include "host/log/HostLog.hpp"
#include "host/program/ChainCounts.hpp"
#include "orrery/Mutex.hpp"

namespace host {

struct DemoAnswer {
  int count = 0;
  int status = 0;
  std::string body;
};

// Any thread may call anything.
class DemoAnswers : public ResponseReceiver {
 public:
  // `log` is borrowed; on a terminal it shows the progress.
  DemoAnswers(std::size_t howMany, std::size_t flushInterval, HostLog& log);

  void receive(connectivity::Message& response) override ORRERY_EXCLUDES(_mutex);
  // The transport has released the flush object of the barrier with that number, counted from 0.
  void flushed(std::size_t barrier) ORRERY_EXCLUDES(_mutex);

  // How many barriers have held: released, with everything before them answered, and nothing
  // behind them answered earlier.
  std::size_t barriersHeld() const ORRERY_EXCLUDES(_mutex);
  std::vector<DemoAnswer> take() ORRERY_EXCLUDES(_mutex);

 private:
  struct Barrier {
    std::size_t missing;  // answers to what stands between the barrier before and this one
    bool released = false;
    bool broken = false;
  };

  void record(std::size_t number, const connectivity::Message& response) ORRERY_REQUIRES(_mutex);
  void breakIncompleteBefore(std::size_t barrier) ORRERY_REQUIRES(_mutex);
  void showProgress(int status) ORRERY_REQUIRES(_mutex);

  HostLog& _log;
  const std::size_t _flushInterval;
  const bool _showsProgress;
  const AnswerReader _reader;
  const std::chrono::steady_clock::time_point _begin = std::chrono::steady_clock::now();
  mutable orrery::Mutex _mutex{"DemoAnswers"};
  std::vector<DemoAnswer> _answers ORRERY_GUARDED_BY(_mutex);
  std::vector<Barrier> _barriers ORRERY_GUARDED_BY(_mutex);
  ChainCounts _counts ORRERY_GUARDED_BY(_mutex);
};

}  // namespace host
