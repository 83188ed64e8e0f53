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
using testing::StartsWith;

std::string request(int id, const std::string& payload) {
  return R"({"metadata":{"requestId":)" + std::to_string(id) + R"(},"payload":")" + payload +
         "\"}\n";
}

std::string requests(int first, int last) {
  const std::string payload(1000, 'x');
  std::string lines;
  for (int id = first; id <= last; ++id) lines += request(id, payload);
  return lines;
}

// The transport announces one of these behind which there is hardly room: 1,024 answers may wait to
// be written, 64 requests in the transport. So nearly a thousand wait then, far more than a pipe
// holds.
std::string moreThanFits() {
  return requests(1, 1049) + "{\"metadata\":{\"announce\":true,\"requestId\":1050}}\n" +
         requests(1051, 5000);
}

int countOf(const std::string& lines) {
  return static_cast<int>(std::count(lines.begin(), lines.end(), '\n'));
}

// The program with its output in a pipe, which the test reads when it likes.
class UnreadOutput {
 public:
  explicit UnreadOutput(const std::string& input) : UnreadOutput(input, pipe()) {}

  HostProgram& program() { return _program; }
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
  const std::string lines = requests(1, 900);
  UnreadOutput output(lines + "{\"metadata\":{\"tell\":true}}\n");
  output.program().waitForErrors("[echo] told");
  const std::string answers = output.readAll();
  EXPECT_EQ(output.program().wait(), 0);
  EXPECT_EQ(countOf(answers), 901);
  EXPECT_EQ(answers.substr(0, lines.size()), lines) << "each as it was sent, in its order";
}

TEST(RunWithAnUnreadOutput, WhatWasReadIsAnsweredAfterASignalAndNothingIsLost) {
  UnreadOutput output(moreThanFits());
  output.program().waitForErrors("[echo] taken");
  output.program().signal(SIGTERM);
  output.program().waitForErrors("Stopping: reading no further");
  const std::string answers = output.readAll();
  EXPECT_EQ(output.program().wait(), 0);
  const Counts counts = countsIn(output.program().errors());
  EXPECT_THAT(answers, StartsWith(requests(1, 1049))) << "in the order of their delivery";
  EXPECT_EQ(countOf(answers), counts.answered);
  EXPECT_EQ(counts.sent, counts.answered);
  EXPECT_EQ(counts.dropped, 0);
  EXPECT_LT(counts.sent, 5000) << "the signal came before the end";
}

TEST(RunWithAnUnreadOutput, WhatASecondSignalDropsIsCounted) {
  UnreadOutput output(moreThanFits());
  output.program().waitForErrors("[echo] taken");
  output.program().signal(SIGTERM);
  output.program().waitForErrors("Stopping: reading no further");
  output.program().signal(SIGTERM);
  EXPECT_EQ(output.program().wait(), 0);
  const std::string answers = output.readAll();
  const Counts counts = countsIn(output.program().errors());
  EXPECT_EQ(countOf(answers), counts.answered) << "whole lines only";
  EXPECT_GE(counts.dropped, 1050 - counts.answered);
  EXPECT_GT(counts.dropped, 900) << "a pipe does not hold them";
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
