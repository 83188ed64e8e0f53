// orrery-host run: from lines to answers.
#include <algorithm>
#include <cstdio>
#include <fcntl.h>
#include <string>
#include <thread>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/host/HostProgram.hpp"

namespace host_tests {
namespace {

using testing::ContainsRegex;
using testing::HasSubstr;
using testing::MatchesRegex;
using testing::Not;

const std::string success = R"({"metadata":{"http":{"statusCode":200},"requestId":)";

std::string request(const std::string& id) { return success + id + "}}\n"; }
std::string answer(const std::string& id) { return success + id + "},\"payload\":null}\n"; }

TEST(Run, AnswersEveryLineInOrderOfDelivery) {
  const EchoChainFile chain;
  HostProgram program({"run", chain.path()});
  program.write(request("1") + request("\"b\"") + request("null"));
  EXPECT_EQ(program.finish(), 0);
  EXPECT_EQ(program.output(), answer("1") + answer("\"b\"") + answer("null"));
}

TEST(Run, ReadsAndWritesFiles) {
  const EchoChainFile chain;
  const std::string input = chain.write("in", request("1") + request("2"));
  HostProgram program({"run", chain.path(), "--input", input, "--output", chain.file("out")});
  EXPECT_EQ(program.finish(), 0);
  EXPECT_EQ(program.output(), "");
  EXPECT_EQ(test_support::readFile(chain.file("out")), answer("1") + answer("2"));
}

TEST(Run, TakesItsStreamsFromTheChainFileUnlessTheCommandLineNamesThem) {
  const test_support::TemporaryDirectory directory;
  const std::string input = directory.write("in", request("1"));
  const std::string path = directory.write(
      "c.yaml", "chains:\n" + echoChain("a", "    input: " + input +
                                                 "\n    output: " + directory.file("out") + "\n"));
  HostProgram fromFile({"run", path});
  EXPECT_EQ(fromFile.finish(), 0);
  EXPECT_EQ(test_support::readFile(directory.file("out")), answer("1"));
  HostProgram fromCommandLine({"run", path, "--input", "-", "--output", "-"});
  fromCommandLine.write(request("2"));
  EXPECT_EQ(fromCommandLine.finish(), 0);
  EXPECT_EQ(fromCommandLine.output(), answer("2"));
}

TEST(Run, AnAnswerComesWhileTheInputStaysOpen) {
  const EchoChainFile chain;
  HostProgram program({"run", chain.path()});
  for (const char* id : {"1", "2", "3"}) {
    program.write(request(id));
    program.waitForOutput(answer(id));
  }
  EXPECT_EQ(program.finish(), 0);
}

TEST(Run, AnAnswerComesWhileAnotherIsStillOutstanding) {
  const EchoChainFile chain;
  HostProgram program({"run", chain.path()});
  program.write(request("1") + "{\"metadata\":{\"hold\":true}}\n");
  program.waitForOutput(answer("1"));
  program.signal(SIGINT);
  program.waitForErrors("Stopping");
  program.signal(SIGINT);
  EXPECT_EQ(program.wait(), 0);
}

TEST(Run, ALineThatIsNoMessageIsAnsweredWithAnErrorAndTheRunGoesOn) {
  const EchoChainFile chain;
  HostProgram program({"run", chain.path()});
  program.write("\n  \n{}x\n" + request("1") + "{\"payload\":1,\"payload\":2}\n" + request("2"));
  EXPECT_EQ(program.finish(), 3);
  EXPECT_THAT(program.output(),
              HasSubstr(R"({"error":{"line":3,"text":"not valid JSON at byte 3: )"));
  EXPECT_THAT(program.output(),
              HasSubstr(R"({"error":{"line":5,"text":"the key \"payload\" is repeated"}})"));
  EXPECT_THAT(program.output(), HasSubstr(answer("1")));
  EXPECT_THAT(program.output(), HasSubstr(answer("2")));
}

TEST(Run, ALineWithoutRequestIdGetsItsNumberBlankLinesCounted) {
  const EchoChainFile chain;
  HostProgram program({"run", chain.path()});
  program.write("\n\r\n{}\n\n{}");
  EXPECT_EQ(program.finish(), 0);
  EXPECT_EQ(program.output(),
            "{\"metadata\":{\"requestId\":3},\"payload\":null}\n"
            "{\"metadata\":{\"requestId\":5},\"payload\":null}\n");
}

TEST(Run, AssignsNoRequestIdsWhereTheChainSaysSo) {
  const EchoChainFile chain("    assignRequestIds: false\n");
  HostProgram program({"run", chain.path()});
  program.write("{}\n");
  EXPECT_EQ(program.finish(), 0);
  EXPECT_EQ(program.output(), "{\"metadata\":{},\"payload\":null}\n");
}

TEST(Run, AMessageThatTheTransportRefusesIsAnErrorAndTheRestOfItsBatchIsSent) {
  const EchoChainFile chain;
  const std::string input =
      chain.write("in", request("1") + "{\"metadata\":{\"refuse\":true}}\n" + request("3"));
  HostProgram program({"run", chain.path(), "--input", input});
  EXPECT_EQ(program.finish(), 3);
  EXPECT_THAT(program.output(), HasSubstr(answer("1")));
  EXPECT_THAT(program.output(),
              HasSubstr("{\"error\":{\"line\":2,\"text\":\"the transport refused"));
  EXPECT_THAT(program.output(), HasSubstr(answer("3")));
}

TEST(Run, AFlushIsToldAfterTheAnswersToWhatStoodBeforeIt) {
  const EchoChainFile chain;
  HostProgram program({"run", chain.path()});
  program.write(request("1") + "{\"control\":\"flush\",\"id\":{\"a\":1}}\n" + request("2") +
                "{\"control\":\"flush\"}\n");
  EXPECT_EQ(program.finish(), 0);
  EXPECT_EQ(program.output(), answer("1") + "{\"control\":\"flushed\",\"id\":{\"a\":1}}\n" +
                                  answer("2") + "{\"control\":\"flushed\",\"id\":4}\n");
}

TEST(Run, EveryCodecTakesWhatItGaveBack) {
  const std::string line =
      R"({"metadata":{"contentType":"application/json","requestId":1},"payload":[1,"x",null]})";
  for (const char* codec : {"text", "json", "none"}) {
    const EchoChainFile chain(std::string("    codec: ") + codec + "\n");
    HostProgram program({"run", chain.path()});
    program.write(line + "\n");
    EXPECT_EQ(program.finish(), 0);
    EXPECT_EQ(program.output(), line + "\n") << codec;
  }
}

TEST(Run, TwoChainsRunAtTheSameTimeEachWithItsOwnStreams) {
  const test_support::TemporaryDirectory directory;
  const std::string input = directory.write("in", request("\"second\""));
  const std::string path = directory.write(
      "c.yaml", "chains:\n" + echoChain("first") +
                    echoChain("second", "    input: " + input +
                                            "\n    output: " + directory.file("out") + "\n"));
  HostProgram program({"run", path});
  program.write(request("1"));
  program.waitForOutput(answer("1"));
  EXPECT_EQ(program.finish(), 0);
  EXPECT_EQ(program.output(), answer("1"));
  EXPECT_EQ(test_support::readFile(directory.file("out")), answer("\"second\""));
  EXPECT_THAT(program.errors(), HasSubstr("Chain second: sent 1, answered 1"));
}

TEST(Run, AnswersManyRequestsThroughAQueueThatIsFullMostOfTheTime) {
  const EchoChainFile chain;
  constexpr int howMany = 20000;
  std::string input;
  for (int i = 1; i <= howMany; ++i) input += request(std::to_string(i));
  HostProgram program({"run", chain.path(), "--input", chain.write("in", input)});
  EXPECT_EQ(program.finish(), 0);
  const std::string output = program.output();
  EXPECT_EQ(std::count(output.begin(), output.end(), '\n'), howMany);
  EXPECT_EQ(lastLine(output) + "\n", answer(std::to_string(howMany)));
  EXPECT_THAT(lastLine(program.errors()), HasSubstr("sent 20000, answered 20000, failed 0"));
}

// Before each further batch the reader waits for room for all of it, so that few meet a full queue:
// those with which it tries whether there is more room by now.
TEST(Run, WaitsForRoomForAWholeBatchOnceTheTransportHasToldThatOneWaits) {
  const EchoChainFile chain("    config: {tellWaits: true}\n");
  constexpr int howMany = 20000;
  std::string input;
  for (int i = 1; i <= howMany; ++i) input += request(std::to_string(i));
  HostProgram program({"run", chain.path(), "--input", chain.write("in", input)});
  EXPECT_EQ(program.finish(), 0);
  EXPECT_THAT(lastLine(program.errors()), HasSubstr("sent 20000, answered 20000, failed 0"));
  int waited = -1;
  int batches = 0;
  const std::string errors = program.errors();
  const auto line = errors.find("[echo] ");
  ASSERT_NE(line, std::string::npos) << errors;
  ASSERT_EQ(std::sscanf(errors.c_str() + line, "[echo] %d of %d batches waited", &waited, &batches),
            2);
  EXPECT_GE(batches, howMany / 128);
  EXPECT_LE(waited, batches / 8);
}

TEST(Run, AnOutputPipeWithoutReaderEndsTheRunWithAnError) {
  const EchoChainFile chain;
  int ends[2] = {-1, -1};
  ASSERT_EQ(::pipe(ends), 0);
  ::close(ends[0]);
  const std::string output = "/proc/self/fd/" + std::to_string(ends[1]);
  test_support::ChildProcess::Options options;
  options.inherited.push_back(ends[1]);
  test_support::ChildProcess program({HOST_PROGRAM, "run", chain.path(), "--output", output},
                                     options);
  ::close(ends[1]);
  // The input stays open: only the failed output ends the run.
  program.write(request("1"));
  EXPECT_EQ(program.wait(), 1);
  EXPECT_THAT(program.errors(), HasSubstr("cannot write " + output + ": Broken pipe"));
}

TEST(Run, LogsInTheFormatOfTheHost) {
  const EchoChainFile chain;
  HostProgram program({"run", chain.path()});
  EXPECT_EQ(program.finish(), 0);
  EXPECT_THAT(
      lastLine(program.errors()) + "\n",
      MatchesRegex("[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3}Z INFO  "
                   "\\[host\\] Done: sent 0, answered 0, failed 0, dropped 0, "
                   "invalid lines 0\n"));
}

TEST(Run, LogLevelOfTheCommandLineWinsOverTheChainFile) {
  const test_support::TemporaryDirectory directory;
  const std::string path =
      directory.write("c.yaml", "chains:\n" + echoChain("a") + "log: {level: error}\n");
  HostProgram quiet({"run", path});
  EXPECT_EQ(quiet.finish(), 0);
  EXPECT_EQ(quiet.errors(), "");
  HostProgram loud({"run", path, "--log-level", "info"});
  EXPECT_EQ(loud.finish(), 0);
  EXPECT_THAT(loud.errors(), HasSubstr("Done: "));
}

TEST(Run, TheLevelOfACategoryWinsOverTheLevelOfTheLog) {
  const test_support::TemporaryDirectory directory;
  const std::string path = directory.write(
      "c.yaml", "chains:\n" + echoChain("a") + "log: {level: info, levels: {host: warn}}\n");
  HostProgram program({"run", path});
  EXPECT_EQ(program.finish(), 0);
  EXPECT_THAT(program.errors(), Not(HasSubstr("Done: ")));
}

TEST(Run, AChainThatCannotStartEndsWith1AndItsReason) {
  const EchoChainFile create("    config: {fail: create}\n");
  HostProgram notCreated({"run", create.path()});
  EXPECT_EQ(notCreated.finish(), 1);
  EXPECT_THAT(notCreated.errors(), HasSubstr("told to fail to create"));
  const EchoChainFile start("    config: {fail: start}\n");
  HostProgram notStarted({"run", start.path()});
  EXPECT_EQ(notStarted.finish(), 1);
  EXPECT_THAT(notStarted.errors(), HasSubstr("told to fail to start"));
  EXPECT_THAT(notStarted.errors(), HasSubstr("could not be started"));
}

TEST(Run, AMissingFileEndsWith1) {
  const EchoChainFile chain;
  HostProgram noChain({"run", chain.file("none.yaml")});
  EXPECT_EQ(noChain.finish(), 1);
  EXPECT_THAT(noChain.errors(), HasSubstr("none.yaml: cannot read the chain file"));
  HostProgram noInput({"run", chain.path(), "--input", chain.file("none")});
  EXPECT_EQ(noInput.finish(), 1);
  EXPECT_THAT(noInput.errors(), HasSubstr("--input: cannot read"));
}

TEST(Run, StreamsOfTheCommandLineNeedAChainFileWithOneChain) {
  const test_support::TemporaryDirectory directory;
  const std::string streams = "    input: /dev/null\n    output: /dev/null\n";
  const std::string path =
      directory.write("c.yaml", "chains:\n" + echoChain("a", streams) + echoChain("b", streams));
  HostProgram program({"run", path, "--input", "/dev/null"});
  EXPECT_EQ(program.finish(), 2);
  EXPECT_THAT(program.errors(), HasSubstr("need a chain file with one chain"));
}

TEST(Run, ServesTheStatusWhereTheChainFileOrTheCommandLineSaysSo) {
  const test_support::TemporaryDirectory directory;
  const std::string path =
      directory.write("c.yaml", "chains:\n" + echoChain("a") + "status: {port: 0}\n");
  HostProgram fromFile({"run", path});
  fromFile.waitForErrors("The status server listens on http://127.0.0.1:");
  EXPECT_EQ(fromFile.finish(), 0);
  const EchoChainFile chain;
  HostProgram fromCommandLine({"run", chain.path(), "--status-port", "0"});
  fromCommandLine.waitForErrors("The status server listens on http://127.0.0.1:");
  EXPECT_EQ(fromCommandLine.finish(), 0);
}

TEST(Run, AStatusAddressThatCannotBeUsedEndsWith1) {
  const test_support::TemporaryDirectory directory;
  const std::string path = directory.write(
      "c.yaml", "chains:\n" + echoChain("a") + "status: {port: 0, address: 192.0.2.1}\n");
  HostProgram program({"run", path});
  EXPECT_EQ(program.finish(), 1);
  EXPECT_THAT(program.errors(), HasSubstr("cannot listen on 192.0.2.1:0"));
}

TEST(Run, TellsItsSummaryInTheLogBeforeTheLastLine) {
  const EchoChainFile chain;
  HostProgram program({"run", chain.path()});
  program.write(request("1") + request("2") + "{\"payload\":\"four\"}\nx\n");
  EXPECT_EQ(program.finish(), 3);
  const std::string errors = program.errors();
  EXPECT_THAT(errors, HasSubstr("[host] Summary: sent 3, answered 3, failed 1, dropped 0, "
                                "invalid lines 1\n"));
  EXPECT_THAT(errors, HasSubstr("[host] Summary: 2xx 2, 3xx 0, 4xx 0, 5xx 0, other 1; "
                                "without a response 0\n"));
  EXPECT_THAT(errors, HasSubstr("[host] Summary: bytes: 4 in requests, 4 in responses\n"));
  EXPECT_THAT(errors, ContainsRegex("Summary: .* answers/s; hand-over to answer: p50 .* ms, "
                                    "p90 .* ms, p99 .* ms, max .* ms\n"));
  EXPECT_THAT(lastLine(errors), HasSubstr("Done: sent 3"));
}

TEST(Run, TellsItsSummaryInOneLineOfJsonWhereAskedWhateverTheLevelOfTheLog) {
  const EchoChainFile chain;
  HostProgram program({"run", chain.path(), "--summary", "json", "--log-level", "error"});
  program.write(request("1") + "{\"control\":\"flush\"}\n");
  EXPECT_EQ(program.finish(), 0);
  EXPECT_THAT(program.errors(),
              MatchesRegex("\\{\"summary\":\\{\"chains\":\\[\\{\"answered\":1,.*\"id\":\"echo\",.*"
                           "\\],\"total\":\\{\"answered\":1,.*\\}\\}\\}\n"));
}

TEST(Run, TheLineOfJsonStandsBeforeTheLastLineOfTheLog) {
  const EchoChainFile chain;
  HostProgram program({"run", chain.path(), "--summary", "json"});
  EXPECT_EQ(program.finish(), 0);
  EXPECT_THAT(program.errors(), HasSubstr("\"latencyMillis\":null"));
  EXPECT_THAT(lastLine(program.errors()), HasSubstr("Done: sent 0"));
}

TEST(Run, ToldToBeQuietTellsNoSummary) {
  const EchoChainFile chain;
  HostProgram program({"run", chain.path(), "--quiet"});
  EXPECT_EQ(program.finish(), 0);
  EXPECT_EQ(program.errors(), lastLine(program.errors()) + "\n");
  EXPECT_THAT(program.errors(), HasSubstr("Done: sent 0"));
}

TEST(Run, TellsEachOfSeveralChainsAndAllTogether) {
  const test_support::TemporaryDirectory directory;
  const std::string input = directory.write("in", request("1") + request("2"));
  const std::string streams = "    input: " + input + "\n    output: /dev/null\n";
  const std::string path = directory.write(
      "c.yaml", "chains:\n" + echoChain("first", streams) + echoChain("second", streams));
  HostProgram program({"run", path});
  EXPECT_EQ(program.finish(), 0);
  for (const char* text :
       {"Chain first: 2xx 2", "Chain second: 2xx 2", "All chains: sent 4", "All chains: 2xx 4"}) {
    EXPECT_THAT(program.errors(), HasSubstr(text));
  }
  EXPECT_THAT(lastLine(program.errors()), HasSubstr("Done: sent 4, answered 4"));
}

// A terminal: what a program writes to the end that it is given can be read from this one.
class Terminal {
 public:
  Terminal() : _master(::posix_openpt(O_RDWR | O_NOCTTY)) {
    EXPECT_EQ(::grantpt(_master), 0);
    EXPECT_EQ(::unlockpt(_master), 0);
    _slave = ::open(::ptsname(_master), O_RDWR | O_NOCTTY | O_CLOEXEC);
  }
  ~Terminal() {
    ::close(_slave);
    ::close(_master);
  }
  Terminal(const Terminal&) = delete;
  Terminal& operator=(const Terminal&) = delete;

