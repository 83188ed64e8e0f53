// What one chain tells in the host's log, and the first reason why it failed.
#pragma once

#include <string>

#include "host/log/HostLog.hpp"
#include "orrery/Mutex.hpp"

namespace host {

// Any thread may call anything.
class ChainLog {
 public:
  // `id` and `log` are borrowed.
  ChainLog(const std::string& id, HostLog& log) : _id(id), _log(log) {}

  void info(const std::string& text) { _log.info(line(text)); }
  void warn(const std::string& text) { _log.warn(line(text)); }
  // The chain has failed. The first reason is kept; all are told.
  void fail(const std::string& reason) ORRERY_EXCLUDES(_mutex) {
    const orrery::AutoMutex lock(_mutex);
    if (_failure.empty()) _failure = reason;
    _log.error(line(reason));
  }
  // The first reason; empty where there is none.
  std::string failure() const ORRERY_EXCLUDES(_mutex) {
    const orrery::AutoMutex lock(_mutex);
    return _failure;
  }
  // Makes room on the terminal for lines of the chain's output.
  void hideProgress() { _log.showProgress({}); }

 private:
  std::string line(const std::string& text) const { return "chain " + _id + ": " + text; }

  const std::string& _id;
  HostLog& _log;
  mutable orrery::Mutex _mutex{"ChainLog"};
  std::string _failure ORRERY_GUARDED_BY(_mutex);
};

}  // namespace host
