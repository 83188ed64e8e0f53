// orrery-host run: what SIGINT and SIGTERM do.
#include <chrono>
#include <csignal>
#include <cstdio>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/host/HostProgram.hpp"

namespace host_tests {
namespace {

using testing::HasSubstr;
using testing::Not;

const std::string held = "{\"metadata\":{\"hold\":true}}\n";
const std::string plain = "{\"metadata\":{\"requestId\":\"x\"}}\n";
const std::string plainAnswer = "{\"metadata\":{\"requestId\":\"x\"},\"payload\":null}\n";
const std::string stuck = "{\"metadata\":{\"stick\":true}}\n";
const std::string announced = "{\"metadata\":{\"announce\":true}}\n";
const std::string flush = "{\"control\":\"flush\"}\n";

// What the last line counts in all; -1 where it counts nothing.
int answeredOrDropped(const std::string& line) {
  const auto at = line.find("answered");
  int answered = 0;
  int dropped = 0;
  if (at == std::string::npos) return -1;
  const int found =
      std::sscanf(line.c_str() + at, "answered %d, failed %*d, dropped %d", &answered, &dropped);
  return found == 2 ? answered + dropped : -1;
}

class RunSignals : public testing::TestWithParam<int> {};

TEST_P(RunSignals, TheFirstStopsReadingAndExitsWith0) {
  const EchoChainFile chain;
  HostProgram program({"run", chain.path()});
  program.write(plain);
  program.waitForOutput(plainAnswer);
  program.signal(GetParam());
  EXPECT_EQ(program.wait(), 0);
  EXPECT_EQ(program.output(), plainAnswer);
  EXPECT_THAT(lastLine(program.errors()),
              HasSubstr("Done: sent 1, answered 1, failed 1, dropped 0"));
}

TEST_P(RunSignals, OneEndsAWaitForTheFirstWriterOfAPipe) {
  const EchoChainFile chain;
  ASSERT_EQ(::mkfifo(chain.file("pipe").c_str(), 0600), 0);
  HostProgram program({"run", chain.path(), "--input", chain.file("pipe"), "--status-port", "0"});
  program.waitForErrors("The status server listens");
  program.signal(GetParam());
  EXPECT_EQ(program.wait(), 0);
  EXPECT_THAT(program.errors(), HasSubstr("Done: sent 0, answered 0"));
}

TEST_P(RunSignals, TheSecondDropsWhatIsQueuedAndCountsItInTheLastLogLine) {
  const EchoChainFile chain;
  HostProgram program({"run", chain.path()});
  program.write(plain + held + plain + announced + flush);
  program.waitForOutput(plainAnswer);
  program.waitForErrors("[echo] holding");
  program.waitForErrors("[echo] taken");
  program.signal(GetParam());
  program.waitForErrors("Stopping: reading no further");
  EXPECT_TRUE(program.running());
  program.signal(GetParam());
  EXPECT_EQ(program.wait(), 0);
  EXPECT_THAT(lastLine(program.errors()), HasSubstr("WARN  [host] Done: sent 4, answered 2"));
  EXPECT_THAT(lastLine(program.errors()), HasSubstr("dropped 2"));
}

INSTANTIATE_TEST_SUITE_P(Signals, RunSignals, testing::Values(SIGINT, SIGTERM));

TEST(RunTwoSignals, AFlushWhoseBarrierWasNotReachedIsNotTold) {
  const EchoChainFile chain;
  HostProgram program({"run", chain.path()});
  program.write(plain + held + flush);
  program.waitForOutput(plainAnswer);
  program.signal(SIGINT);
  program.waitForErrors("Stopping: reading no further");
  program.signal(SIGINT);
  EXPECT_EQ(program.wait(), 0);
  EXPECT_THAT(program.output(), Not(HasSubstr("flushed")));
}

TEST(RunTwoSignals, EndAReaderThatWaitsForRoomInTheTransportsQueue) {
  const EchoChainFile chain;
  std::string input = plain + held;
  for (int i = 0; i < 1000; ++i) input += plain;
  HostProgram program({"run", chain.path(), "--input", chain.write("in", input)});
  program.waitForOutput(plainAnswer);
  program.signal(SIGINT);
  program.waitForErrors("Stopping: reading no further");
  program.signal(SIGINT);
  EXPECT_EQ(program.wait(), 0);
  EXPECT_THAT(lastLine(program.errors()), HasSubstr("Done: sent "));
}

// Less than what is read at once: of the lines behind the one that holds the worker some stand in
// the transport's queue, some in front of it, and some are not parsed yet.
TEST(RunTwoSignals, DropNoLineThatWasReadWithoutCountingIt) {
  const EchoChainFile chain;
  constexpr int howMany = 5000;
  std::string input = plain + held;
  for (int i = 2; i < howMany; ++i) input += "{}\n";
  HostProgram program({"run", chain.path(), "--input", chain.write("in", input)});
  program.waitForOutput(plainAnswer);
  program.signal(SIGINT);
  program.waitForErrors("Stopping: reading no further");
  program.signal(SIGINT);
  EXPECT_EQ(program.wait(), 0);
  EXPECT_EQ(answeredOrDropped(lastLine(program.errors())), howMany) << program.errors();
}

TEST(RunTwoSignals, EndADeliveryThatWaitsForTheReaderOfTheOutput) {
  const EchoChainFile chain;
  int ends[2] = {-1, -1};
  ASSERT_EQ(::pipe(ends), 0);
  std::string input;
  for (int i = 0; i < 100000; ++i) input += plain;
  test_support::ChildProcess::Options options;
  options.inherited.push_back(ends[1]);
  test_support::ChildProcess program(
      {HOST_PROGRAM, "run", chain.path(), "--input", chain.write("in", input), "--output",
       "/proc/self/fd/" + std::to_string(ends[1])},
      options);
  char first = 0;
  ASSERT_EQ(::read(ends[0], &first, 1), 1);
  // Nobody reads on: the pipe is full soon, and the chain stands still.
  program.signal(SIGINT);
  program.waitForErrors("Stopping: reading no further");
  program.signal(SIGINT);
  EXPECT_EQ(program.wait(), 0);
  ::close(ends[0]);
  ::close(ends[1]);
}

// One worker never comes to an end; what the others have answered is in the output, and everything
// that was read is counted.
TEST(RunTwoSignals, GiveUpWhatStillRunsAndCountIt) {
  const EchoChainFile chain;
  HostProgram program({"run", chain.path()});
  program.write(plain + plain + stuck + plain + plain);
  program.waitForOutput(plainAnswer + plainAnswer);
  program.signal(SIGINT);
  program.waitForErrors("Stopping: reading no further");
  const auto second = std::chrono::steady_clock::now();
  program.signal(SIGINT);
  EXPECT_EQ(program.wait(), 0);
  EXPECT_LE(std::chrono::steady_clock::now() - second, std::chrono::seconds(5));
  EXPECT_EQ(program.output(), plainAnswer + plainAnswer);
  EXPECT_THAT(program.errors(), HasSubstr("WARN  [host] Requests that still run are given up"));
  EXPECT_THAT(program.errors(), HasSubstr("Summary: sent 5, answered 2, failed 2, dropped 3"));
  EXPECT_THAT(lastLine(program.errors()),
              HasSubstr("WARN  [host] Done: sent 5, answered 2, failed 2, dropped 3"));
}

// The pipe of the output is full, answers wait for it, and the transport does not come to an end.
TEST(RunTwoSignals, GiveUpAnOutputThatNobodyReadsToo) {
  const EchoChainFile chain;
  int ends[2] = {-1, -1};
  ASSERT_EQ(::pipe(ends), 0);
  test_support::ChildProcess::Options options;
  options.inherited.push_back(ends[1]);
  // A pipe takes 32 to 64 KiB, by how they are written; the queue in front of it 1,024 answers.
  constexpr int howMany = 1600;
  std::string input;
  for (int i = 0; i < howMany; ++i) input += plain;
  input += stuck;
  test_support::ChildProcess program(
      {HOST_PROGRAM, "run", chain.path(), "--input", chain.write("in", input), "--output",
       "/proc/self/fd/" + std::to_string(ends[1])},
      options);
  program.waitForErrors("[echo] sticking");
  program.signal(SIGINT);
  program.waitForErrors("Stopping: reading no further");
  program.signal(SIGINT);
  EXPECT_EQ(program.wait(), 0);
  EXPECT_EQ(answeredOrDropped(lastLine(program.errors())), howMany + 1) << program.errors();
  ::close(ends[0]);
  ::close(ends[1]);
}

TEST(RunThreeSignals, EndAProgramWhoseTransportDoesNotCome) {
  const EchoChainFile chain;
  HostProgram program({"run", chain.path()});
  program.write(plain + stuck);
  program.waitForOutput(plainAnswer);
  program.signal(SIGTERM);
  program.waitForErrors("Stopping: reading no further");
  program.signal(SIGTERM);
  program.waitForErrors("Stopping at once");
  program.signal(SIGTERM);
  EXPECT_EQ(program.wait(), 128 + SIGTERM);
}

}  // namespace
}  // namespace host_tests
