// Values that are nested as deep as a test wants, with what they hash to and look like.
#pragma once

#include <functional>
#include <string>
#include <utility>

#include "connectivity/data_t.hpp"

namespace connectivity_test {

using connectivity::data_t;
using connectivity::list_t;
using connectivity::map_t;

// A value with its hash, known without hashing it as a whole.
struct Hashed {
  data_t value;
  std::uint64_t hash;
};

inline Hashed hashedLeaf(const char* text) { return {data_t(text), qor_hash_string(text)}; }

inline data_t listOf(data_t&& element) {
  list_t list(qor_allocate_list(1));
  list.push_back(std::move(element));
  return data_t(std::move(list));
}

// One entry in a table of one slot. `hash` is the key's.
inline data_t mapOf(data_t&& key, data_t&& value, std::uint64_t hash) {
  map_t map(qor_allocate_map(1));
  map.insert({std::move(key), std::move(value)}, static_cast<long long>(hash));
  return data_t(std::move(map));
}

// One container more around a value. A list of one text or container hashes like that.
inline Hashed inList(Hashed&& inner) { return {listOf(std::move(inner.value)), inner.hash}; }
inline Hashed asValue(Hashed&& inner) {
  const std::uint64_t key = qor_hash_string("k");
  return {mapOf(data_t("k"), std::move(inner.value), key),
          connectivity::hashes::hashSeed + key + inner.hash};
}
inline Hashed asKey(Hashed&& inner) {
  return {mapOf(std::move(inner.value), data_t("v"), inner.hash),
          connectivity::hashes::hashSeed + inner.hash + qor_hash_string("v")};
}

// A way to nest: the container, and what stands in front of and behind the value in its text.
struct Nesting {
  const char* name;
  Hashed (*around)(Hashed&&);
  const char* front;
  const char* back;
};

inline constexpr Nesting nestings[] = {{"Lists", inList, "[", "]"},
                                       {"MapsAsValues", asValue, "{k=", "}"},
                                       {"MapsAsKeys", asKey, "{", "=v}"}};

inline Hashed nested(const Nesting& nesting, int levels, const char* leaf = "leaf") {
  Hashed result = hashedLeaf(leaf);
  for (int level = 0; level < levels; ++level) result = nesting.around(std::move(result));
  return result;
}

}  // namespace connectivity_test
