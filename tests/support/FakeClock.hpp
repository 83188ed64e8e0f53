// A clock that stands still until a test moves it. Stands for the process's clocks from its
// construction to its destruction; one at a time. Any thread may read and move it.
#pragma once

#include <atomic>
#include <cstdint>

#include "orrery/Platform.hpp"

namespace test_support {

class FakeClock final : public orrery::Clock {
 public:
  explicit FakeClock(double seconds = 1000.0, std::int64_t milliseconds = 1'700'000'000'000);
  ~FakeClock() override;
  FakeClock(const FakeClock&) = delete;
  FakeClock& operator=(const FakeClock&) = delete;

  double relativeHighResTimeFloat() const noexcept override { return _seconds.load(); }
  std::int64_t sysTime() const noexcept override { return _milliseconds.load(); }

  // Moves both clocks on.
  void advance(double seconds);
  void setSysTime(std::int64_t milliseconds) { _milliseconds.store(milliseconds); }

 private:
  std::atomic<double> _seconds;
  std::atomic<std::int64_t> _milliseconds;
  const orrery::Clock* _previous;
};

}  // namespace test_support
