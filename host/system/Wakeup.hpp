// A flag that threads can wait for with poll().
#pragma once

#include <chrono>

namespace host {

// Set once and for all; any thread may call anything.
class Wakeup {
 public:
  // Throws std::system_error where the system has no descriptor left.
  Wakeup();
  ~Wakeup();
  Wakeup(const Wakeup&) = delete;
  Wakeup& operator=(const Wakeup&) = delete;

  void set() const noexcept;
  bool isSet() const noexcept;
  // Waits for the flag; false where it is not set by then.
  bool waitUntil(std::chrono::steady_clock::time_point until) const noexcept;
  // Readable once the flag is set; never to be read from.
  int descriptor() const noexcept { return _descriptor; }

 private:
  const int _descriptor;
};

}  // namespace host
