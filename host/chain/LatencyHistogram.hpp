// How often which latency occurred, in bounded memory, with quantiles.
//
// The buckets are those of Gil Tene's HdrHistogram: each power of two is divided into 64 equal
// parts, so a value is known to within 1/64 of itself, whatever its size; a quantile is the middle
// of its bucket, at most 0.8 % off. 30 KB, no allocation after construction. Used by one thread at
// a time.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace host {

class LatencyHistogram {
 public:
  using Duration = std::chrono::nanoseconds;

  LatencyHistogram();

  // A negative one counts as zero.
  void record(Duration latency) noexcept;
  void add(const LatencyHistogram& other) noexcept;

  std::uint64_t count() const noexcept { return _count; }
  Duration max() const noexcept { return _max; }
  // The smallest recorded latency that `fraction` of all do not exceed (nearest rank); zero where
  // there is none. REQUIRES: 0 < fraction <= 1.
  Duration quantile(double fraction) const noexcept;

 private:
  static std::size_t bucketOf(std::uint64_t nanoseconds) noexcept;
  static std::uint64_t middleOf(std::size_t bucket) noexcept;

  std::vector<std::uint64_t> _buckets;
  std::uint64_t _count = 0;
  Duration _max{0};
};

}  // namespace host
