// The example plug-in, run by orrery-host.
#include <csignal>
#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/ChildProcess.hpp"
#include "tests/support/TemporaryDirectory.hpp"

namespace examples_tests {
namespace {

using test_support::ChildProcess;
using testing::HasSubstr;

// The example's folder as its README leaves it: the plug-in stands in build/.
class EchoFolder {
 public:
  EchoFolder() {
    const std::filesystem::path example = std::filesystem::path(EXAMPLES) / "echo_plugin";
    for (const char* name : {"chain.yaml", "requests.jsonl"}) {
      std::filesystem::copy(example / name, _directory.path() / name);
    }
    std::filesystem::create_directory(_directory.path() / "build");
    std::filesystem::create_symlink(ECHO_PLUGIN, _directory.path() / "build" / "libEcho.so");
  }

  std::string read(const char* name) const { return test_support::readFile(_directory.file(name)); }

  // orrery-host with these arguments, in the folder.
  std::vector<std::string> command(std::vector<std::string> arguments) const {
    std::vector<std::string> all{"/usr/bin/env", "-C", _directory.path().string(), HOST_PROGRAM};
    all.insert(all.end(), arguments.begin(), arguments.end());
    return all;
  }

 private:
  const test_support::TemporaryDirectory _directory;
};

std::string answer(const std::string& requestId, const std::string& payload) {
  return R"({"metadata":{"http":{"statusCode":200},"requestId":)" + requestId + R"(},"payload":)" +
         payload + "}\n";
}

TEST(EchoPlugin, IsAcceptedByTheHost) {
  const EchoFolder folder;
  ChildProcess host(folder.command({"check", "chain.yaml"}));
  host.closeInput();
  EXPECT_EQ(host.wait(), 0);
  EXPECT_EQ(host.output(), "OK\n");
}

TEST(EchoPlugin, AnswersTheExampleRequestsAsItsReadmeSays) {
  const EchoFolder folder;
  ChildProcess host(folder.command({"run", "chain.yaml", "--input", "requests.jsonl"}));
  host.closeInput();
  EXPECT_EQ(host.wait(), 0);
  EXPECT_EQ(host.output(), answer("1", R"("hello")") + answer(R"("mine")", R"("again")") +
                               R"({"control":"flushed","id":"all before this is answered"})"
                               "\n");
  EXPECT_THAT(test_support::readFile(EXAMPLES "/echo_plugin/README.md"), HasSubstr(host.output()));
  EXPECT_THAT(host.errors(), HasSubstr("[connectivity.echo.example] Echo has started"));
  EXPECT_THAT(host.errors(), HasSubstr("Done: sent 2, answered 2, failed 0, dropped 0"));
}

TEST(EchoPlugin, GivesBackEveryKindOfPayload) {
  const EchoFolder folder;
  const std::vector<std::string> payloads{
      R"("text")",  "null",         "7",
      R"([1,"a"])", R"({"k":1.5})", R"({"$binary":{"base64":"AP8=","subType":"00"}})"};
  ChildProcess host(folder.command({"run", "chain.yaml"}));
  std::string expected;
  for (std::size_t i = 0; i < payloads.size(); ++i) {
    host.write(R"({"payload":)" + payloads[i] + "}\n");
    expected += answer(std::to_string(i + 1), payloads[i]);
  }
  host.closeInput();
  EXPECT_EQ(host.wait(), 0);
  EXPECT_EQ(host.output(), expected);
}

TEST(EchoPlugin, AnswersMoreThanItsQueueHoldsEachOnceAndInOrder) {
  const EchoFolder folder;
  ChildProcess host(folder.command({"run", "chain.yaml", "--log-level", "error"}));
  std::string expected;
  for (int i = 1; i <= 5000; ++i) {
    ASSERT_TRUE(host.write("{\"payload\":" + std::to_string(i) + "}\n"));
    expected += answer(std::to_string(i), std::to_string(i));
  }
  host.closeInput();
  EXPECT_EQ(host.wait(), 0);
  EXPECT_EQ(host.output(), expected);
}

TEST(EchoPlugin, AnswersWhatItTookBeforeASignal) {
  const EchoFolder folder;
  ChildProcess host(folder.command({"run", "chain.yaml"}));
  host.write("{\"payload\": 1}\n");
  host.waitForOutput(answer("1", "1"));
  host.signal(SIGTERM);
  EXPECT_EQ(host.wait(), 0);
  EXPECT_THAT(host.errors(), HasSubstr("sent 1, answered 1, failed 0, dropped 0"));
}

}  // namespace
}  // namespace examples_tests
