// A named, reference-counted thread.
//
// A class derives from Thread and overrides run(). start(), stop() and the destructor belong to the
// thread's owner, one call at a time; signal(), stopRequested() and isCurrent() may come from
// anywhere. A Thread runs once.
#pragma once

#include <atomic>
#include <string>
#include <thread>

#include "orrery/Export.hpp"
#include "orrery/RefCountedObject.hpp"

namespace orrery {

class ORRERY_API Thread : public RefCountedObject {
 public:
  // The system shows the first 15 bytes of `name`; name() gives it whole.
  explicit Thread(std::string name);
  // Waits for a thread that still runs; the derived class has stopped it before its own parts went.
  // REQUIRES: not called on the thread itself, so the last reference is never released there.
  ~Thread() override;

  // Runs run() on a new thread. Throws Exception "Thread %s is already started" or
  // "Thread %s could not be started: %s".
  virtual void start();
  // Signals the thread and waits until run() has returned. Does nothing for a thread that was never
  // started, and returns at once for one that has ended. Throws Exception
  // "Thread %s cannot wait for itself" on the thread itself.
  virtual void stop();
  // Asks run() to end: sets what stopRequested() gives, also before the start. A thread that blocks
  // is woken by whoever owns what it blocks on.
  virtual void signal();

  const std::string& name() const noexcept { return _name; }
  bool stopRequested() const noexcept { return _stopRequested.load(std::memory_order_acquire); }
  // Whether the calling thread is this one.
  bool isCurrent() const noexcept;

 protected:
  // An exception that leaves it ends the thread, with a line at error level in category "orrery":
  // "Thread %s was ended by an exception: %s".
  virtual void run() = 0;

 private:
  void body();

  // Constant after construction.
  const std::string _name;
  // The owner's.
  std::thread _thread;
  bool _started = false;
  // Shared with the thread.
  std::atomic<bool> _stopRequested{false};
  std::atomic<std::thread::id> _id{};  // while run() runs
};

}  // namespace orrery