  int slave() const { return _slave; }
  // As typed at the keyboard.
  void type(std::string_view text) {
    ASSERT_EQ(::write(_master, text.data(), text.size()), static_cast<ssize_t>(text.size()));
  }
  // Reads until the text has come.
  void waitFor(std::string_view text) {
    while (_seen.find(text) == std::string::npos) {
      char bytes[256];
      const ssize_t count = ::read(_master, bytes, sizeof bytes);
      ASSERT_GT(count, 0) << _seen;
      _seen.append(bytes, static_cast<std::size_t>(count));
    }
  }

 private:
  const int _master;
  int _slave = -1;
  std::string _seen;
};

TEST(Run, ShowsItsProgressOnATerminal) {
  const EchoChainFile chain;
  Terminal terminal;
  test_support::ChildProcess::Options options;
  options.inherited.push_back(terminal.slave());
  const std::string errors = "/proc/self/fd/" + std::to_string(terminal.slave());
  test_support::ChildProcess program(
      {"/bin/sh", "-c", "exec \"$0\" run \"$1\" 2>\"$2\"", HOST_PROGRAM, chain.path(), errors},
      options);
  program.write(request("1") + "{}\n");
  terminal.waitFor("sent 2, answered 2, failed 1, ");
  program.closeInput();
  EXPECT_EQ(program.wait(), 0);
}

TEST(Run, SaysThatItReadsFromATerminal) {
  const EchoChainFile chain;
  Terminal terminal;
  test_support::ChildProcess::Options options;
  options.inherited.push_back(terminal.slave());
  HostProgram program(
      {"run", chain.path(), "--input", "/proc/self/fd/" + std::to_string(terminal.slave())},
      options);
  program.waitForErrors(
      "[host] chain echo: reading requests from the terminal, one a line; Ctrl-D ends the input\n");
  terminal.type("{}\n\x04");
  EXPECT_EQ(program.wait(), 0);
  EXPECT_THAT(program.output(), HasSubstr("\"requestId\":1"));
}

}  // namespace
}  // namespace host_tests
