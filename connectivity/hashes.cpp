#include <bit>
#include <cstddef>
#include <stdexcept>
#include <string_view>

#include "connectivity/data_t.hpp"

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
  std::uint64_t result = hashSeed;
  details::ListWalk walk(list);
  while (const data_t* const element = walk.next())
    result = element->apply_visitor(calculate_hash(result));
  return result;
}

std::uint64_t calculate_hash::operator()(const map_t& map) const { return hash(map); }

std::uint64_t calculate_hash::operator()(const buffer_t& buffer) const noexcept {
  return mixBytes(buffer.view(), hashSeed);
}

std::uint64_t calculate_hash::operator()(const custom_t&) const {
  throw std::runtime_error("Cannot use custom values as a key");
}

std::uint64_t hash(const map_t& map) {
  std::uint64_t sum = hashSeed;
  for (const auto& [slotHash, key, value] : map) sum += hash(key) + hash(value);
  return sum;
}

}  // namespace connectivity::hashes
