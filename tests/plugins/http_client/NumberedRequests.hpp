// Requests told apart by their numbers, for tests of which are answered, and in what order.
#pragma once

#include <vector>

#include "tests/support/Messages.hpp"

namespace test_support {

inline Request get(long long id, const char* path = "/x") { return Request("GET", path).id(id); }

inline std::vector<long long> idsOf(const std::vector<Answer>& answers) {
  std::vector<long long> ids;
  ids.reserve(answers.size());
  for (const auto& answer : answers) ids.push_back(answer.id());
  return ids;
}

// 1 to `last`.
inline std::vector<long long> upTo(long long last) {
  std::vector<long long> ids;
  for (long long id = 1; id <= last; ++id) ids.push_back(id);
  return ids;
}

}  // namespace test_support
