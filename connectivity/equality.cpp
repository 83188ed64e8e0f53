// Equality of values.
#include <algorithm>
#include <cstring>
#include <optional>
#include <variant>
#include <vector>

#include "connectivity/data_t.hpp"
#include "connectivity/key_hashes.hpp"
#include "connectivity/probing.hpp"
#include "connectivity/walks.hpp"

namespace connectivity {

namespace {

// Whether a value is equal to the alternative that the visitor is applied to. Reached with equal
// tags only.
class EqualTo {
 public:
  // `deeper` more containers may be entered by recursion.
  EqualTo(const data_t& other, unsigned deeper) noexcept : _other(other), _deeper(deeper) {}
  bool operator()() const noexcept { return true; }
  bool operator()(bool value) const noexcept { return value == _other.raw().value.boolean; }
  bool operator()(double value) const noexcept { return value == _other.raw().value.float64; }
  bool operator()(long long value) const noexcept { return value == _other.raw().value.int64; }
  bool operator()(decimal_t value) const noexcept {
    return value.bits == _other.raw().value.decimal;
  }
  bool operator()(const char* text) const noexcept { return std::strcmp(text, _other.text()) == 0; }
  bool operator()(const list_t& value) const { return isEqualContainer(value); }
  bool operator()(const map_t& value) const { return isEqualContainer(value); }
  bool operator()(const buffer_t& value) const noexcept {
    return value.view() == details::heldAs<buffer_t>(_other)->view();
  }
  // Custom values have no equality, not even with themselves.
  bool operator()(const custom_t&) const noexcept { return false; }
  bool unknown() const noexcept { return false; }

 private:
  template <typename Container>
  bool isEqualContainer(const Container& value) const;

  const data_t& _other;
  unsigned _deeper;
};

bool haveSameHeaderText(const map_t& left, const map_t& right) noexcept {
  const char* const mine = left.table() == nullptr ? nullptr : left.table()->header_string;
  const char* const theirs = right.table() == nullptr ? nullptr : right.table()->header_string;
  if (mine == nullptr || theirs == nullptr) return mine == theirs;
  return std::strcmp(mine, theirs) == 0;
}

// What is compared before any entry.
bool haveSameHead(const map_t& left, const map_t& right) noexcept {
  return left.size() == right.size() && haveSameHeaderText(left, right);
}

// --- Values of any depth -------------------------------------------------------------------------

struct Pair {
  const data_t* left;
  const data_t* right;
};

// Two lists of one length, element by element.
class ListPairs {
 public:
  ListPairs(const list_t& left, const list_t& right) noexcept
      : _left(left.begin()), _end(left.end()), _right(right.begin()) {}

  std::optional<bool> next(Pair& pair) noexcept {
    if (_left == _end) return true;
    pair = {_left++, _right++};
    return std::nullopt;
  }
  static bool goesOnAfter(bool areEqual) noexcept { return areEqual; }

 private:
  const data_t* _left;
  const data_t* _end;
  const data_t* _right;
};

// Each entry of one map against another map: its key against those with the same hash there, until
// one is equal, and then the values.
class EntryPairs {
 public:
  EntryPairs(const map_t& left, const map_t& right, hashes::KeyHashes& keys)
      : _at(left.begin()), _right(right), _keys(keys) {}

  std::optional<bool> next(Pair& pair) {
    if (_isKeyFound) {
      _isKeyFound = false;
      pair = {&_at.value(), &details::valueOf(*_candidate)};
      _candidates.reset();
      return std::nullopt;
    }
    if (!_candidates && !beginEntry()) return true;
    _candidate = _candidates->next();
    if (_candidate == nullptr) return false;
    pair = {&details::keyOf(*_candidate), &_at.key()};
    return std::nullopt;
  }
  // Keys may differ: then the next candidate is looked at.
  bool goesOnAfter(bool areEqual) noexcept {
    if (!_candidates) return areEqual;
    _isKeyFound = areEqual;
    return true;
  }

 private:
  // False at the end of the map.
  bool beginEntry() {
    if (_hasBegun) ++_at;
    _hasBegun = true;
    if (_at.atEnd()) return false;
    const std::uint64_t hash = _keys.of(_at.key());
    _candidates.emplace(_right.table(), hash);
    return true;
  }

