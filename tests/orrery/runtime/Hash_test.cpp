// The hash of texts: the same within a process, another one in each process.
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "connectivity/qor_plugin.h"
#include "tests/support/ChildProcess.hpp"

namespace {

using Variables = std::vector<std::string>;

const std::string longText(1'000, 'x');

struct Outcome {
  std::string hashes;
  std::string errors;
};

// What a process with these variables hashes some texts to. Texts of up to 3, 8, 16, 128 and 240
// bytes, and longer ones, are each hashed in a way of their own.
Outcome hashesIn(const Variables& variables) {
  test_support::ChildProcess child(
      {TEXT_HASHES, "", "a", "abc", "abcdefgh", "abcdefghijkl", "a text of more than sixteen bytes",
       std::string(200, 'x'), longText},
      {variables, {}});
  EXPECT_EQ(child.wait(), 0);
  return {child.output(), child.errors()};
}

std::vector<std::string> linesOf(const std::string& text) {
  std::vector<std::string> lines;
  for (std::size_t start = 0; start < text.size();) {
    const std::size_t end = text.find('\n', start);
    lines.push_back(text.substr(start, end - start));
    start = end + 1;
  }
  return lines;
}

// How many of the texts have one hash in both.
int equalHashes(const Outcome& left, const Outcome& right) {
  const auto mine = linesOf(left.hashes);
  const auto theirs = linesOf(right.hashes);
  EXPECT_EQ(mine.size(), 8U);
  EXPECT_EQ(theirs.size(), 8U);
  int equal = 0;
  for (std::size_t i = 0; i < mine.size() && i < theirs.size(); ++i) equal += mine[i] == theirs[i];
  return equal;
}

TEST(RuntimeHash, IsTheSameForTheSameTextWithinAProcess) {
  EXPECT_EQ(qor_hash_string("text"), qor_hash_string(std::string("text").c_str()));
  EXPECT_NE(qor_hash_string("text"), qor_hash_string("texu"));
}

TEST(RuntimeHash, IsAnotherOneInEachProcess) {
  const Outcome first = hashesIn({});
  EXPECT_EQ(equalHashes(first, hashesIn({})), 0);
  EXPECT_EQ(equalHashes(first, hashesIn({"ORRERY_HASH_SEED=0"})), 0);
  EXPECT_EQ(first.errors, "");
}

TEST(RuntimeHash, IsFixedByASeed) {
  const Outcome seven = hashesIn({"ORRERY_HASH_SEED=7"});
  EXPECT_EQ(equalHashes(seven, hashesIn({"ORRERY_HASH_SEED=7"})), 8);
  EXPECT_EQ(equalHashes(seven, hashesIn({"ORRERY_HASH_SEED=-7"})), 0);
  EXPECT_EQ(equalHashes(seven, hashesIn({"ORRERY_HASH_SEED=0"})), 0);
  EXPECT_EQ(seven.errors, "");
}

// Values of the reference implementation; that of the empty text is published as a test vector.
TEST(RuntimeHash, IsXxh3WithoutASecretWhereTheSeedIsZero) {
  const auto hashes = linesOf(hashesIn({"ORRERY_HASH_SEED=0"}).hashes);
  ASSERT_EQ(hashes.size(), 8U);
  EXPECT_EQ(hashes[0], "2D06800538D394C2");
  EXPECT_EQ(hashes[1], "E6C632B61E964E1F");
  EXPECT_EQ(hashes[2], "78AF5F94892F3950");
}

TEST(RuntimeHash, IgnoresASeedThatIsNoIntegerAndSaysSoOnce) {
  for (const char* seed : {"abc", "7x", " 7", "0.0", "0x10", "99999999999999999999"}) {
    SCOPED_TRACE(seed);
    const std::string variable = "ORRERY_HASH_SEED=" + std::string(seed);
    const Outcome outcome = hashesIn({variable});
    EXPECT_EQ(equalHashes(outcome, hashesIn({variable})), 0);
    const auto lines = linesOf(outcome.errors);
    ASSERT_EQ(lines.size(), 1U) << outcome.errors;
    EXPECT_EQ(lines[0].substr(lines[0].find(' ')),
              " WARN  [orrery] ORRERY_HASH_SEED is not an integer and is ignored");
  }
}

TEST(RuntimeHash, TakesAnEmptySeedForNone) {
  const Outcome outcome = hashesIn({"ORRERY_HASH_SEED="});
  EXPECT_EQ(equalHashes(outcome, hashesIn({"ORRERY_HASH_SEED="})), 0);
  EXPECT_EQ(outcome.errors, "");
}

TEST(RuntimeHash, IsSecretWhereTheKernelRefusesRandomBytesToo) {
  const Outcome outcome = hashesIn({"NO_GETRANDOM=1"});
  EXPECT_EQ(equalHashes(outcome, hashesIn({"NO_GETRANDOM=1"})), 0);
  EXPECT_EQ(equalHashes(outcome, hashesIn({"NO_GETRANDOM=1", "ORRERY_HASH_SEED=0"})), 0);
}

}  // namespace
