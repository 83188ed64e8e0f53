#include <map>
#include <random>
#include <string>

#include <gtest/gtest.h>

#include "connectivity/data_t.hpp"

// Random steps on a map_t and on a std::map must agree at every step.

namespace connectivity {
namespace {

class MapAgainstModel : public ::testing::TestWithParam<unsigned> {
 protected:
  // Half of the keys are numbers and half are texts.
  static data_t keyOf(int key) { return key % 2 == 0 ? data_t(key) : data_t(std::to_string(key)); }

  void insert(int key, int value) {
    const bool isNew = map.insert(keyOf(key), data_t(value)).second;
    ASSERT_EQ(isNew, model.emplace(key, value).second);
  }

  void erase(int key) {
    const data_t sought = keyOf(key);
    const auto at = map.find_for_insert(sought, hashes::hash(sought)).first;
    ASSERT_EQ(at.atEnd(), model.count(key) == 0);
    map.erase(at);
    model.erase(key);
  }

  void find(int key) {
    const data_t* const value = map.find(keyOf(key));
    const auto expected = model.find(key);
    ASSERT_EQ(value != nullptr, expected != model.end());
    if (value != nullptr) {
      ASSERT_TRUE(*value == data_t(expected->second));
    }
  }

  void compareAll() {
    ASSERT_EQ(map.size(), model.size());
    std::size_t visited = 0;
    for (const auto& [hash, key, value] : map) {
      ASSERT_EQ(hash, hashes::hash(key));
      ++visited;
    }
    ASSERT_EQ(visited, model.size());
    for (const auto& [key, value] : model) find(key);
  }

  void compareCopies() {
    map_t copy = map.copy();
    ASSERT_TRUE(copy == map);
    ASSERT_TRUE(map == copy);
    ASSERT_EQ(hashes::hash(copy), hashes::hash(map));
    map_t rebuilt;
    for (const auto& [key, value] : model) rebuilt.insert(keyOf(key), data_t(value));
    ASSERT_TRUE(rebuilt == map);
    ASSERT_EQ(hashes::hash(rebuilt), hashes::hash(map));
    copy.insert(data_t("in the copy only"), data_t(1));
    ASSERT_FALSE(copy == map);
  }

  map_t map;
  std::map<int, int> model;
};

TEST_P(MapAgainstModel, AgreesAtEveryStep) {
  std::mt19937 random(GetParam());
  const auto below = [&random](unsigned limit) { return static_cast<int>(random() % limit); };
  for (int step = 0; step < 4000; ++step) {
    const int key = below(150);
    const int choice = below(10);
    if (choice < 5) {
      insert(key, step);
    } else if (choice < 8) {
      erase(key);
    } else {
      find(key);
    }
    if (step % 100 == 0) compareAll();
    if (step % 500 == 0) compareCopies();
    if (HasFatalFailure()) return;
  }
  compareAll();
  compareCopies();
}

INSTANTIATE_TEST_SUITE_P(Seeds, MapAgainstModel, ::testing::Values(1U, 20240501U, 77777U));

}  // namespace
}  // namespace connectivity
