#include "orrery/Mutex.hpp"

#include <cstdint>
#include <limits>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

namespace {

using orrery::AutoMutex;
using orrery::Condition;
using orrery::Mutex;

bool isFreeForAnotherThread(Mutex& mutex) {
  bool taken = false;
  std::thread([&] {
    if (!mutex.tryLock()) return;
    taken = true;
    mutex.unlock();
  }).join();
  return taken;
}

TEST(Mutex, KeepsItsName) {
  const Mutex mutex("TransportResponseMutex");
  EXPECT_STREQ(mutex.name(), "TransportResponseMutex");
}

TEST(Mutex, IsRefusedToAnotherThreadWhileItIsHeld) {
  Mutex mutex("held");
  bool taken = true;
  {
    const AutoMutex lock(mutex);
    taken = isFreeForAnotherThread(mutex);
  }
  EXPECT_FALSE(taken);
}

TEST(AutoMutex, ReleasesAtItsEnd) {
  Mutex mutex("released");
  { const AutoMutex lock(mutex); }
  EXPECT_TRUE(isFreeForAnotherThread(mutex));
}

// A flag that threads wait for.
class Gate {
 public:
  void open() {
    const AutoMutex lock(_mutex);
    _open = true;
    _changed.broadcast();
  }
  void pass() {
    const AutoMutex lock(_mutex);
    ++_waiting;
    _changed.broadcast();
    while (!_open) _changed.wait();
  }
  bool passWithin(std::int64_t milliseconds) {
    const AutoMutex lock(_mutex);
    ++_waiting;
    _changed.broadcast();
    while (!_open) {
      if (!_changed.timedWait(milliseconds)) return _open;
    }
    return true;
  }
  void waitForWaiting(int howMany) {
    const AutoMutex lock(_mutex);
    while (_waiting < howMany) _changed.wait();
  }

 private:
  Mutex _mutex{"Gate"};
  Condition _changed{_mutex};
  bool _open ORRERY_GUARDED_BY(_mutex) = false;
  int _waiting ORRERY_GUARDED_BY(_mutex) = 0;
};

TEST(Condition, BroadcastWakesEveryWaiter) {
  constexpr int waiters = 8;
  Gate gate;
  std::vector<std::thread> threads;
  threads.reserve(waiters);
  for (int i = 0; i < waiters; ++i) threads.emplace_back([&] { gate.pass(); });
  gate.waitForWaiting(waiters);
  gate.open();
  for (std::thread& thread : threads) thread.join();
  SUCCEED() << "every waiter came back";
}

TEST(Condition, TimedWaitGivesUpWhenNobodyWakesIt) {
  Gate gate;
  EXPECT_FALSE(gate.passWithin(1));
}

TEST(Condition, TimedWaitEndsWithABroadcast) {
  Gate gate;
  bool passed = false;
  std::thread waiter([&] { passed = gate.passWithin(60'000); });
  gate.waitForWaiting(1);
  gate.open();
  waiter.join();
  EXPECT_TRUE(passed);
}

TEST(Condition, TimedWaitOfZeroOrLessReturns) {
  Gate gate;
  EXPECT_FALSE(gate.passWithin(0));
  EXPECT_FALSE(gate.passWithin(-1));
  EXPECT_FALSE(gate.passWithin(std::numeric_limits<std::int64_t>::min()));
}

TEST(Condition, TimedWaitTakesTheLongestTime) {
  Gate gate;
  bool passed = false;
  std::thread waiter([&] { passed = gate.passWithin(std::numeric_limits<std::int64_t>::max()); });
  gate.waitForWaiting(1);
  gate.open();
  waiter.join();
  EXPECT_TRUE(passed);
}

TEST(Condition, HoldsTheMutexAfterAWait) {
  Mutex mutex("waited");
  Condition condition(mutex);
  bool taken = true;
  {
    const AutoMutex lock(mutex);
    while (condition.timedWait(1)) {
    }
    taken = isFreeForAnotherThread(mutex);
  }
  EXPECT_FALSE(taken);
}

}  // namespace
