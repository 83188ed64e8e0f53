#include "tests/packaging/HelpOptions.hpp"

#include <regex>
#include <sstream>
#include <unistd.h>

#include <gtest/gtest.h>

#include "tests/support/ChildProcess.hpp"

namespace packaging_tests {

std::string outputOf(const std::vector<std::string>& command) {
  test_support::ChildProcess child(command);
  child.closeInput();
  EXPECT_EQ(child.wait(), 0) << child.errors();
  return child.output();
}

bool isInstalled(const std::string& program) {
  return ::access(("/usr/bin/" + program).c_str(), X_OK) == 0;
}

namespace {

std::string helpOf(const std::string& command) {
  return outputOf(command.empty() ? std::vector<std::string>{HOST_PROGRAM, "--help"}
                                  : std::vector<std::string>{HOST_PROGRAM, command, "--help"});
}

}  // namespace

std::vector<std::string> commands() {
  std::vector<std::string> names;
  std::istringstream lines(helpOf(""));
  bool inside = false;
  for (std::string line; std::getline(lines, line);) {
    if (line.starts_with("Subcommands:")) {
      inside = true;
    } else if (inside && line.empty()) {
      break;
    } else if (inside && line.starts_with("  ") && line[2] != ' ') {
      names.push_back(line.substr(2, line.find(' ', 2) - 2));
    }
  }
  return names;
}

std::vector<std::string> optionsOf(const std::string& command) {
  // An option's line begins with two blanks: "  -H,--header 'NAME: VALUE' ...  Send this header".
  static const std::regex line("^  (-[A-Za-z]|--[a-z-]+)(?:,(--[a-z-]+))?");
  std::vector<std::string> options;
  std::istringstream lines(helpOf(command));
  for (std::string text; std::getline(lines, text);) {
    std::smatch match;
    if (!std::regex_search(text, match, line)) continue;
    options.push_back(match[1]);
    if (match[2].matched) options.push_back(match[2]);
  }
  return options;
}

}  // namespace packaging_tests
