// The life of a transport: its state, the calls that each state admits, and which calls are inside.
//
//   state     | begins with             | batches                     | start   | shutdown
//   Made      | create                  | queued; refused where full  | starts  | drops what is
//   queued Running   | start                   | queued; wait where full     | nothing | answers
//   what is queued Stopping  | shutdown, destroy       | ignored                     | refused |
//   nothing Stopped   | the end of that         | ignored                     | refused | nothing
//
// setNextTowardsHost, hostReady and destroy are admitted in every state. A start that fails
// half-way leaves the state at Made, and may be tried again. start, shutdown, setNextTowardsHost
// and destroy are refused, in every state, on a thread that is inside already: on a worker, which
// is delivering or releasing a flush object, and on a thread whose own call does the latter. They
// would wait for themselves.
//
// Every entry point is counted as inside, from its first look at the transport to its last line in
// the log. destroy waits until it is alone before anything is freed. Any thread may call anything.
#pragma once

#include <atomic>
#include <thread>

#include "orrery/Mutex.hpp"

namespace connectivity::plugins {

class Life {
 public:
  enum class State { Made, Running, Stopping, Stopped };

  // One call of an entry point, inside from construction to destruction. Lives on its thread's
  // stack.
  class Call {
   public:
    enum class Kind { Batch, Other };

    Call(Life& life, Kind kind) noexcept : _life(life), _kind(kind) { _life.enter(*this); }
    ~Call() { _life.leave(*this); }
    Call(const Call&) = delete;
    Call& operator=(const Call&) = delete;

    // Whether another call of this thread was inside when this one began.
    bool isNested() const noexcept { return _nested; }

   private:
    friend class Life;
    Life& _life;
    const Kind _kind;
    const std::thread::id _thread = std::this_thread::get_id();
    bool _nested = false;
    bool _isWaitedFor = false;  // a batch that was not late
    Call* _older = nullptr;     // the list of those inside
    Call* _newer = nullptr;
  };

  State state() const noexcept { return now.load(std::memory_order_acquire); }
  // False, and nothing changed, where the transport is stopping or stopped.
  bool run() noexcept ORRERY_EXCLUDES(mutex) {
    const orrery::AutoMutex lock(mutex);
    if (state() >= State::Stopping) return false;
    now = State::Running;
    return true;
  }
  // Later batches are ignored from here on. False where that was so before.
  bool stop() noexcept ORRERY_EXCLUDES(mutex) {
    const orrery::AutoMutex lock(mutex);
    if (state() >= State::Stopping) return false;
    now = State::Stopping;
    stopping.store(true, std::memory_order_release);
    return true;
  }
  void stopped() noexcept ORRERY_EXCLUDES(mutex) {
    const orrery::AutoMutex lock(mutex);
    now = State::Stopped;
  }
  // What batches that are inside look at: true from stop() on.
  const std::atomic<bool>& isStopping() const noexcept { return stopping; }

  // For batches that came before stop(). REQUIRES: none of them is the calling thread's.
  void waitForBatches() ORRERY_EXCLUDES(mutex) {
    const orrery::AutoMutex lock(mutex);
    while (hasBatch()) somebodyLeft.wait();
  }
  // Until `own` is the only call inside.
  void waitUntilAlone(const Call& own) ORRERY_EXCLUDES(mutex) {
    const orrery::AutoMutex lock(mutex);
    while (newest != &own || own._older != nullptr) somebodyLeft.wait();
  }

 private:
  void enter(Call& call) noexcept ORRERY_EXCLUDES(mutex) {
    const orrery::AutoMutex lock(mutex);
    for (const Call* other = newest; other != nullptr; other = other->_older) {
      if (other->_thread == call._thread) call._nested = true;
    }
    call._isWaitedFor = call._kind == Call::Kind::Batch && state() < State::Stopping;
    call._older = newest;
    if (newest != nullptr) newest->_newer = &call;
    newest = &call;
  }
  // Signals under the mutex: whoever waits may free this object as soon as it has it.
  void leave(Call& call) noexcept ORRERY_EXCLUDES(mutex) {
    const orrery::AutoMutex lock(mutex);
    (call._newer == nullptr ? newest : call._newer->_older) = call._older;
    if (call._older != nullptr) call._older->_newer = call._newer;
    if (state() >= State::Stopping) somebodyLeft.broadcast();
  }
  bool hasBatch() const noexcept ORRERY_REQUIRES(mutex) {
    const Call* call = newest;
    while (call != nullptr && !call->_isWaitedFor) call = call->_older;
    return call != nullptr;
  }

  // Written under the mutex, read also without it.
  std::atomic<State> now{State::Made};
  std::atomic<bool> stopping{false};
  orrery::Mutex mutex{"Life"};
  orrery::Condition somebodyLeft{mutex};
  Call* newest ORRERY_GUARDED_BY(mutex) = nullptr;
};

}  // namespace connectivity::plugins
