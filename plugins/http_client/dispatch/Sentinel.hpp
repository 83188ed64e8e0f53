// A barrier across the workers: one Sentinel stands on the lane of each, and no worker passes it
// before every one has reached it.
//
// Shared by the lanes, the workers that hold it and whoever waits for it. The last of them to let
// it go frees the host's flush object, and by that tells the host that the flush is complete: so
// never let one go while a mutex is held.
#pragma once

#include <cstdint>
#include <utility>

#include "connectivity/data_t.hpp"
#include "orrery/Mutex.hpp"

namespace connectivity::plugins {

// What the barriers of one transport share. Outlives them.
class Barriers {
 public:
  // Not every worker will reach a barrier, so that no worker waits at one; false: every one will.
  void abandon(bool whether) ORRERY_EXCLUDES(mutex);

 private:
  friend class Sentinel;
  orrery::Mutex mutex{"Sentinel"};
  orrery::Condition changed{mutex};
  bool abandoned ORRERY_GUARDED_BY(mutex) = false;
};

class Sentinel {
 public:
  // `workers` is how many have to reach it; `object`, its flush object, may be empty.
  Sentinel(Barriers& barriers, std::uint32_t workers, data_t&& object) noexcept
      : flushObject(std::move(object)), _barriers(barriers), remaining(workers) {}
  Sentinel(const Sentinel&) = delete;
  Sentinel& operator=(const Sentinel&) = delete;

  // One worker has reached the barrier. Called once by each.
  void arrive() ORRERY_EXCLUDES(_barriers.mutex);
  // True once every worker has reached it; false where that takes longer than `milliseconds`.
  bool waitUntilComplete(std::int64_t milliseconds) ORRERY_EXCLUDES(_barriers.mutex);
  // The same for a worker, which may also go on once barriers are abandoned.
  bool waitUntilOpen(std::int64_t milliseconds) ORRERY_EXCLUDES(_barriers.mutex);
  bool isComplete() ORRERY_EXCLUDES(_barriers.mutex);

 private:
  const data_t flushObject;
  Barriers& _barriers;
  std::uint32_t remaining ORRERY_GUARDED_BY(_barriers.mutex);  // workers that have not reached it
};

}  // namespace connectivity::plugins
