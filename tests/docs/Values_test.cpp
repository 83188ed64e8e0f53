#include "tests/docs/Values.hpp"

#include <algorithm>

#include <gtest/gtest.h>

namespace docs_tests {
namespace {

TEST(ExampleValues, AreHeldByAnswersThatSayMore) {
  const auto answer = jsonOf(R"({"a": {"b": 1, "c": "text that goes on"}, "d": [1]})");
  EXPECT_TRUE(holds(answer, jsonOf(R"("a": {"b": 1})")));
  EXPECT_TRUE(holds(answer, jsonOf(R"({"a": {"c": "text ... on"}, "d": [1]})")));
  EXPECT_FALSE(holds(answer, jsonOf(R"({"a": {"b": 2}})")));
  EXPECT_FALSE(holds(answer, jsonOf(R"({"a": {"c": "text"}})")));
  EXPECT_FALSE(holds(answer, jsonOf(R"({"e": null})")));
}

TEST(ExampleValues, MatchWithGaps) {
  EXPECT_TRUE(matches("Created 4 Threads", "Created … Threads"));
  EXPECT_TRUE(matches("abc", "..."));
  EXPECT_FALSE(matches("Created 4 Threads now", "Created … Threads"));
  EXPECT_FALSE(matches("abc", "b..."));
}

TEST(SourceLiterals, AreFoundAndJoined) {
  const auto literals = literalsBelow({"plugins/http_client"});
  const auto has = [&](const char* text) {
    return std::ranges::find(literals, text) != literals.end();
  };
  EXPECT_TRUE(has("proxy/authentication/authenticationType"));
  EXPECT_TRUE(
      has("Can't find filename in the form metadata. Data will be send as a string not as "
          "a binary payload"));
  const auto raw = literalsBelow({"tests/docs"});
  EXPECT_NE(std::ranges::find(raw, R"({"e": null})"), raw.end());
  EXPECT_TRUE(keyLiteralsBelow({"plugins/http_client"}).contains("qor.control.type"));
}

}  // namespace
}  // namespace docs_tests
