// What the lanes of a queue are made of: rings of links, and elements that stand on several of
// them.
//
// Nothing here has a lock: whoever links and unlinks holds the queue's.
#pragma once

#include <cstdint>
#include <memory>
#include <new>
#include <type_traits>
#include <utility>

namespace connectivity::plugins {

// Links one element into one lane; points at itself while it is on none. A lane is a ring of them
// around its head.
struct LinkPair {
  LinkPair* next = this;
  LinkPair* previous = this;
  void* element = nullptr;  // the element it belongs to; null for a lane's head

  explicit LinkPair(void* owner = nullptr) noexcept : element(owner) {}
  LinkPair(const LinkPair&) = delete;
  LinkPair& operator=(const LinkPair&) = delete;
  ~LinkPair() = default;

  bool isAlone() const noexcept { return next == this; }
  void appendTo(LinkPair& head) noexcept {
    next = &head;
    previous = head.previous;
    previous->next = this;
    head.previous = this;
  }
  void unlink() noexcept {
    previous->next = next;
    next->previous = previous;
    next = previous = this;
  }
};

// A queued value and its link pairs, in one block: as many pairs as lanes that it stands on. It
// leaves every lane before it is destroyed.
template <typename Value>
class LaneElement {
 public:
  struct Destroy {
    void operator()(LaneElement* element) const noexcept {
      element->~LaneElement();
      ::operator delete(element);
    }
  };
  using Owner = std::unique_ptr<LaneElement, Destroy>;

  // Takes `given` over once the block is there, so that a failure leaves it with the caller.
  template <typename Given>
  static Owner create(std::uint32_t pairs, Given&& given) {
    static_assert(std::is_nothrow_constructible_v<Value, Given&&>, "a value is lost by a throw");
    void* block = ::operator new(sizeof(LaneElement) + pairs * sizeof(LinkPair));
    return Owner(new (block) LaneElement(pairs, std::forward<Given>(given)));
  }
  // The analyzer does not see that an element leaves every lane before it is destroyed.
  static LaneElement* of(const LinkPair& pair) noexcept {
    return static_cast<LaneElement*>(pair.element);  // NOLINT(clang-analyzer-cplusplus.NewDelete)
  }

  LaneElement(const LaneElement&) = delete;
  LaneElement& operator=(const LaneElement&) = delete;

  LinkPair& pair(std::uint32_t index) noexcept { return *pairAt(index); }
  void unlink() noexcept {
    for (std::uint32_t i = 0; i < _pairs; ++i) pair(i).unlink();
  }

 private:
  template <typename Given>
  LaneElement(std::uint32_t pairs, Given&& given) noexcept
      : _pairs(pairs), value(std::forward<Given>(given)) {
    for (std::uint32_t i = 0; i < pairs; ++i) new (pairAt(i)) LinkPair(this);
  }
  ~LaneElement() = default;

  LinkPair* pairAt(std::uint32_t index) noexcept {
    return reinterpret_cast<LinkPair*>(this + 1) + index;
  }

  alignas(LinkPair) const std::uint32_t _pairs;  // so the pairs that follow are aligned

 public:
  Value value;
};

}  // namespace connectivity::plugins
