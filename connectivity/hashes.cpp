#include <bit>
#include <cstddef>
#include <stdexcept>
#include <string_view>
#include <vector>

#include "connectivity/data_t.hpp"
#include "connectivity/key_hashes.hpp"
#include "connectivity/walks.hpp"

// MurmurHash64A (Austin Appleby, public domain), with which numbers and buffers are hashed.

namespace connectivity::hashes {

namespace {

constexpr std::uint64_t multiplier = 0xC6A4A7935BD1E995;
constexpr unsigned shift = 47;

constexpr std::uint64_t mixBlock(std::uint64_t hash, std::uint64_t block) noexcept {
  block *= multiplier;
  block ^= block >> shift;
  block *= multiplier;
  return (hash ^ block) * multiplier;
}

constexpr std::uint64_t finish(std::uint64_t hash) noexcept {
  hash ^= hash >> shift;
  hash *= multiplier;
  return hash ^ (hash >> shift);
}

constexpr std::uint64_t mixNumber(std::uint64_t bits, std::uint64_t seed) noexcept {
  return finish(mixBlock(seed ^ (8 * multiplier), bits));
}

// Up to 8 bytes, the first one lowest.
std::uint64_t littleEndian(std::string_view bytes) noexcept {
  std::uint64_t result = 0;
  for (std::size_t index = bytes.size(); index-- > 0;)
    result = (result << 8U) | static_cast<unsigned char>(bytes[index]);
  return result;
}

std::uint64_t mixBytes(std::string_view bytes, std::uint64_t seed) noexcept {
  std::uint64_t hash = seed ^ (bytes.size() * multiplier);
  for (; bytes.size() >= 8; bytes.remove_prefix(8))
    hash = mixBlock(hash, littleEndian(bytes.substr(0, 8)));
  if (!bytes.empty()) hash = (hash ^ littleEndian(bytes)) * multiplier;
  return finish(hash);
}

// Where the hashes of lists and maps that are keys are noted, by the key's address.
using Notes = std::unordered_map<const data_t*, std::uint64_t>;

// Where the hashes of keys come from.
enum class Keys { HashedAnew, AsStored };

// A list or map that is being hashed: a list chains the hashes of its elements, a map adds those of
// its keys and values.
class Level {
 public:
  Level(const details::Walk& walk, Keys keys, const data_t* key)
      : _walk(walk), _isMap(walk.isOverMap()), _keys(keys), _key(key) {}

  // Goes on up to a value that is a container, or to the end: then null.
  const data_t* nextContainer() {
    const data_t* value = _walk.next();
    for (; value != nullptr; value = _walk.next()) {
      if (_keys == Keys::AsStored && _walk.isAtKey()) {
        take(_walk.storedHash());
      } else if (details::isContainer(*value)) {
        break;
      } else {
        take(value->apply_visitor(calculate_hash(_isMap ? hashSeed : _hash)));
      }
    }
    return value;
  }
  // Whether nextContainer() gave a key.
  bool isAtKey() const noexcept { return _walk.isAtKey(); }
  void take(std::uint64_t hash) noexcept { _hash = _isMap ? _hash + hash : hash; }
  std::uint64_t hash() const noexcept { return _hash; }
  void noteIn(Notes& notes) const {
    if (_key != nullptr) notes.emplace(_key, _hash);
  }

 private:
  details::Walk _walk;
  bool _isMap;
  Keys _keys;
  const data_t* _key;  // the container itself where it is a key
  std::uint64_t _hash = hashSeed;
};

// Hashes by a stack of its own.
std::uint64_t hashDeep(const details::Walk& walk, Notes* notes, Keys keys = Keys::HashedAnew) {
  std::vector<Level> levels;
  levels.emplace_back(walk, keys, nullptr);
  for (;;) {
    if (const data_t* const inner = levels.back().nextContainer()) {
      const bool isKey = levels.back().isAtKey();
      levels.emplace_back(details::Walk(*inner), keys, isKey ? inner : nullptr);
      continue;
    }
    const Level ended = levels.back();
    levels.pop_back();
    if (notes != nullptr) ended.noteIn(*notes);
    if (levels.empty()) return ended.hash();
    levels.back().take(ended.hash());
  }
}

// --- By recursion, as long as it is not deep -----------------------------------------------------

class ShallowHash : public calculate_hash {
 public:
  // `deeper` more containers may be entered by recursion.
  ShallowHash(std::uint64_t seed, unsigned deeper) noexcept
      : calculate_hash(seed), _deeper(deeper) {}

  using calculate_hash::operator();
  std::uint64_t operator()(const list_t& list) const { return ofContainer(list); }
  std::uint64_t operator()(const map_t& map) const { return ofContainer(map); }

  static std::uint64_t of(const list_t& list, unsigned deeper) {
    std::uint64_t result = hashSeed;
    details::ListWalk walk(list);
    while (const data_t* const element = walk.next())
      result = element->apply_visitor(ShallowHash(result, deeper));
    return result;
  }
  static std::uint64_t of(const map_t& map, unsigned deeper) {
    const ShallowHash entry(hashSeed, deeper);
    std::uint64_t sum = hashSeed;
    // The hash of a key may call the host: the iterator looks again before it gives the value.
    for (auto at = map.begin(); !at.atEnd(); ++at) {
      sum += at.key().apply_visitor(entry);
      sum += at.value().apply_visitor(entry);
    }
    return sum;
  }

 private:
  template <typename Container>
  std::uint64_t ofContainer(const Container& container) const {
    return _deeper == 0 ? hashDeep(details::Walk(container), nullptr) : of(container, _deeper - 1);
  }

  unsigned _deeper;
};

}  // namespace

// Not symmetric on purpose: true is the seed, false its complement.
std::uint64_t calculate_hash::operator()(bool value) const noexcept {
  return value ? _seed : ~_seed;
}

// Zero and negative zero are one key.
std::uint64_t calculate_hash::operator()(double value) const noexcept {
  return mixNumber(value == 0.0 ? 0 : std::bit_cast<std::uint64_t>(value), _seed);
}

std::uint64_t calculate_hash::operator()(long long value) const noexcept {
  return mixNumber(static_cast<std::uint64_t>(value), _seed);
}

std::uint64_t calculate_hash::operator()(decimal_t value) const noexcept {
  return mixNumber(value.bits, _seed);
}

std::uint64_t calculate_hash::operator()(const char* text) const noexcept {
  return qor_hash_string(text);
}

std::uint64_t calculate_hash::operator()(const list_t& list) const {
  return ShallowHash::of(list, details::recursionLimit);
}

std::uint64_t calculate_hash::operator()(const map_t& map) const { return hash(map); }

std::uint64_t calculate_hash::operator()(const buffer_t& buffer) const noexcept {
  return mixBytes(buffer.view(), hashSeed);
}

std::uint64_t calculate_hash::operator()(const custom_t&) const {
  throw std::runtime_error("Cannot use custom values as a key");
}

std::uint64_t hash(const map_t& map) { return ShallowHash::of(map, details::recursionLimit); }

std::uint64_t hashByStored(const data_t& value) {
  if (!details::isContainer(value)) return hash(value);
  return hashDeep(details::Walk(value), nullptr, Keys::AsStored);
}

std::uint64_t KeyHashes::of(const data_t& key) {
  if (!details::isContainer(key)) return hash(key);
  const auto found = _known.find(&key);
  return found != _known.end() ? found->second : hashDeep(details::Walk(key), &_known);
}

}  // namespace connectivity::hashes
