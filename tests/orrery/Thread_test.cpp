#include "orrery/Thread.hpp"

#include <atomic>
#include <functional>
#include <latch>
#include <pthread.h>
#include <stdexcept>
#include <string>
#include <utility>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "orrery/Exception.hpp"
#include "orrery/Mutex.hpp"
#include "tests/orrery/RecordingLog.hpp"

namespace {

using orrery::Exception;
using orrery::Thread;
using testing::StartsWith;

class TestThread final : public Thread {
 public:
  explicit TestThread(std::string name, std::function<void(TestThread&)> body)
      : Thread(std::move(name)), _body(std::move(body)) {}
  ~TestThread() override { TestThread::stop(); }

  void signal() override {
    Thread::signal();
    const orrery::AutoMutex lock(_mutex);
    _signalled.broadcast();
  }
  void waitForSignal() {
    const orrery::AutoMutex lock(_mutex);
    while (!stopRequested()) _signalled.wait();
  }

 private:
  void run() override { _body(*this); }

  const std::function<void(TestThread&)> _body;
  orrery::Mutex _mutex{"TestThread"};
  orrery::Condition _signalled{_mutex};
};

std::string systemNameOfCallingThread() {
  char name[16] = {};
  return pthread_getname_np(pthread_self(), name, sizeof name) == 0 ? name : "no name";
}

std::string messageOf(const std::function<void()>& action) {
  try {
    action();
  } catch (const Exception& error) {
    return error.what();
  }
  return "nothing was thrown";
}

TEST(Thread, ShowsItsNameToTheSystemFromTheStartOfRun) {
  std::string seen;
  TestThread thread("worker", [&](TestThread&) { seen = systemNameOfCallingThread(); });
  thread.start();
  thread.stop();
  EXPECT_EQ(seen, "worker");
}

TEST(Thread, ShowsTheFirst15BytesOfALongNameAndKeepsTheWholeOne) {
  std::string seen;
  TestThread thread("clientSessionThread",
                    [&](TestThread&) { seen = systemNameOfCallingThread(); });
  thread.start();
  thread.stop();
  EXPECT_EQ(seen, "clientSessionTh");
  EXPECT_EQ(thread.name(), "clientSessionThread");
}

TEST(Thread, StopWaitsUntilRunHasReturned) {
  std::latch running(1);
  bool ended = false;  // no atomic: stop() orders it before the test's read
  TestThread thread("waits", [&](TestThread& self) {
    running.count_down();
    self.waitForSignal();
    ended = true;
  });
  thread.start();
  running.wait();
  thread.stop();
  EXPECT_TRUE(ended);
}

TEST(Thread, StopBeforeStartReturns) {
  bool ran = false;
  TestThread thread("idle", [&](TestThread&) { ran = true; });
  thread.stop();
  EXPECT_FALSE(ran);
}

TEST(Thread, StopTwiceReturns) {
  TestThread thread("twice", [](TestThread& self) { self.waitForSignal(); });
  thread.start();
  thread.stop();
  thread.stop();
  EXPECT_TRUE(thread.stopRequested());
}

TEST(Thread, SeesASignalThatCameBeforeItsStart) {
  bool seen = false;
  TestThread thread("early", [&](TestThread& self) { seen = self.stopRequested(); });
  EXPECT_FALSE(thread.stopRequested());
  thread.signal();
  thread.start();
  thread.stop();
  EXPECT_TRUE(seen);
}

TEST(Thread, CannotBeStartedTwice) {
  TestThread thread("once", [](TestThread&) {});
  thread.start();
  EXPECT_EQ(messageOf([&] { thread.start(); }), "Thread once is already started");
  thread.stop();
  EXPECT_EQ(messageOf([&] { thread.start(); }), "Thread once is already started");
}

TEST(Thread, TellsThatTheSystemHasNoRoomForIt) {
  pthread_attr_t usual;
  ASSERT_EQ(pthread_getattr_default_np(&usual), 0);
  pthread_attr_t endless = usual;
  ASSERT_EQ(pthread_attr_setstacksize(&endless, SIZE_MAX / 2 & ~std::size_t{0xFFFF}), 0);
  ASSERT_EQ(pthread_setattr_default_np(&endless), 0);
  bool ran = false;
  TestThread thread("huge", [&](TestThread&) { ran = true; });
  EXPECT_THAT(messageOf([&] { thread.start(); }), StartsWith("Thread huge could not be started: "));
  ASSERT_EQ(pthread_setattr_default_np(&usual), 0);
  thread.stop();
  EXPECT_FALSE(ran);
  pthread_attr_destroy(&usual);
}

TEST(Thread, CannotWaitForItself) {
  std::string message;
  TestThread thread("self", [&](TestThread& self) { message = messageOf([&] { self.stop(); }); });
  thread.start();
  thread.stop();
  EXPECT_EQ(message, "Thread self cannot wait for itself");
}

TEST(Thread, IsCurrentOnItselfOnly) {
  std::latch running(1);
  std::atomic<bool> currentInside{false};
  TestThread thread("current", [&](TestThread& self) {
    currentInside = self.isCurrent();
    running.count_down();
    self.waitForSignal();
  });
  EXPECT_FALSE(thread.isCurrent());
  thread.start();
  running.wait();
  EXPECT_TRUE(currentInside);
  EXPECT_FALSE(thread.isCurrent());
  thread.stop();
  EXPECT_FALSE(thread.isCurrent());
}

TEST(Thread, IsEndedByAnExceptionThatTheLogTellsOf) {
  const RecordingLog log;
  TestThread thread("fails", [](TestThread&) { throw std::runtime_error("out of paper"); });
  thread.start();
  thread.stop();
  const RecordingLog::Line expected{"orrery", QOR_LOG_ERROR,
                                    "Thread fails was ended by an exception: out of paper"};
  EXPECT_THAT(log.lines(), testing::ElementsAre(expected));
}

TEST(Thread, IsEndedByAnythingThatIsThrown) {
  const RecordingLog log;
  TestThread thread("fails", [](TestThread&) { throw 7; });
  thread.start();
  thread.stop();
  EXPECT_EQ(log.onlyText(), "Thread fails was ended by an exception: unknown exception");
}

TEST(Thread, GoesWithItsLastReference) {
  bool ended = false;
  {
    const orrery::IntrusivePtr<Thread> thread(new TestThread("held", [&](TestThread& self) {
      self.waitForSignal();
      ended = true;
    }));
    thread->start();
  }
  EXPECT_TRUE(ended);
}

}  // namespace
