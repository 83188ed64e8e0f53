// docs/operations.md: the options of the commands, and the summary; docs/c-interface.md: the texts
// of errors.
#include <regex>
#include <set>
#include <string>

#include <gtest/gtest.h>

#include "connectivity/value_access.hpp"
#include "tests/docs/Markdown.hpp"
#include "tests/docs/Texts.hpp"
#include "tests/docs/Values.hpp"
#include "tests/support/ChildProcess.hpp"
#include "tests/support/Messages.hpp"
#include "tests/support/PluginUnderTest.hpp"
#include "tests/support/ScriptedServer.hpp"
#include "tests/support/TemporaryDirectory.hpp"

namespace docs_tests {
namespace {

using connectivity::data_t;
using connectivity::get;
using connectivity::map_t;

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

// --- The summary ---------------------------------------------------------------------------------

// The summary of a run with one request, as JSON.
data_t summaryOfARun() {
  test_support::ScriptedServer server;
  const test_support::TemporaryDirectory folder;
  test_support::ChildProcess program(
      {test_support::hostProgram(), "run",
       folder.write("chain.yaml",
                    "chains: [{id: orders, name: shop, transport: HTTPClient, config: "
                    "{host: localhost, port: " +
                        std::to_string(server.port()) + "}}]\n"),
       "--summary", "json"});
  program.write("{\"metadata\": {\"http\": {\"method\": \"GET\", \"path\": \"/\"}}}\n");
  program.closeInput();
  EXPECT_EQ(program.wait(), 0);
  const std::string errors = program.errors();
  const auto start = errors.find("{\"summary\"");
  return jsonOf(errors.substr(start, errors.find('\n', start) - start));
}

std::set<std::string> keysOf(const map_t& map) {
  std::set<std::string> keys;
  for (const auto entry : map) keys.insert(entry.first.text());
  return keys;
}

TEST(SummaryTable, HasExactlyTheKeysOfTheSummary) {
  const data_t summary = summaryOfARun();
  const data_t* total = test_support::find(get<map_t>(summary), {"summary", "total"});
  const data_t* chains = test_support::find(get<map_t>(summary), {"summary", "chains"});
  ASSERT_NE(total, nullptr);
  ASSERT_NE(chains, nullptr);
  const Page page = readPage(pageName);
  std::set<std::string> documented;
  for (const Row& row : page.table("The summary").rows) {
    for (const std::string& key : row.codes("key")) documented.insert(key);
  }
  EXPECT_EQ(documented, keysOf(get<map_t>(*total))) << pageName << ", The summary";
  documented.insert({"id", "name"});
  EXPECT_EQ(documented, keysOf(get<map_t>(get<connectivity::list_t>(*chains)[0])));
}

// --- The environment -----------------------------------------------------------------------------

TEST(EnvironmentTable, HasExactlyTheVariablesThatTheSourcesRead) {
  static const std::regex reading("getenv\\(\"([A-Z_]+)\"\\)");
  std::set<std::string> read;
  for (const std::string& source : sourcesBelow({"orrery", "connectivity", "plugins", "host"})) {
    for (auto it = std::sregex_iterator(source.begin(), source.end(), reading);
         it != std::sregex_iterator(); ++it) {
      read.insert((*it)[1]);
    }
  }
  const Page page = readPage("docs/configuration.md");
  for (const Row& row : page.table("Environment").rows) {
    EXPECT_EQ(read.erase(row.name), 1U) << row.place << ": nothing reads it";
  }
  for (const auto& name : read) ADD_FAILURE() << page.name << ": no row for " << name;
}

// --- Texts ---------------------------------------------------------------------------------------

// The texts stand in the test that makes each mistake, or else in the sources.
TEST(MistakesTable, QuotesWhatTheProgramSays) {
  const auto literals = literalsBelow({"tests/host", "tests/plugins", "host", "plugins"});
  const Page page = readPage(pageName);
  for (const Row& row : page.table("Likely mistakes").rows) {
    EXPECT_FALSE(row.text("what to do").empty()) << row.place;
    for (const std::string& code : row.codes("what the program says")) {
      EXPECT_TRUE(isQuotedFrom(literals, code)) << row.place << ": nothing says " << code;
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
