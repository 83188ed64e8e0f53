#include "host/program/NearestWord.hpp"

#include <algorithm>
#include <vector>

#include <Poco/String.h>

namespace host {

namespace {

std::size_t distance(std::string_view left, std::string_view right) {
  using Row = std::vector<std::size_t>;
  std::vector<Row> table(left.size() + 1, Row(right.size() + 1));
  for (std::size_t i = 0; i <= left.size(); ++i) table[i][0] = i;
  for (std::size_t j = 0; j <= right.size(); ++j) table[0][j] = j;
  for (std::size_t i = 1; i <= left.size(); ++i) {
    for (std::size_t j = 1; j <= right.size(); ++j) {
      const std::size_t changed = table[i - 1][j - 1] + (left[i - 1] == right[j - 1] ? 0 : 1);
      table[i][j] = std::min({table[i - 1][j] + 1, table[i][j - 1] + 1, changed});
      const bool isSwapped =
          i > 1 && j > 1 && left[i - 1] == right[j - 2] && left[i - 2] == right[j - 1];
      if (isSwapped) table[i][j] = std::min(table[i][j], table[i - 2][j - 2] + 1);
    }
  }
  return table[left.size()][right.size()];
}

bool continues(std::string_view longer, std::string_view shorter) {
  return shorter.size() >= 3 && longer.starts_with(shorter);
}

// How near two words are; 0: equal but for case.
std::size_t farness(const std::string& word, const std::string& candidate) {
  if (continues(word, candidate) || continues(candidate, word)) return word != candidate ? 1 : 0;
  return distance(word, candidate);
}

// In a word of that length.
std::size_t mostSlips(std::size_t length) {
  return length < 3 ? 0 : std::max<std::size_t>(1, length / 3);
}

}  // namespace

std::string_view nearestWord(std::string_view word, std::span<const std::string_view> candidates) {
  // Longer ones are no slips, and would cost time.
  constexpr std::size_t longestWord = 100;
  if (word.size() > longestWord) return {};
  const std::string lower = Poco::toLower(std::string(word));
  std::string_view nearest;
  std::size_t least = longestWord;
  for (const std::string_view candidate : candidates) {
    const std::size_t far = farness(lower, Poco::toLower(std::string(candidate)));
    if (far > mostSlips(std::max(word.size(), candidate.size())) || far >= least) continue;
    nearest = candidate;
    least = far;
  }
  return nearest;
}

std::string didYouMean(std::string_view word, std::span<const std::string_view> candidates) {
  const std::string_view nearest = nearestWord(word, candidates);
  if (nearest.empty()) return {};
  return " (did you mean \"" + std::string(nearest) + "\"?)";
}

}  // namespace host
