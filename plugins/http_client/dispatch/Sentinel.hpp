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

class Sentinel {
 public:
  // `workers` is how many have to reach it; `object`, its flush object, may be empty.
  Sentinel(std::uint32_t workers, data_t&& object) noexcept
      : flushObject(std::move(object)), remaining(workers) {}
  Sentinel(const Sentinel&) = delete;
  Sentinel& operator=(const Sentinel&) = delete;

  // One worker has reached the barrier. Called once by each.
  void arrive() ORRERY_EXCLUDES(mutex);
  // True once every worker has reached it; false where that takes longer than `milliseconds`.
  bool waitUntilComplete(std::int64_t milliseconds) ORRERY_EXCLUDES(mutex);
  bool isComplete() ORRERY_EXCLUDES(mutex);

 private:
  const data_t flushObject;
  orrery::Mutex mutex{"Sentinel"};
  orrery::Condition complete{mutex};
  std::uint32_t remaining ORRERY_GUARDED_BY(mutex);  // workers that have not reached it yet
};

}  // namespace connectivity::plugins
