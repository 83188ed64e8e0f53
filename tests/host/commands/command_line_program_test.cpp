// The program's command line: usage, help, version.
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/host/HostProgram.hpp"

namespace host_tests {
namespace {

using testing::HasSubstr;
using testing::MatchesRegex;

TEST(CommandLine, VersionAndCommitGoToStandardOutput) {
  HostProgram program({"--version"});
  EXPECT_EQ(program.finish(), 0);
  EXPECT_THAT(program.output(),
              MatchesRegex("orrery-host [0-9]+\\.[0-9]+\\.[0-9]+( \\([0-9a-f]+(-dirty)?\\))?\n"));
  EXPECT_EQ(program.errors(), "");
}

TEST(CommandLine, HelpNamesEveryCommandAndExitStatus) {
  HostProgram program({"--help"});
  EXPECT_EQ(program.finish(), 0);
  for (const char* text :
       {"run", "check", "request", "demo", "--version", "Exit status: 0", "2 wrong usage"}) {
    EXPECT_THAT(program.output(), HasSubstr(text));
  }
}

TEST(CommandLine, HelpOfRunNamesEveryOption) {
  HostProgram program({"run", "--help"});
  EXPECT_EQ(program.finish(), 0);
  for (const char* text :
       {"CHAIN.yaml", "--input FILE", "--output FILE", "--log-level LEVEL", "--status-port PORT",
        "--summary text|json", "--quiet", "flush", "SIGINT"}) {
    EXPECT_THAT(program.output(), HasSubstr(text));
  }
}

class WrongUsage : public testing::TestWithParam<std::vector<std::string>> {};

TEST_P(WrongUsage, ExitsWith2AndSaysSoOnStandardError) {
  HostProgram program(GetParam());
  EXPECT_EQ(program.finish(), 2);
  EXPECT_EQ(program.output(), "");
  EXPECT_THAT(program.errors(), HasSubstr("--help"));
}

INSTANTIATE_TEST_SUITE_P(
    CommandLine, WrongUsage,
    testing::Values(std::vector<std::string>{}, std::vector<std::string>{"walk"},
                    std::vector<std::string>{"run"}, std::vector<std::string>{"check"},
                    std::vector<std::string>{"run", "a.yaml", "b.yaml"},
                    std::vector<std::string>{"run", "a.yaml", "--log-level", "loud"},
                    std::vector<std::string>{"run", "a.yaml", "--status-port", "65536"},
                    std::vector<std::string>{"run", "a.yaml", "--status-port", "http"},
                    std::vector<std::string>{"run", "a.yaml", "--unknown"},
                    std::vector<std::string>{"run", "a.yaml", "--summary", "xml"},
                    std::vector<std::string>{"run", "a.yaml", "--summary", "json", "--quiet"},
                    std::vector<std::string>{"check", "a.yaml", "--input", "x"}));

}  // namespace
}  // namespace host_tests
