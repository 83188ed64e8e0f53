#include "tests/docs/Markdown.hpp"

#include <stdexcept>

#include <gtest/gtest.h>

namespace docs_tests {
namespace {

TEST(Markdown, ReadsTheTablesOfEachSection) {
  const Page page =
      parsePage("page.md",
                "# One\n\n| key | example |\n|---|---|\n| `a` | `b \\| c`, `d` |\n\n"
                "| second | |\n|---|---|\n## Two\n\n| key |\n|---|\n| `x` |\n| y |\n");
  const Table& first = page.table("One");
  ASSERT_EQ(first.rows.size(), 1U);
  EXPECT_EQ(first.rows[0].name, "a");
  EXPECT_EQ(first.rows[0].place, "page.md:5: a");
  EXPECT_EQ(first.rows[0].codes("example"), (std::vector<std::string>{"b | c", "d"}));
  EXPECT_TRUE(page.table("One", 1).rows.empty());
  EXPECT_EQ(page.table("Two").rows.size(), 2U);
  EXPECT_THROW(page.table("Three"), std::runtime_error);
}

TEST(Markdown, NamesTheRowThatHasTooFewCells) {
  try {
    parsePage("page.md", "| a | b |\n|---|---|\n| 1 |\n");
    FAIL() << "the row was accepted";
  } catch (const std::runtime_error& error) {
    EXPECT_STREQ(error.what(), "page.md:3: the row has 1 cells, its table 2");
  }
}

TEST(Markdown, GivesEachSnippetTheCommentInFrontOfIt) {
  const Page page = parsePage("page.md",
                              "# One\n<!-- example: run exit 1 -->\n```sh\nls\n# no heading\n```\n"
                              "```json\n{}\n```\n<!-- example: run -->\ntext\n```\nx\n```\n");
  ASSERT_EQ(page.fences.size(), 3U);
  EXPECT_EQ(page.fences[0].example, "run exit 1");
  EXPECT_EQ(page.fences[0].language, "sh");
  EXPECT_EQ(page.fences[0].text, "ls\n# no heading\n");
  EXPECT_EQ(page.fences[0].place, "page.md:3");
  EXPECT_EQ(page.fences[1].example, "");
  EXPECT_EQ(page.fences[1].heading, "One");
  EXPECT_EQ(page.fences[2].example, "");
}

TEST(Markdown, TellsTheWordInFrontOfACodeSpan) {
  const auto found = statements("sends `a: b`, then logs `c`");
  ASSERT_EQ(found.size(), 2U);
  EXPECT_EQ(found[0].verb, "sends");
  EXPECT_EQ(found[0].code, "a: b");
  EXPECT_EQ(found[1].verb, "logs");
}

}  // namespace
}  // namespace docs_tests
