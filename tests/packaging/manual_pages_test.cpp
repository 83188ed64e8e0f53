// The manual pages.
#include <cctype>
#include <regex>
#include <set>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/packaging/HelpOptions.hpp"
#include "tests/support/ChildProcess.hpp"
#include "tests/support/TemporaryDirectory.hpp"

namespace packaging_tests {
namespace {

using testing::IsSubsetOf;
using testing::IsSupersetOf;

const std::string programPage = PROJECT_FOLDER "/man/orrery-host.1";
const std::string chainPage = PROJECT_FOLDER "/man/orrery-chain.5";

// As a reader sees it, without bold and underlined letters, on lines that are not broken.
std::string plain(const std::string& page) {
  static const std::regex overstrike(".\b");
  const std::string text = outputOf({"/usr/bin/mandoc", "-T", "ascii", "-O", "width=1000", page});
  return std::regex_replace(text, overstrike, "");
}

// The part under a heading, up to the next one.
std::string section(const std::string& text, const std::string& heading) {
  const auto begin = text.find("\n" + heading + "\n");
  EXPECT_NE(begin, std::string::npos) << "no section " << heading;
  if (begin == std::string::npos) return "";
  const bool isSub = heading.front() == ' ';
  auto end = begin + 1;
  do {
    end = text.find('\n', end + 1);
    if (end == std::string::npos) return text.substr(begin);
  } while (!(std::isupper(static_cast<unsigned char>(text[end + 1])) != 0 ||
             (isSub && text.compare(end + 1, 3, "   ") == 0 && text[end + 4] != ' ')));
  return text.substr(begin, end - begin);
}

std::vector<std::string> optionsIn(const std::string& text) {
  static const std::regex option("(^|[\\s,|\\[])(--?[A-Za-z][a-z-]*)");
  std::vector<std::string> all;
  for (std::sregex_iterator each(text.begin(), text.end(), option), end; each != end; ++each) {
    all.push_back((*each)[2]);
  }
  return all;
}

std::set<std::string> asSet(const std::vector<std::string>& texts) {
  return {texts.begin(), texts.end()};
}

class ManualPages : public testing::Test {
 protected:
  void SetUp() override {
    if (!isInstalled("mandoc")) GTEST_SKIP() << "mandoc is not installed";
  }
};

TEST_F(ManualPages, HaveNothingThatMandocWarnsOf) {
  EXPECT_EQ(outputOf({"/usr/bin/mandoc", "-T", "lint", "-W", "warning", programPage, chainPage}),
            "");
}

TEST_F(ManualPages, DescribeEveryOptionOfEveryCommand) {
  const std::string page = plain(programPage);
  EXPECT_THAT(optionsIn(section(page, "DESCRIPTION")), IsSupersetOf(optionsOf("")));
  ASSERT_THAT(commands(), IsSupersetOf({"run", "check", "demo"}));
  for (const std::string& command : commands()) {
    const std::string part = section(page, "   " + command);
    std::vector<std::string> options = optionsOf(command);
    std::erase_if(options, [](const auto& text) { return text == "-h" || text == "--help"; });
    EXPECT_THAT(optionsIn(part), IsSupersetOf(options)) << command;
  }
}

TEST_F(ManualPages, DescribeNoOptionThatThereIsNot) {
  std::set<std::string> all;
  all.merge(asSet(optionsOf("")));
  for (const std::string& command : commands()) all.merge(asSet(optionsOf(command)));
  EXPECT_THAT(asSet(optionsIn(plain(programPage))), IsSubsetOf(all));
}

// The keys are those of the reference tables, whose rows are tested against the program.
std::vector<std::string> keysOfTheReference() {
  const std::string text = test_support::readFile(PROJECT_FOLDER "/docs/configuration.md");
  static const std::regex row("\n\\| `([A-Za-z/.\\[\\]]+)` \\|");
  static const std::regex inner(".*[.]");
  std::vector<std::string> keys;
  for (std::sregex_iterator each(text.begin(), text.end(), row), end; each != end; ++each) {
    keys.push_back(std::regex_replace((*each)[1].str(), inner, ""));
  }
  return keys;
}

TEST_F(ManualPages, DescribeEveryKeyOfAChainFile) {
  const std::string page = plain(chainPage);
  const std::vector<std::string> keys = keysOfTheReference();
  ASSERT_THAT(keys, IsSupersetOf({"chains", "id", "host", "proxy/port", "levels", "address"}));
  for (const std::string& key : keys) {
    EXPECT_TRUE(std::regex_search(page, std::regex("[ \n]" + key + "[.,; \n]"))) << key;
  }
}

}  // namespace
}  // namespace packaging_tests