  map_t::const_iterator _at;
  const map_t& _right;
  hashes::KeyHashes& _keys;
  bool _hasBegun = false;
  std::optional<details::Candidates> _candidates;  // while the key is looked for
  const details::Slot* _candidate = nullptr;
  bool _isKeyFound = false;
};

// A comparison of two containers by a stack of its own.
class DeepComparison {
 public:
  template <typename Container>
  bool areEqual(const Container& left, const Container& right) {
    std::optional<bool> outcome = begin(left, right);
    while (!outcome || !_levels.empty()) outcome = outcome ? report(*outcome) : compareNext();
    return *outcome;
  }

 private:
  using Level = std::variant<ListPairs, EntryPairs>;

  // An outcome, or none where it takes the pairs in the two to know.
  std::optional<bool> begin(const data_t& left, const data_t& right) {
    if (left.tag() != right.tag()) return false;
    if (!details::isContainer(left)) return left.apply_visitor(EqualTo(right, 0));
    if (left.tag() == QOR_LIST)
      return begin(*details::heldAs<list_t>(left), *details::heldAs<list_t>(right));
    return begin(*details::heldAs<map_t>(left), *details::heldAs<map_t>(right));
  }
  std::optional<bool> begin(const list_t& left, const list_t& right) {
    if (left.size() != right.size()) return false;
    _levels.emplace_back(ListPairs(left, right));
    return std::nullopt;
  }
  std::optional<bool> begin(const map_t& left, const map_t& right) {
    if (!haveSameHead(left, right)) return false;
    _levels.emplace_back(EntryPairs(left, right, _keys));
    return std::nullopt;
  }

  // Compares the next pair of the innermost level. An outcome is that of the pair, or of the level
  // where it has ended.
  std::optional<bool> compareNext() {
    Pair pair{};
    const std::optional<bool> end =
        std::visit([&pair](auto& level) { return level.next(pair); }, _levels.back());
    if (!end) return begin(*pair.left, *pair.right);
    _levels.pop_back();
    return end;
  }

  // Gives an outcome to the innermost level: it goes on, or ends with that outcome.
  std::optional<bool> report(bool outcome) {
    const auto goesOn = [outcome](auto& level) { return level.goesOnAfter(outcome); };
    if (std::visit(goesOn, _levels.back())) return std::nullopt;
    _levels.pop_back();
    return outcome;
  }

  hashes::KeyHashes _keys;
  std::vector<Level> _levels;
};

// Apart, so that what is not deep does not pay for it.
template <typename Container>
[[gnu::noinline]] bool areEqualDeep(const Container& left, const Container& right) {
  return DeepComparison().areEqual(left, right);
}

// --- By recursion, as long as it is not deep -----------------------------------------------------

bool areEqual(const data_t& left, const data_t& right, unsigned deeper) {
  return left.tag() == right.tag() && left.apply_visitor(EqualTo(right, deeper));
}

bool areEqual(const list_t& left, const list_t& right, unsigned deeper) {
  const auto equal = [deeper](const data_t& mine, const data_t& theirs) {
    return areEqual(mine, theirs, deeper);
  };
  return std::equal(left.begin(), left.end(), right.begin(), right.end(), equal);
}

// The value under the key, or null.
const data_t* find(const map_t& map, const data_t& key, unsigned deeper) {
  details::Candidates candidates(map.table(), hashes::hash(key));
  while (const details::Slot* const slot = candidates.next())
    if (areEqual(details::keyOf(*slot), key, deeper)) return &details::valueOf(*slot);
  return nullptr;
}

bool areEqual(const map_t& left, const map_t& right, unsigned deeper) {
  if (!haveSameHead(left, right)) return false;
  const map_t::const_iterator last = left.end();
  for (map_t::const_iterator at = left.begin(); at != last; ++at) {
    const data_t* const theirs = find(right, at.key(), deeper);
    if (theirs == nullptr || !areEqual(at.value(), *theirs, deeper)) return false;
  }
  return true;
}

template <typename Container>
bool EqualTo::isEqualContainer(const Container& value) const {
  const auto& other = *details::heldAs<Container>(_other);
  return _deeper == 0 ? areEqualDeep(value, other) : areEqual(value, other, _deeper - 1);
}

}  // namespace

bool data_t::operator==(const data_t& other) const {
  return areEqual(*this, other, details::recursionLimit);
}

bool map_t::operator==(const map_t& other) const {
  return areEqual(*this, other, details::recursionLimit);
}

}  // namespace connectivity
