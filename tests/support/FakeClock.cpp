#include "tests/support/FakeClock.hpp"

#include <cmath>

namespace test_support {

FakeClock::FakeClock(double seconds, std::int64_t milliseconds)
    : _seconds(seconds),
      _milliseconds(milliseconds),
      _previous(orrery::Platform::replaceClock(this)) {}

FakeClock::~FakeClock() { orrery::Platform::replaceClock(_previous); }

void FakeClock::advance(double seconds) {
  _seconds.store(_seconds.load() + seconds);
  _milliseconds.fetch_add(std::llround(seconds * 1000.0));
}

}  // namespace test_support
