// The example chain files, as `orrery-host check` sees them.
#include <filesystem>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/ChildProcess.hpp"

namespace examples_tests {
namespace {

const std::filesystem::path folder = std::filesystem::path(EXAMPLES) / "chains";

std::vector<std::string> chainFiles() {
  std::vector<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator(folder)) {
    if (entry.path().extension() == ".yaml") names.push_back(entry.path().filename().string());
  }
  return names;
}

class ChainFiles : public testing::TestWithParam<std::string> {};

TEST_P(ChainFiles, AreAcceptedAsTheyStand) {
  test_support::ChildProcess program(
      {"/usr/bin/env", "-C", folder.string(), HOST_PROGRAM, "check", GetParam()});
  program.closeInput();
  EXPECT_EQ(program.wait(), 0);
  EXPECT_EQ(program.output(), "OK\n");
  EXPECT_EQ(program.errors(), "");
}

std::string nameOf(const testing::TestParamInfo<std::string>& file) {
  return std::filesystem::path(file.param).stem().string();
}

INSTANTIATE_TEST_SUITE_P(Examples, ChainFiles, testing::ValuesIn(chainFiles()), nameOf);

}  // namespace
}  // namespace examples_tests
