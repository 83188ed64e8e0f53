// The shells' completions, asked by the shells themselves.
#include <filesystem>
#include <sstream>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/packaging/HelpOptions.hpp"
#include "tests/support/ChildProcess.hpp"
#include "tests/support/TemporaryDirectory.hpp"

namespace packaging_tests {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::IsSupersetOf;
using testing::Not;
using testing::UnorderedElementsAre;
using testing::UnorderedElementsAreArray;

const std::string folder = PROJECT_FOLDER "/packaging/completions";

std::vector<std::string> wordsOf(const std::string& text) {
  std::vector<std::string> all;
  std::istringstream words(text);
  for (std::string word; words >> word;) all.push_back(word);
  return all;
}

// A folder with files to complete.
class Completions : public testing::Test {
 protected:
  Completions() {
    for (const char* name : {"chain.yaml", "other.yml", "requests.jsonl"}) {
      _directory.write(name, "");
    }
    std::filesystem::create_directory(_directory.file("folder"));
  }

  // What bash offers for the last of these words, of which the first is the program.
  std::vector<std::string> bash(const std::vector<std::string>& words) const {
    static const std::string script =
        "shopt -s extglob; source \"$1\"; shift; COMP_WORDS=(\"$@\"); COMP_CWORD=$(($# - 1));"
        "_orrery_host; printf '%s\\n' \"${COMPREPLY[@]}\"";
    std::vector<std::string> command{
        "/usr/bin/env", "-C",   _directory.path().string(),  "bash", "-c",
        script,         "bash", folder + "/orrery-host.bash"};
    command.emplace_back("orrery-host");
    command.insert(command.end(), words.begin(), words.end());
    return wordsOf(outputOf(command));
  }

  // What zsh lists at the end of each line.
  std::vector<std::vector<std::string>> zsh(const std::vector<std::string>& lines) const {
    std::vector<std::string> command{
        "/usr/bin/env", "-C", _directory.path().string(),
        "zsh",          "-f", PROJECT_FOLDER "/tests/packaging/complete.zsh",
        folder};
    command.insert(command.end(), lines.begin(), lines.end());
    std::vector<std::vector<std::string>> lists(1);
    for (const std::string& word : wordsOf(outputOf(command))) {
      if (word == "--") {
        lists.emplace_back();
      } else {
        lists.back().push_back(word);
      }
    }
    lists.pop_back();
    EXPECT_EQ(lists.size(), lines.size());
    lists.resize(lines.size());
    return lists;
  }

 private:
  const test_support::TemporaryDirectory _directory;
};

using BashCompletion = Completions;

TEST_F(BashCompletion, OffersTheCommands) {
  EXPECT_THAT(bash({""}), UnorderedElementsAreArray(commands()));
  EXPECT_THAT(bash({"r"}), UnorderedElementsAre("run", "request"));
  EXPECT_THAT(bash({"--"}), UnorderedElementsAre("--help", "--help-all", "--version"));
}

TEST_F(BashCompletion, OffersTheOptionsThatTheHelpOfEachCommandShows) {
  EXPECT_THAT(bash({"-"}), UnorderedElementsAreArray(optionsOf("")));
  for (const std::string& command : commands()) {
    EXPECT_THAT(bash({command, "-"}), UnorderedElementsAreArray(optionsOf(command))) << command;
  }
}

TEST_F(BashCompletion, OffersChainFilesAndFoldersForAChainFile) {
  for (const char* command : {"run", "check"}) {
    EXPECT_THAT(bash({command, ""}), UnorderedElementsAre("chain.yaml", "other.yml", "folder"));
  }
  EXPECT_THAT(bash({"run", "--input", "requests.jsonl", "ch"}), ElementsAre("chain.yaml"));
  EXPECT_THAT(bash({"run", "chain.yaml", ""}), IsEmpty());
}

TEST_F(BashCompletion, OffersWhatAnOptionTakes) {
  EXPECT_THAT(bash({"run", "--input", "req"}), ElementsAre("requests.jsonl"));
  EXPECT_THAT(bash({"run", "--log-level", ""}),
              UnorderedElementsAre("error", "warn", "info", "debug", "trace"));
  EXPECT_THAT(bash({"run", "--log-level", "=", "d"}), ElementsAre("debug"));
  EXPECT_THAT(bash({"run", "--status-port", ""}), IsEmpty());
  EXPECT_THAT(bash({"request", "--set", "proxy/h"}), ElementsAre("proxy/host="));
  EXPECT_THAT(bash({"request", "-d", "@", "requ"}), ElementsAre("requests.jsonl"));
}

TEST_F(BashCompletion, OffersMethodsAndSchemesForARequest) {
  EXPECT_THAT(bash({"request", "P"}), UnorderedElementsAre("PUT", "POST"));
  EXPECT_THAT(bash({"request", "-i", "-H", "A: b", "G"}), ElementsAre("GET"));
  EXPECT_THAT(bash({"request", "GET", "https"}), ElementsAre("https://"));
}

class ZshCompletion : public Completions {
 protected:
  void SetUp() override {
    if (!isInstalled("zsh")) GTEST_SKIP() << "zsh is not installed";
  }
};

TEST_F(ZshCompletion, OffersCommandsAndTheOptionsThatTheHelpOfEachShows) {
  std::vector<std::string> lines{"orrery-host ", "orrery-host -"};
  for (const std::string& command : commands()) lines.push_back("orrery-host " + command + " -");
  const auto lists = zsh(lines);
  EXPECT_THAT(lists[0], IsSupersetOf(commands()));
  EXPECT_THAT(lists[1], IsSupersetOf(optionsOf("")));
  for (std::size_t i = 0; i < commands().size(); ++i) {
    EXPECT_THAT(lists[i + 2], IsSupersetOf(optionsOf(commands()[i]))) << commands()[i];
  }
}

TEST_F(ZshCompletion, OffersWhatStandsAtItsPlace) {
  const auto lists = zsh({"orrery-host run ", "orrery-host run --input ", "orrery-host request ",
                          "orrery-host run --log-level ", "orrery-host request --set proxy/"});
  EXPECT_THAT(lists[0], IsSupersetOf({"chain.yaml", "other.yml"}));
  EXPECT_THAT(lists[0], Not(Contains("requests.jsonl")));
  EXPECT_THAT(lists[1], Contains("requests.jsonl"));
  EXPECT_THAT(lists[2], IsSupersetOf({"GET", "PUT", "POST", "DELETE", "HEAD", "TRACE"}));
  EXPECT_THAT(lists[3], IsSupersetOf({"error", "warn", "info", "debug", "trace"}));
  EXPECT_THAT(lists[4], IsSupersetOf({"proxy/host", "proxy/port"}));
}

}  // namespace
}  // namespace packaging_tests
