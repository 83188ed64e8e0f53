#include "host/chain/LatencyHistogram.hpp"

#include <algorithm>
#include <bit>
#include <cmath>

namespace host {

namespace {

constexpr unsigned partBits = 6;
constexpr std::uint64_t parts = std::uint64_t{1} << partBits;
// Values below 2 * parts have a bucket each; every further power of two has `parts`.
constexpr std::size_t buckets = parts * (64 - partBits + 1);

}  // namespace

LatencyHistogram::LatencyHistogram() : _buckets(buckets) {}

std::size_t LatencyHistogram::bucketOf(std::uint64_t nanoseconds) noexcept {
  if (nanoseconds < 2 * parts) return static_cast<std::size_t>(nanoseconds);
  const auto shift = static_cast<unsigned>(std::bit_width(nanoseconds)) - partBits - 1;
  return static_cast<std::size_t>(parts * shift + (nanoseconds >> shift));
}

std::uint64_t LatencyHistogram::middleOf(std::size_t bucket) noexcept {
  if (bucket < 2 * parts) return bucket;
  const std::uint64_t shift = bucket / parts - 1;
  const std::uint64_t lowest = (bucket - parts * shift) << shift;
  return lowest + (std::uint64_t{1} << shift) / 2;
}

void LatencyHistogram::record(Duration latency) noexcept {
  latency = std::max(latency, Duration::zero());
  ++_buckets[bucketOf(static_cast<std::uint64_t>(latency.count()))];
  ++_count;
  _max = std::max(_max, latency);
}

void LatencyHistogram::add(const LatencyHistogram& other) noexcept {
  for (std::size_t i = 0; i < buckets; ++i) _buckets[i] += other._buckets[i];
  _count += other._count;
  _max = std::max(_max, other._max);
}

LatencyHistogram::Duration LatencyHistogram::quantile(double fraction) const noexcept {
  const auto rank = static_cast<std::uint64_t>(std::ceil(fraction * static_cast<double>(_count)));
  std::uint64_t seen = 0;
  for (std::size_t i = 0; i < buckets; ++i) {
    seen += _buckets[i];
    if (seen >= rank && seen > 0) {
      return std::min(_max, Duration(static_cast<Duration::rep>(middleOf(i))));
    }
  }
  return Duration::zero();
}

}  // namespace host
