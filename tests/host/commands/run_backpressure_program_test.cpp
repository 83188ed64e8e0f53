// orrery-host run: what a reader of the output that is slow, or does not read at all, costs whom.
#include <algorithm>
#include <csignal>
#include <cstdio>
#include <string>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/host/HostProgram.hpp"
#include "tests/support/Descriptor.hpp"

namespace host_tests {
namespace {

using testing::HasSubstr;

std::string request(int id, const std::string& payload, const std::string& more = {}) {
  return R"({"metadata":{)" + more + R"("requestId":)" + std::to_string(id) + R"(},"payload":")" +
         payload + "\"}\n";
}

std::string requests(int howMany, const std::string& payload = {}) {
  std::string lines;
  for (int id = 1; id <= howMany; ++id) lines += request(id, payload);
  return lines;
}

int countOf(const std::string& lines) {
  return static_cast<int>(std::count(lines.begin(), lines.end(), '\n'));
}

// The program with its output in a pipe, which the test reads when it likes.
class UnreadOutput {
 public:
  explicit UnreadOutput(const std::string& input) : UnreadOutput(input, pipe()) {}

  HostProgram& program() { return _program; }
  std::string readOne() const {
    char first = 0;
    EXPECT_EQ(::read(_reader.get(), &first, 1), 1);
    return {first};
  }
  // What is in the pipe, up to the end of the program.
  std::string readAll() const {
    std::string text;
    std::string block(65536, '\0');
    for (ssize_t count = 0; (count = ::read(_reader.get(), block.data(), block.size())) > 0;) {
      text.append(block, 0, static_cast<std::size_t>(count));
    }
    return text;
  }

 private:
  struct Pipe {
    int reader;
    int writer;
  };
  static Pipe pipe() {
    int ends[2] = {-1, -1};
    EXPECT_EQ(::pipe(ends), 0);
    return {ends[0], ends[1]};
  }
  UnreadOutput(const std::string& input, const Pipe& pipe)
      : _reader(pipe.reader), _program(arguments(input, pipe.writer), inheriting(pipe.writer)) {
    ::close(pipe.writer);
  }
  std::vector<std::string> arguments(const std::string& input, int writer) const {
    return {"run",      _chain.path(),
            "--input",  _chain.write("in", input),
            "--output", "/proc/self/fd/" + std::to_string(writer)};
  }
  static test_support::ChildProcess::Options inheriting(int descriptor) {
    test_support::ChildProcess::Options options;
    options.inherited.push_back(descriptor);
    return options;
  }

  const EchoChainFile _chain;
  const test_support::Descriptor _reader;
  HostProgram _program;
};

struct Counts {
  int sent = -1;
  int answered = -1;
  int dropped = -1;
};

Counts countsIn(const std::string& errors) {
  Counts counts;
  const std::string line = lastLine(errors);
  const auto begin = line.find("Done: ");
  if (begin == std::string::npos) return counts;
  int failed = 0;
  EXPECT_EQ(std::sscanf(line.c_str() + begin, "Done: sent %d, answered %d, failed %d, dropped %d",
                        &counts.sent, &counts.answered, &failed, &counts.dropped),
            4)
      << line;
  return counts;
}

TEST(RunWithAnUnreadOutput, TheTransportGoesOn) {
  // Far more than a pipe holds, and less than may wait to be written.
  const std::string payload(1000, 'x');
  const std::string lines = requests(900, payload);
  UnreadOutput output(lines + request(901, payload, R"("a":1,)") +
                      "{\"metadata\":{\"requestId\":902,\"tell\":true}}\n");
  output.program().waitForErrors("[echo] told");
  const std::string answers = output.readAll();
  EXPECT_EQ(output.program().wait(), 0);
  EXPECT_EQ(countOf(answers), 902);
  EXPECT_EQ(answers.substr(0, lines.size()), lines) << "each as it was sent, in its order";
}

TEST(RunWithAnUnreadOutput, WhatWasReadIsAnsweredAfterASignalAndNothingIsLost) {
  constexpr int howMany = 50000;
  const std::string lines = requests(howMany);
  UnreadOutput output(lines);
  std::string answers = output.readOne();
  output.program().signal(SIGTERM);
  output.program().waitForErrors("Stopping: reading no further");
  answers += output.readAll();
  EXPECT_EQ(output.program().wait(), 0);
  const Counts counts = countsIn(output.program().errors());
  EXPECT_EQ(answers, lines.substr(0, answers.size())) << "in the order of their delivery";
  EXPECT_EQ(countOf(answers), counts.answered);
  EXPECT_EQ(counts.sent, counts.answered);
  EXPECT_EQ(counts.dropped, 0);
  EXPECT_LT(counts.sent, howMany) << "the signal came before the end";
}

TEST(RunWithAnUnreadOutput, WhatASecondSignalDropsIsCounted) {
  const std::string lines = requests(50000);
  UnreadOutput output(lines);
  std::string answers = output.readOne();
  output.program().signal(SIGTERM);
  output.program().waitForErrors("Stopping: reading no further");
  output.program().signal(SIGTERM);
  EXPECT_EQ(output.program().wait(), 0);
  answers += output.readAll();
  const Counts counts = countsIn(output.program().errors());
  EXPECT_EQ(countOf(answers), counts.answered) << "whole lines only";
  EXPECT_GE(counts.dropped, counts.sent - counts.answered);
  EXPECT_GT(counts.dropped, 0);
}

TEST(Run, KeepsATextThatTheTransportLendsForTheDeliveryAlone) {
  const EchoChainFile chain;
  HostProgram program({"run", chain.path()});
  program.write("{\"metadata\":{\"borrow\":true}}\n");
  EXPECT_EQ(program.finish(), 0);
  EXPECT_THAT(program.output(), HasSubstr("\"payload\":\"borrowed\""));
}

}  // namespace
}  // namespace host_tests
