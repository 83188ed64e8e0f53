#include "tests/support/Event.hpp"

namespace test_support {

void Event::set() {
  const std::lock_guard lock(_mutex);
  _set = true;
  _changed.notify_all();
}

bool Event::isSet() const {
  const std::lock_guard lock(_mutex);
  return _set;
}

void Event::wait() const {
  std::unique_lock lock(_mutex);
  if (!_changed.wait_for(lock, patience, [this] { return _set; })) throw TimedOut(_name);
}

bool Event::isSetWithin(std::chrono::milliseconds limit) const {
  std::unique_lock lock(_mutex);
  return _changed.wait_for(lock, limit, [this] { return _set; });
}

void Gate::open(std::size_t passages) {
  const std::lock_guard lock(_mutex);
  _free += passages;
  _changed.notify_all();
}

void Gate::pass() {
  std::unique_lock lock(_mutex);
  if (!_changed.wait_for(lock, patience, [this] { return _free > 0; })) throw TimedOut(_name);
  --_free;
  ++_passed;
}

std::size_t Gate::passed() const {
  const std::lock_guard lock(_mutex);
  return _passed;
}

}  // namespace test_support
