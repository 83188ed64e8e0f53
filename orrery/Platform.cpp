#include "orrery/Platform.hpp"

#include <atomic>
#include <chrono>

namespace orrery {

namespace {

class SystemClock final : public Clock {
 public:
  double relativeHighResTimeFloat() const noexcept override {
    const auto sinceStart = std::chrono::steady_clock::now().time_since_epoch();
    return std::chrono::duration<double>(sinceStart).count();
  }
  std::int64_t sysTime() const noexcept override {
    const auto sinceEpoch = std::chrono::system_clock::now().time_since_epoch();
    return std::chrono::duration_cast<std::chrono::milliseconds>(sinceEpoch).count();
  }
};

constinit std::atomic<const Clock*> replacement{nullptr};

// The system's clock is made on use, so that it is there before and after every static object.
template <typename Read>
auto readClock(Read read) noexcept {
  const Clock* clock = replacement.load(std::memory_order_acquire);
  return clock == nullptr ? read(SystemClock()) : read(*clock);
}

}  // namespace

Clock::~Clock() = default;

double Platform::relativeHighResTimeFloat() noexcept {
  return readClock([](const Clock& clock) { return clock.relativeHighResTimeFloat(); });
}

std::int64_t Platform::sysTime() noexcept {
  return readClock([](const Clock& clock) { return clock.sysTime(); });
}

const Clock* Platform::replaceClock(const Clock* clock) noexcept {
  return replacement.exchange(clock, std::memory_order_acq_rel);
}

}  // namespace orrery
