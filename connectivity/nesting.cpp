#include "connectivity/nesting.hpp"

#include <cstdint>
#include <vector>

#include "connectivity/walks.hpp"

namespace connectivity {

namespace {

// Whether more than `limit` containers stand in each other, the one that is walked over among them.
// REQUIRES: limit > 0.
bool nestsDeeper(details::Walk walk, std::uint64_t limit) {
  std::vector<details::Walk> outer;  // the containers around, the outermost first
  for (;;) {
    const data_t* const next = walk.next();
    if (next == nullptr) {
      if (outer.empty()) return false;
      walk = outer.back();
      outer.pop_back();
    } else if (details::isContainer(*next)) {
      if (outer.size() + 1 == limit) return true;
      outer.push_back(walk);
      walk = details::Walk(*next);
    }
  }
}

}  // namespace

bool nestsDeeperThan(const data_t& value, unsigned levels) {
  if (!details::isContainer(value)) return false;
  return levels == 0 || nestsDeeper(details::Walk(value), levels);
}

bool nestsDeeperThan(const map_t& metadata, unsigned levels) {
  return nestsDeeper(details::Walk(metadata), std::uint64_t{levels} + 1);
}

bool nestsDeeperThan(const Message& message, unsigned levels) {
  return nestsDeeperThan(message.payload, levels) || nestsDeeperThan(message.metadata, levels);
}

}  // namespace connectivity
