// Every fenced snippet of README.md and docs/*.md: performed, or held against the program. A
// snippet without a comment that says how it is tested is a failure.
#include <algorithm>
#include <array>
#include <cctype>
#include <filesystem>
#include <functional>
#include <map>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/docs/Markdown.hpp"
#include "tests/docs/Sandbox.hpp"
#include "tests/docs/Values.hpp"
#include "tests/docs/Walkthrough.hpp"
#include "tests/support/ChildProcess.hpp"
#include "tests/support/PluginUnderTest.hpp"
#include "tests/support/ScriptedServer.hpp"

namespace docs_tests {
namespace {

using test_support::ChildProcess;
using test_support::hostProgram;

// Comments whose snippets the tests of tables read.
constexpr std::array<const char*, 5> readByTables{"base", "response request", "response wire",
                                                  "error request", "run of the table"};

std::vector<std::string> linesOf(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line);) lines.push_back(line);
  return lines;
}

std::string allSources(const std::vector<std::string>& folders) {
  std::string all;
  for (const std::string& folder : folders) {
    for (const auto& entry : std::filesystem::recursive_directory_iterator(projectFile(folder))) {
      const auto name = entry.path().filename().string();
      const bool isSource = name.ends_with(".cpp") || name.ends_with(".hpp") ||
                            name.ends_with(".h") || name.ends_with(".c") ||
                            name == "CMakeLists.txt";
      if (isSource) all += test_support::readFile(entry.path().string());
    }
  }
  return all;
}

// --- Snippets that stand alone -------------------------------------------------------------------

// A chain file, or a part of one: `orrery-host check` accepts it.
void checkChain(const Fence& fence) {
  const Sandbox sandbox;
  sandbox.write("requests.jsonl", "");
  std::string text = fence.text;
  if (text.find("chains:") == std::string::npos) {
    text += "chains: [{id: a, name: b, transport: HTTPClient, config: {host: localhost}}]\n";
  }
  const Outcome outcome = checkChainFile(sandbox, text);
  EXPECT_EQ(outcome.output, "OK\n") << fence.place << ": " << outcome.errors;
}

// Input lines: each is sent, and answered by the server.
void checkRequests(const Fence& fence) {
  test_support::ScriptedServer server([](test_support::Connection& connection) {
    while (connection.readRequest()) connection.sendResponse(200);
  });
  const Sandbox sandbox;
  const std::string chain =
      sandbox.write("chain.yaml",
                    "chains: [{id: a, name: b, transport: HTTPClient, config: {host: 127.0.0.1, "
                    "port: " +
                        std::to_string(server.port()) + "}}]\n");
  ChildProcess program({hostProgram(), "run", chain});
  program.write(fence.text);
  program.closeInput();
  EXPECT_EQ(program.wait(), 0) << fence.place << ": " << program.errors();
  const auto answers = linesOf(program.output());
  EXPECT_EQ(answers.size(), linesOf(fence.text).size()) << fence.place;
  for (const std::string& answer : answers) {
    EXPECT_TRUE(answer.find("\"statusCode\":200") != std::string::npos ||
                answer.find("\"flushed\"") != std::string::npos)
        << fence.place << ": " << answer;
  }
}

// The forms of the command line: each option stands in the help of its command.
void checkUsage(const Fence& fence) {
  const std::string text = std::regex_replace(fence.text, std::regex("\n +"), " ");
  for (const std::string& line : linesOf(text)) {
    std::istringstream words(line);
    std::string word;
    words >> word;
    EXPECT_EQ(word, "orrery-host") << fence.place;
    words >> word;
    std::vector<std::string> arguments{hostProgram(), "--help"};
    if (!word.starts_with("-")) arguments.insert(arguments.begin() + 1, word);
    ChildProcess program(arguments);
    program.closeInput();
    EXPECT_EQ(program.wait(), 0) << fence.place << ": " << line;
    const std::regex option("--[a-z-]+");
    for (auto it = std::sregex_iterator(line.begin(), line.end(), option);
         it != std::sregex_iterator(); ++it) {
      EXPECT_NE(program.output().find(it->str()), std::string::npos)
          << fence.place << ": " << it->str() << " is no option of " << word;
    }
  }
}

bool hasPreset(const std::string& line) {
  static const std::string presets = test_support::readFile(projectFile("CMakePresets.json"));
  std::smatch name;
  if (!std::regex_search(line, name,
                         std::regex("^(?:cmake|ctest) --(?:preset |build build/)(\\S+)"))) {
    return false;
  }
  return presets.find("\"name\": \"" + name[1].str() + "\"") != std::string::npos;
}

// Commands for the project's folder: the scripts exist and can be run, the presets exist.
void checkProjectCommands(const Fence& fence) {
  namespace fs = std::filesystem;
  for (const std::string& line : linesOf(fence.text)) {
    const std::string program = line.substr(0, line.find(' '));
    if (program.find('/') != std::string::npos) {
      const fs::path path = projectFile(program);
      ASSERT_TRUE(fs::exists(path)) << fence.place << ": there is no " << program;
      EXPECT_NE(fs::status(path).permissions() & fs::perms::owner_exec, fs::perms::none)
          << fence.place << ": " << program << " cannot be run";
    } else {
      EXPECT_TRUE(hasPreset(line)) << fence.place << ": no script and no preset: " << line;
    }
  }
}

// A drawing: the names in it stand in the sources.
void checkNames(const Fence& fence) {
  const std::string sources = allSources({"orrery", "connectivity", "plugins", "host"});
  const std::regex name("\\b[A-Z][a-z]+[A-Z][A-Za-z]+\\b");
  std::size_t names = 0;
  for (auto it = std::sregex_iterator(fence.text.begin(), fence.text.end(), name);
       it != std::sregex_iterator(); ++it, ++names) {
    EXPECT_NE(sources.find(it->str()), std::string::npos)
        << fence.place << ": nothing is called " << it->str();
  }
  EXPECT_GT(names, 0U) << fence.place << ": no names";
}

