// docs/operations.md: the options of the commands, and docs/c-interface.md: the texts of errors.
#include <regex>
#include <set>
#include <string>

#include <gtest/gtest.h>

#include "tests/docs/Markdown.hpp"
#include "tests/docs/Texts.hpp"
#include "tests/support/ChildProcess.hpp"
#include "tests/support/PluginUnderTest.hpp"
#include "tests/support/TemporaryDirectory.hpp"

namespace docs_tests {
namespace {

const std::string pageName = "docs/operations.md";

std::set<std::string> optionsIn(const std::string& text) {
  static const std::regex option("(^|[^a-z-])(--[a-z][a-z-]*)");
  std::set<std::string> options;
  for (auto it = std::sregex_iterator(text.begin(), text.end(), option);
       it != std::sregex_iterator(); ++it) {
    options.insert((*it)[2]);
  }
  return options;
}

std::set<std::string> optionsOf(const std::string& command) {
  test_support::ChildProcess program({test_support::hostProgram(), command, "--help"});
  program.closeInput();
  EXPECT_EQ(program.wait(), 0);
  auto options = optionsIn(program.output());
  options.erase("--help");
  return options;
}

TEST(OptionTable, HasExactlyTheOptionsOfTheCommand) {
  std::set<std::string> documented;
  const Page page = readPage(pageName);
  for (const Row& row : page.table("A single request").rows) {
    for (const std::string& option : optionsIn(row.text("option"))) documented.insert(option);
  }
  EXPECT_EQ(documented, optionsOf("request")) << pageName << ", A single request";
}

TEST(OptionTable, IsNotNeededForCommandsWhoseOptionsThePageNames) {
  const auto named = optionsIn(test_support::readFile(projectFile(pageName)));
  for (const char* command : {"run", "check", "demo"}) {
    for (const std::string& option : optionsOf(command)) {
      EXPECT_TRUE(named.contains(option))
          << pageName << ": nothing about " << command << " " << option;
    }
  }
}

TEST(ErrorTexts, OfTheInterfaceStandInTheSources) {
  const auto formats = formatsBelow({"plugins", "connectivity", "orrery"});
  const Page page = readPage("docs/c-interface.md");
  for (const Row& row : page.table("Errors", 1).rows) {
    for (const std::string& code : row.codes("text")) {
      const std::string text = std::regex_replace(code, std::regex("<[a-z]+>"), "…");
      EXPECT_TRUE(isMadeBy(formats, text)) << row.place << ": not in the sources: " << code;
    }
  }
}

}  // namespace
}  // namespace docs_tests
