// The hashes of keys during one comparison.
//
// Internal to this folder; used by one thread while the keys do not change.
#pragma once

#include <cstdint>
#include <unordered_map>

#include "connectivity/data_t.hpp"

namespace connectivity::hashes {

// Hashes a key like hash(), and remembers the hashes of the lists and maps that are keys inside it:
// where keys are maps with maps for keys, and each is asked for in turn, all of them together cost
// time in proportion to their size. Keys are known by their address. Numbers and texts are not
// remembered.
class KeyHashes {
 public:
  std::uint64_t of(const data_t& key);

 private:
  std::unordered_map<const data_t*, std::uint64_t> _known;
};

}  // namespace connectivity::hashes
