// What tests wait on instead of sleeping: events and gates that one thread opens for another.
//
// Every wait is bounded by `patience`: a test that would hang fails instead, by an exception that
// GoogleTest reports as a failure. The bound is generous because a sanitizer build on a busy
// machine is slow; no test passes or fails by how long something took.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <mutex>
#include <stdexcept>
#include <string>

namespace test_support {

inline constexpr std::chrono::seconds patience{30};

class TimedOut : public std::runtime_error {
 public:
  explicit TimedOut(const std::string& what)
      : std::runtime_error("Timed out waiting for " + what) {}
};

// Set once, seen by all who wait, also later. Any thread may call anything.
class Event {
 public:
  explicit Event(std::string name = "an event") : _name(std::move(name)) {}

  void set();
  bool isSet() const;
  // Throws TimedOut.
  void wait() const;
  // For where not being set is a result: waits at most that long, and says whether it is set.
  bool isSetWithin(std::chrono::milliseconds limit) const;

 private:
  const std::string _name;
  mutable std::mutex _mutex;
  mutable std::condition_variable _changed;
  bool _set = false;  // guarded by _mutex
};

// Lets `open(n)` passages through, one for each pass().
class Gate {
 public:
  explicit Gate(std::string name = "a gate") : _name(std::move(name)) {}

  void open(std::size_t passages = 1);
  // Throws TimedOut.
  void pass();
  // How many have gone through.
  std::size_t passed() const;

 private:
  const std::string _name;
  mutable std::mutex _mutex;
  std::condition_variable _changed;
  std::size_t _free = 0;    // guarded by _mutex
  std::size_t _passed = 0;  // guarded by _mutex
};

}  // namespace test_support
