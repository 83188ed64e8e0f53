#include "host/Outstanding.hpp"

#include <algorithm>

namespace host {

void Outstanding::add(std::uint64_t count) {
  const orrery::AutoMutex lock(_mutex);
  _count += count;
}

void Outstanding::remove(std::uint64_t count) {
  const orrery::AutoMutex lock(_mutex);
  // A plug-in that answers more than it was asked must not make the count wrap.
  _count -= std::min(count, _count);
  if (_count == 0 && !_reading) _changed.broadcast();
}

bool Outstanding::isOne() const {
  const orrery::AutoMutex lock(_mutex);
  return _count == 1;
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
