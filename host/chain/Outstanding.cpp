#include "host/chain/Outstanding.hpp"

#include <algorithm>

namespace host {

void Outstanding::add(std::uint64_t count, std::span<const std::uint64_t> keys, TimePoint now) {
  const orrery::AutoMutex lock(_mutex);
  _count += count;
  for (const std::uint64_t key : keys) _times.add(key, now);
}

std::optional<Outstanding::TimePoint> Outstanding::takeHandoverTime(std::uint64_t key) {
  const orrery::AutoMutex lock(_mutex);
  return _times.take(key);
}

void Outstanding::withdraw(std::uint64_t key) {
  takeHandoverTime(key);
  remove(1);
}

void Outstanding::remove(std::uint64_t count) {
  const orrery::AutoMutex lock(_mutex);
  const std::uint64_t before = _count;
  // A plug-in that answers more than it was asked must not make the count wrap.
  _count -= std::min(count, _count);
  if (_count == 0 || (before > _awaitedLevel && _count <= _awaitedLevel)) _changed.broadcast();
}

std::uint64_t Outstanding::count() const {
  const orrery::AutoMutex lock(_mutex);
  return _count;
}

void Outstanding::waitUntilAtMost(std::uint64_t level) {
  const orrery::AutoMutex lock(_mutex);
  _awaitedLevel = level;
  while (!_abandoned && _count > level) _changed.wait();
}

void Outstanding::endOfInput() {
  const orrery::AutoMutex lock(_mutex);
  _reading = false;
  _changed.broadcast();
}

void Outstanding::abandon() {
  const orrery::AutoMutex lock(_mutex);
  _abandoned = true;
  _changed.broadcast();
}

void Outstanding::waitUntilNone() {
  const orrery::AutoMutex lock(_mutex);
  while (!_abandoned && (_reading || _count > 0)) _changed.wait();
}

}  // namespace host
