// JSON of values in values: depth costs no stack, and a key in a key is hashed and written once.
#include <algorithm>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "connectivity/value_access.hpp"
#include "host/messages/JsonReader.hpp"
#include "host/messages/JsonWriter.hpp"
#include "tests/connectivity/HostCalls.hpp"
#include "tests/connectivity/NestedValues.hpp"
#include "tests/support/SmallStack.hpp"

namespace host {
namespace {

using connectivity::data_t;
using connectivity::get;
using connectivity::list_t;
using connectivity::map_t;
using connectivity_test::nested;
using connectivity_test::nestings;
using test_support::onSmallStack;

std::string around(const std::string& front, const std::string& inner, const std::string& back,
                   int levels) {
  std::string text;
  for (int level = 0; level < levels; ++level) text += front;
  text += inner;
  for (int level = 0; level < levels; ++level) text += back;
  return text;
}

TEST(JsonDepth, CostsNoStackInWriting) {
  constexpr int levels = 100'000;
  onSmallStack([] {
    EXPECT_TRUE(toJson(nested(nestings[0], levels).value) == around("[", "\"leaf\"", "]", levels));
    EXPECT_TRUE(toJson(nested(nestings[1], levels).value) ==
                around(R"({"k":)", "\"leaf\"", "}", levels));
  });
}

TEST(JsonDepth, CostsNoStackInWritingKeysInKeys) {
  constexpr int levels = 100'000;
  onSmallStack([] {
    // The innermost map has a text for its key: an object.
    EXPECT_TRUE(toJson(nested(nestings[2], levels).value) ==
                around(R"({"$map":[[)", R"({"leaf":"v"})", R"(,"v"]]})", levels - 1));
  });
}

// Three of the reader's levels make one key in a key: an object, the list, and the pair.
std::string keysInKeys(int levels) {
  return around(R"({"$map":[[)", R"({"leaf":"v"})", R"(,"v"]]})", levels);
}

TEST(JsonDepth, KeysInKeysAreHashedOnceEach) {
  constexpr int levels = 330;
  const connectivity_test::HostCalls calls;
  const data_t value = JsonReader(JsonReader::Forms::Extended).read(keysInKeys(levels));
  // "leaf", and one "v" for each key.
  EXPECT_EQ(calls.count("qor_hash_string"), 1 + levels);
  EXPECT_TRUE(toJson(value) == keysInKeys(levels));
}

// A map with the key, and three more lists as keys, each with the level in it.
data_t withLists(data_t&& key, long long level) {
  map_t map;
  for (long long i = 0; i < 3; ++i) {
    list_t list;
    list.push_back(data_t(i));
    list.push_back(data_t(level));
    map.insert({data_t(std::move(list)), data_t(true)}, i);
  }
  map.insert({std::move(key), data_t(false)}, 5);
  return data_t(std::move(map));
}

// Were each key written twice, this would never end.
TEST(JsonDepth, KeysInKeysAreWrittenOnceEach) {
  constexpr int levels = 300;
  data_t value(0);
  std::string expected = "0";
  for (int level = 0; level < levels; ++level) {
    value = withLists(std::move(value), level);
    const std::string end = "," + std::to_string(level) + "],true]";
    const std::string lists = "[[0" + end + ",[[1" + end + ",[[2" + end;
    const std::string key = "[" + expected + ",false]";
    // A number comes before a list, a list before a map.
    expected = level == 0 ? key + "," + lists : lists + "," + key;
    expected = R"({"$map":[)" + expected + "]}";
  }
  EXPECT_TRUE(toJson(value) == expected);
}

// --- Any value -----------------------------------------------------------------------------------

// As the writer should: by recursion, each key's text in a string of its own.
std::string naively(const data_t& value);

std::string naively(const map_t& map) {
  std::vector<std::pair<std::pair<std::uint32_t, std::string>, std::string>> pairs;
  bool onlyTexts = true;
  for (auto entry = map.begin(); !entry.atEnd(); ++entry) {
    onlyTexts = onlyTexts && entry.key().isString();
    pairs.push_back({{entry.key().tag(), naively(entry.key())}, naively(entry.value())});
  }
  std::sort(pairs.begin(), pairs.end());
  std::string text;
  for (const auto& [key, entry] : pairs) {
    if (!text.empty()) text += ',';
    text += onlyTexts ? key.second + ":" + entry : "[" + key.second + "," + entry + "]";
  }
  return onlyTexts ? "{" + text + "}" : R"({"$map":[)" + text + "]}";
}

std::string naively(const data_t& value) {
  if (value.tag() == QOR_MAP) return naively(get<map_t>(value));
  if (value.tag() != QOR_LIST) return toJson(value);
  std::string text;
  for (const data_t& element : get<list_t>(value)) {
    text += (text.empty() ? "" : ",") + naively(element);
  }
  return "[" + text + "]";
}

class RandomValues {
 public:
  explicit RandomValues(unsigned seed) : _random(seed) {}

  data_t next(int levels) {
    const unsigned kind = pick(levels == 0 ? 3 : 7);
    if (kind >= 4) return map(levels - 1);
    if (kind == 3) return list(levels - 1);
    if (kind == 2) return data_t(pick(2) == 0 ? "a" : "ab");
    return kind == 1 ? data_t(pick(2) == 0) : data_t();
  }

 private:
  unsigned pick(unsigned count) { return static_cast<unsigned>(_random() % count); }
  data_t list(int levels) {
    list_t list;
    for (unsigned count = pick(4); count > 0; --count) list.push_back(next(levels));
    return data_t(std::move(list));
  }
  data_t map(int levels) {
    map_t map;
    for (unsigned count = pick(6); count > 0; --count) map.insert(next(levels), next(levels));
    return data_t(std::move(map));
  }

  std::mt19937 _random;
};

TEST(JsonDepth, KeysInKeysAreOrderedAndReadBack) {
  RandomValues values(20260131);
  JsonReader reader(JsonReader::Forms::Extended);
  std::string text;
  JsonWriter writer(text);
  std::size_t longest = 0;
  for (int count = 0; count < 2'000; ++count) {
    const data_t value = values.next(5);
    text.clear();
    writer.write(value);
    ASSERT_EQ(text, naively(value));
    const data_t back = reader.read(text);
    ASSERT_TRUE(back == value) << text;
    ASSERT_EQ(connectivity::hashes::hashByStored(back), connectivity::hashes::hash(value)) << text;
    longest = std::max(longest, text.size());
  }
  EXPECT_GT(longest, 2'000U);
}

}  // namespace
}  // namespace host
