// Child processes, with the shell as the child.
#include "tests/support/ChildProcess.hpp"

#include <csignal>
#include <string>
#include <system_error>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/Event.hpp"

namespace test_support {
namespace {

std::vector<std::string> shell(const std::string& script) { return {"/bin/sh", "-c", script}; }

TEST(ChildProcess, CollectsOutputErrorsAndStatus) {
  ChildProcess child(shell("echo out; echo err >&2; exit 3"));
  EXPECT_EQ(child.wait(), 3);
  EXPECT_EQ(child.output(), "out\n");
  EXPECT_EQ(child.errors(), "err\n");
  EXPECT_FALSE(child.running());
}

TEST(ChildProcess, IsFedWhileItAnswers) {
  ChildProcess child({"/bin/cat"});
  EXPECT_TRUE(child.write("one\n"));
  child.waitForOutput("one\n");
  EXPECT_TRUE(child.write("one\n"));
  child.waitForOutput("one\n", 2);
  child.closeInput();
  EXPECT_EQ(child.wait(), 0);
}

TEST(ChildProcess, GetsSignals) {
  ChildProcess child(shell("trap 'echo caught; exit 4' TERM; echo ready; read -r _"));
  child.waitForOutput("ready");
  child.signal(SIGTERM);
  child.closeInput();
  EXPECT_EQ(child.wait(), 4);
  EXPECT_EQ(child.output(), "ready\ncaught\n");
}

TEST(ChildProcess, ReportsTheSignalThatEndedIt) {
  ChildProcess child({"/bin/cat"});
  child.signal(SIGKILL);
  EXPECT_EQ(child.wait(), 128 + SIGKILL);
}

TEST(ChildProcess, IsWrittenToWithoutSignalWhenItIsGone) {
  ChildProcess child({"/bin/true"});
  child.wait();
  EXPECT_FALSE(child.write("into the void"));
}

TEST(ChildProcess, EndsWithItsObject) {
  pid_t pid = 0;
  {
    ChildProcess child(shell("echo up; exec cat"));
    child.waitForOutput("up");
    pid = child.pid();
  }
  EXPECT_EQ(::kill(pid, 0), -1);
}

TEST(ChildProcess, EndsWithItsWholeGroupWhereItHasOne) {
  pid_t grandchild = 0;
  {
    ChildProcess::Options options;
    options.ownGroup = true;
    ChildProcess child(shell("sh -c 'echo $$; exec cat' <&0 & exec cat"), options);
    child.waitForOutput("\n");
    grandchild = std::stoi(child.output());
    EXPECT_EQ(::kill(grandchild, 0), 0);
  }
  EXPECT_EQ(::kill(grandchild, 0), -1);
}

TEST(ChildProcess, SaysWhatItWroteInsteadOfWhatWasAwaited) {
  ChildProcess child(shell("echo something else"));
  EXPECT_THROW(child.waitForOutput("awaited"), TimedOut);
}

TEST(ChildProcess, CannotRunWhatIsNotThere) {
  EXPECT_THROW(ChildProcess({"/no/such/program"}), std::system_error);
}

TEST(ChildProcess, PassesEnvironmentOn) {
  ChildProcess::Options options;
  options.environment = {"GREETING=hello"};
  ChildProcess child(shell("echo $GREETING"), options);
  child.wait();
  EXPECT_EQ(child.output(), "hello\n");
}

}  // namespace
}  // namespace test_support
