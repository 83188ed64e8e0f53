// What the items were over the last quarter of an hour, so that a page that is opened now has
// curves to draw: the items that are numbers, every few seconds, and no more than so many times.
#pragma once

#include <chrono>
#include <cstddef>
#include <deque>
#include <string>
#include <thread>

#include "host/status/StatusTable.hpp"
#include "host/system/Wakeup.hpp"
#include "orrery/Mutex.hpp"

namespace host {

// Any thread may call anything.
class StatusHistory {
 public:
  using Clock = std::chrono::steady_clock;
  static constexpr std::chrono::seconds step{5};
  static constexpr std::size_t longest = 180;

  // `table` is borrowed and outlives the history.
  explicit StatusHistory(const StatusTable& table) : _table(table) {}
  ~StatusHistory();
  StatusHistory(const StatusHistory&) = delete;
  StatusHistory& operator=(const StatusHistory&) = delete;

  // From now to the destruction a thread of its own samples at each step. Called once.
  void start();
  // Keeps what the items are; the oldest sample goes where there are too many.
  void sample(Clock::time_point now);
  // The samples, the oldest first: [{"age":5.25,"items":{"shop.orders.queueSize":"3"}}], the ages
  // in seconds before `now`.
  std::string asJson(Clock::time_point now) const;

 private:
  struct Sample {
    Clock::time_point time;
    StatusItems items;
  };

  void sampleUntilStopped();

  const StatusTable& _table;
  mutable orrery::Mutex _mutex{"StatusHistory"};
  std::deque<Sample> _samples ORRERY_GUARDED_BY(_mutex);
  Wakeup _stop;
  std::thread _thread;  // last: it uses all of the above
};

}  // namespace host
