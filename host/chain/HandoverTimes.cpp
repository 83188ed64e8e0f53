#include "host/chain/HandoverTimes.hpp"

namespace host {

namespace {

// Short queues while some thousands are outstanding, and small enough for a processor's cache.
constexpr std::size_t howManyBuckets = 4096;

}  // namespace

HandoverTimes::HandoverTimes() : _buckets(howManyBuckets) {}

void HandoverTimes::add(std::uint64_t key, TimePoint at) {
  const Index index = freeEntry();
  if (index == none) return;
  _entries[index] = {key, at, none};
  Bucket& bucket = bucketOf(key);
  (bucket.first == none ? bucket.first : _entries[bucket.last].next) = index;
  bucket.last = index;
}

HandoverTimes::Index HandoverTimes::freeEntry() {
  if (_free != none) {
    const Index index = _free;
    _free = _entries[index].next;
    return index;
  }
  if (_entries.size() == capacity) return none;
  _entries.push_back({});
  return static_cast<Index>(_entries.size() - 1);
}

std::optional<HandoverTimes::TimePoint> HandoverTimes::take(std::uint64_t key) noexcept {
  Bucket& bucket = bucketOf(key);
  Index before = none;
  Index index = bucket.first;
  while (index != none && _entries[index].key != key) {
    before = index;
    index = _entries[index].next;
  }
  if (index == none) return std::nullopt;
  Entry& entry = _entries[index];
  (before == none ? bucket.first : _entries[before].next) = entry.next;
  if (bucket.last == index) bucket.last = before;
  entry.next = _free;
  _free = index;
  return entry.at;
}

}  // namespace host