// Lines of the log with every time as T and every other number as N. "..." stands for a time.
std::string withoutNumbers(std::string text) {
  text = std::regex_replace(text, std::regex("\\d{4}-[0-9-]+T[0-9:.]+Z|\\.\\.\\."), "T");
  return std::regex_replace(text, std::regex("\\b\\d+(\\.\\d+)?\\b"), "N");
}

// Lines of the log of a run of shop.orders with four workers, but for times and numbers.
void checkLog(const Fence& fence) {
  test_support::ScriptedServer server;
  const Sandbox sandbox;
  ChildProcess program({hostProgram(), "run",
                        sandbox.write("chain.yaml",
                                      "chains: [{id: orders, name: shop, transport: HTTPClient, "
                                      "config: {host: localhost, numClients: 4, port: " +
                                          std::to_string(server.port()) + "}}]\n")});
  program.write("{\"metadata\": {\"http\": {\"method\": \"GET\", \"path\": \"/\"}}}\n");
  program.closeInput();
  EXPECT_EQ(program.wait(), 0);
  const std::string log = withoutNumbers(program.errors());
  for (const std::string& line : linesOf(fence.text)) {
    EXPECT_NE(log.find(withoutNumbers(line) + "\n"), std::string::npos)
        << fence.place << ": not in the log: " << line << "\nbut\n"
        << program.errors();
  }
}

// "tested by Suite.Test": that test exists.
void checkTested(const Fence& fence) {
  static const std::string tests = allSources({"tests"});
  std::smatch name;
  const std::regex form("tested by (\\w+)\\.(\\w+)");
  ASSERT_TRUE(std::regex_match(fence.example, name, form)) << fence.place;
  const std::regex written("TEST(_F|_P)?\\(\\s*" + name[1].str() + ",\\s*" + name[2].str() +
                           "\\)|NAME " + name[1].str() + "\\." + name[2].str() + "\\b");
  EXPECT_TRUE(std::regex_search(tests, written)) << fence.place << ": no test " << fence.example;
}

using Check = std::function<void(const Fence&)>;
const std::map<std::string, Check>& checks() {
  static const std::map<std::string, Check> all{
      {"chain", checkChain},   {"requests", checkRequests},
      {"usage", checkUsage},   {"project", checkProjectCommands},
      {"names", checkNames},   {"log", checkLog},
      {"tested", checkTested},
  };
  return all;
}

std::string verbOf(const Fence& fence) { return fence.example.substr(0, fence.example.find(' ')); }

bool isReadByTables(const Fence& fence) {
  return std::ranges::find(readByTables, fence.example) != readByTables.end();
}

// The pages whose snippets are tested.
std::vector<std::string> testedPages() {
  std::vector<std::string> pages = pageNames();
  pages.insert(pages.end(), {"CONTRIBUTING.md", "benchmarks/README.md"});
  return pages;
}

TEST(Snippets, EachHasACheck) {
  for (const std::string& name : testedPages()) {
    for (const Fence& fence : readPage(name).fences) {
      const bool hasCheck = isReadByTables(fence) || checks().contains(verbOf(fence)) ||
                            Walkthrough::knows(fence.example);
      EXPECT_TRUE(hasCheck)
          << fence.place << ": this snippet has no check. Put a comment such as "
          << "<!-- example: run --> in front of it (see tests/docs/Walkthrough.hpp"
          << " and tests/docs/Snippets_test.cpp); it has \"" << fence.example << "\"";
      EXPECT_FALSE(fence.language.empty()) << fence.place << ": no language behind the backquotes";
    }
  }
}

// --- One test for each section -------------------------------------------------------------------

struct Section {
  std::string page;
  std::string heading;
};

// For GoogleTest's messages.
void PrintTo(const Section& section, std::ostream* out) {
  *out << section.page << ", " << section.heading;
}

std::vector<Section> sections() {
  std::vector<Section> all;
  for (const std::string& name : testedPages()) {
    for (const Fence& fence : readPage(name).fences) {
      const bool isNew =
          all.empty() || all.back().page != name || all.back().heading != fence.heading;
      if (isNew && !isReadByTables(fence)) all.push_back({name, fence.heading});
    }
  }
  return all;
}

bool compilesAgainstThisBuild(const Page& page, const std::string& heading) {
  return std::ranges::any_of(page.fences, [&](const Fence& fence) {
    return fence.heading == heading && fence.text.starts_with("cc ");
  });
}

class Snippet : public ::testing::TestWithParam<Section> {};

TEST_P(Snippet, Works) {
  const Page page = readPage(GetParam().page);
  if (SANITIZED && compilesAgainstThisBuild(page, GetParam().heading)) {
    GTEST_SKIP() << "a program of another build cannot load sanitized libraries";
  }
  Walkthrough walkthrough(page);
  for (const Fence& fence : page.fences) {
    if (fence.heading != GetParam().heading) continue;
    SCOPED_TRACE(fence.place);
    if (const auto check = checks().find(verbOf(fence)); check != checks().end()) {
      check->second(fence);
    } else {
      walkthrough.perform(fence);
    }
  }
}

std::string nameOf(const ::testing::TestParamInfo<Section>& info) {
  std::string name = info.param.page + "_" + info.param.heading;
  std::ranges::replace_if(
      name, [](unsigned char c) { return std::isalnum(c) == 0; }, '_');
  return name;
}

INSTANTIATE_TEST_SUITE_P(Documents, Snippet, ::testing::ValuesIn(sections()), nameOf);

}  // namespace
}  // namespace docs_tests
