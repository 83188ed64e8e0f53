// What a queue is made of: elements on lists, and the consumers that sleep because theirs are
// empty.
//
// Nothing here has a lock: whoever calls holds the queue's, save for Lane::wake.signal().
#pragma once

#include <cstdint>
#include <memory>
#include <type_traits>
#include <utility>

#include "orrery/Mutex.hpp"

namespace connectivity::plugins {

// A queued value.
template <typename Value>
struct LaneElement {
  // Takes `given` over once there is memory for it, so that a failure leaves it with the caller.
  template <typename Given>
  LaneElement(std::in_place_t, Given&& given) noexcept : value(std::forward<Given>(given)) {
    static_assert(std::is_nothrow_constructible_v<Value, Given&&>, "a value is lost by a throw");
  }

  Value value;
  std::uint64_t order = 0;  // of arrival in the queue
  std::unique_ptr<LaneElement> next;
};

// Elements in the order of their arrival. Owns them.
template <typename Element>
class ElementList {
 public:
  using Owner = std::unique_ptr<Element>;

  ElementList() = default;
  ElementList(const ElementList&) = delete;
  ElementList& operator=(const ElementList&) = delete;
  // One by one: a chain that is destroyed from its head would need the stack for all of it.
  ~ElementList() {
    while (!empty()) takeOldest();
  }

  bool empty() const noexcept { return _oldest == nullptr; }
  // REQUIRES: not empty.
  const Element& oldest() const noexcept { return *_oldest; }
  Owner takeOldest() noexcept {
    Owner taken = std::move(_oldest);
    _oldest = std::move(taken->next);
    if (_oldest == nullptr) _newest = nullptr;
    return taken;
  }
  void append(Owner&& element) noexcept {
    Element* const added = element.get();
    (_newest == nullptr ? _oldest : _newest->next) = std::move(element);
    _newest = added;
  }

 private:
  Owner _oldest;
  Element* _newest = nullptr;
};

// A consumer in front of its lane.
struct Sleeper {
  enum class State {
    Awake,
    Asleep,  // waits, and nobody has decided to wake it
    Chosen,  // somebody has: that one signals it, and nobody decides it again
  };

  explicit Sleeper(orrery::Mutex& mutex) noexcept : wake(mutex) {}

  State state = State::Awake;
  orrery::Condition wake;  // of this consumer alone
  Sleeper* above = nullptr;
  Sleeper* below = nullptr;
};

// Those that are Asleep, the one that fell asleep last on top.
class SleeperStack {
 public:
  bool empty() const noexcept { return _top == nullptr; }
  // REQUIRES: not empty.
  Sleeper& top() const noexcept { return *_top; }
  void push(Sleeper& sleeper) noexcept {
    sleeper.state = Sleeper::State::Asleep;
    sleeper.above = nullptr;
    sleeper.below = _top;
    if (_top != nullptr) _top->above = &sleeper;
    _top = &sleeper;
  }
  // Takes it off, wherever it stands. REQUIRES: it is Asleep.
  void choose(Sleeper& sleeper) noexcept {
    sleeper.state = Sleeper::State::Chosen;
    (sleeper.above == nullptr ? _top : sleeper.above->below) = sleeper.below;
    if (sleeper.below != nullptr) sleeper.below->above = sleeper.above;
  }

 private:
  Sleeper* _top = nullptr;
};

}  // namespace connectivity::plugins
