// Going through lists and maps alike, value by value, with the iterator checks; so that nested ones
// can be gone through without recursion, and depth costs memory from the heap and no stack.
//
// Internal to this folder. An object here is used by one thread, and holds pointers into values
// that must outlive it.
#pragma once

#include <utility>
#include <variant>

#include "connectivity/data_t.hpp"

namespace connectivity::details {

// So many containers inside each other are gone through by recursion, which is faster; what is
// nested deeper, without.
inline constexpr unsigned recursionLimit = 8;

inline bool isContainer(const data_t& value) noexcept {
  return value.tag() == QOR_LIST || value.tag() == QOR_MAP;
}

// Gives the alternative that it is applied to, where that is the one asked for.
template <typename Held>
struct HeldVisitor {
  const Held* operator()() const noexcept { return nullptr; }
  const Held* operator()(const Held& held) const noexcept { return &held; }
  template <typename Other>
  const Held* operator()(const Other&) const noexcept {
    return nullptr;
  }
  const Held* unknown() const noexcept { return nullptr; }
};

// The alternative Held, or null where the value holds another one.
template <typename Held>
const Held* heldAs(const data_t& value) noexcept {
  return value.apply_visitor(HeldVisitor<Held>());
}

// A walk over a map: each entry's key, then its value.
class MapWalk {
 public:
  explicit MapWalk(const map_t& map) : _at(map.begin()) {}

  // The next key or value, or null at the end. Raises the errors of map_t's iterators where the map
  // has changed since the one before: what is done with a key may call the host.
  const data_t* next() {
    if (_isAtKey) {
      _isAtKey = false;
      return &_at.value();
    }
    if (_hasBegun) ++_at;
    _hasBegun = true;
    if (_at.atEnd()) return nullptr;
    _isAtKey = true;
    return &_at.key();
  }
  // Whether next() gave a key at last.
  bool isAtKey() const noexcept { return _isAtKey; }
  // That key's hash, as its slot has it.
  std::uint64_t storedHash() const { return (*_at).hash; }

 private:
  map_t::const_iterator _at;
  bool _isAtKey = false;
  bool _hasBegun = false;
};

// A walk over a list or a map.
class Walk {
 public:
  explicit Walk(const list_t& list) noexcept : _walk(std::in_place_type<ListWalk>, list) {}
  explicit Walk(const map_t& map) : _walk(std::in_place_type<MapWalk>, map) {}
  // REQUIRES: isContainer(container).
  explicit Walk(const data_t& container)
      : Walk(container.tag() == QOR_LIST ? Walk(*heldAs<list_t>(container))
                                         : Walk(*heldAs<map_t>(container))) {}

  bool isOverMap() const noexcept { return std::holds_alternative<MapWalk>(_walk); }
  // Whether next() gave a map's key at last.
  bool isAtKey() const noexcept {
    const auto* const map = std::get_if<MapWalk>(&_walk);
    return map != nullptr && map->isAtKey();
  }
  // REQUIRES: isAtKey().
  std::uint64_t storedHash() const { return std::get_if<MapWalk>(&_walk)->storedHash(); }
  // The next value, or null at the end; with the errors of ListWalk and MapWalk.
  const data_t* next() {
    if (auto* const list = std::get_if<ListWalk>(&_walk)) return list->next();
    return std::get_if<MapWalk>(&_walk)->next();
  }

 private:
  std::variant<ListWalk, MapWalk> _walk;
};

}  // namespace connectivity::details
