#include <array>

#include <gtest/gtest.h>

#include "host/program/NearestWord.hpp"

namespace host {
namespace {

constexpr std::array<std::string_view, 6> words{"transport", "config", "codec",
                                                "input",     "id",     "warn"};

TEST(NearestWord, IsFoundForASlip) {
  EXPECT_EQ(nearestWord("trasnport", words), "transport");
  EXPECT_EQ(nearestWord("tranport", words), "transport");
  EXPECT_EQ(nearestWord("conffig", words), "config");
  EXPECT_EQ(nearestWord("kodec", words), "codec");
  EXPECT_EQ(nearestWord("ID", words), "id");
  EXPECT_EQ(nearestWord("Transport", words), "transport");
}

TEST(NearestWord, IsFoundForAWordThatIsCutOrGoesOn) {
  EXPECT_EQ(nearestWord("configuration", words), "config");
  EXPECT_EQ(nearestWord("warning", words), "warn");
  EXPECT_EQ(nearestWord("inp", words), "input");
}

TEST(NearestWord, IsTheNearestOfSeveral) {
  constexpr std::array<std::string_view, 2> similar{"input", "output"};
  EXPECT_EQ(nearestWord("outptu", similar), "output");
  EXPECT_EQ(nearestWord("inputt", similar), "input");
}

TEST(NearestWord, IsNoneWhereNothingIsNear) {
  for (const char* word : {"", "xyz", "host", "in", "transaction"}) {
    EXPECT_EQ(nearestWord(word, words), "") << word;
  }
  EXPECT_EQ(nearestWord(std::string(1000000, 'x'), words), "");
}

TEST(NearestWord, IsAskedForInAQuestion) {
  EXPECT_EQ(didYouMean("kodec", words), " (did you mean \"codec\"?)");
  EXPECT_EQ(didYouMean("nothing", words), "");
}

}  // namespace
}  // namespace host
