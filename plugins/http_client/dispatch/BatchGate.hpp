// Counts the batches that are inside the transport, so that shutdown can wait for them.
//
// Any thread may enter. Once the gate is closed nobody does, and whoever closed it waits until
// those inside have left; nothing that they use is freed before.
#pragma once

#include <atomic>
#include <cstdint>

#include "orrery/Mutex.hpp"

namespace connectivity::plugins {

class BatchGate {
 public:
  // Enters at construction, where the gate is open, and leaves at destruction.
  class Pass {
   public:
    explicit Pass(BatchGate& gate) : _gate(gate), _entered(gate.enter()) {}
    ~Pass() {
      if (_entered) _gate.leave();
    }
    Pass(const Pass&) = delete;
    Pass& operator=(const Pass&) = delete;
    explicit operator bool() const noexcept { return _entered; }

   private:
    BatchGate& _gate;
    const bool _entered;
  };

  // Keeps later batches out, and sets what closed() gives. False where it was closed already.
  bool close() ORRERY_EXCLUDES(mutex) {
    const orrery::AutoMutex lock(mutex);
    return !_closed.exchange(true, std::memory_order_acq_rel);
  }
  // REQUIRES: the gate is closed, and the caller is not inside.
  void waitUntilEmpty() ORRERY_EXCLUDES(mutex) {
    const orrery::AutoMutex lock(mutex);
    while (inside > 0) empty.wait();
  }
  const std::atomic<bool>& closed() const noexcept { return _closed; }

 private:
  bool enter() ORRERY_EXCLUDES(mutex) {
    const orrery::AutoMutex lock(mutex);
    if (_closed.load(std::memory_order_relaxed)) return false;
    ++inside;
    return true;
  }
  void leave() ORRERY_EXCLUDES(mutex) {
    const orrery::AutoMutex lock(mutex);
    if (--inside == 0 && _closed.load(std::memory_order_relaxed)) empty.broadcast();
  }

  std::atomic<bool> _closed{false};  // written under the mutex, read also without it
  orrery::Mutex mutex{"BatchGate"};
  orrery::Condition empty{mutex};
  std::uint32_t inside ORRERY_GUARDED_BY(mutex) = 0;
};

}  // namespace connectivity::plugins
