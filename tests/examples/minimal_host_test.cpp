// The example host in C, against a scripted server and through the real transport.
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/ChildProcess.hpp"
#include "tests/support/Descriptor.hpp"
#include "tests/support/ScriptedServer.hpp"

namespace examples_tests {
namespace {

using testing::HasSubstr;

class MinimalHost : public test_support::ChildProcess {
 public:
  explicit MinimalHost(std::vector<std::string> arguments)
      : ChildProcess(withProgram(std::move(arguments))) {
    closeInput();
  }

 private:
  static std::vector<std::string> withProgram(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), MINIMAL_HOST);
    return arguments;
  }
};

TEST(MinimalHost, PrintsTheBodyAndTheStatusOfItsAnswer) {
  test_support::ScriptedServer server;
  server.answer("/greeting", {200, {{"Content-Type", "text/plain"}}, "hello\n"});
  MinimalHost host({TRANSPORT, "127.0.0.1", std::to_string(server.port()), "/greeting"});
  EXPECT_EQ(host.wait(), 0);
  EXPECT_EQ(host.output(), "hello\n");
  EXPECT_THAT(host.errors(), HasSubstr("minimal_host: status 200\n"));
  EXPECT_EQ(server.requestCount(), 1U);
}

TEST(MinimalHost, PrintsNothingForAnAnswerWithoutABody) {
  test_support::ScriptedServer server;
  server.answer("/empty", {204, {}, ""});
  MinimalHost host({TRANSPORT, "127.0.0.1", std::to_string(server.port()), "/empty"});
  EXPECT_EQ(host.wait(), 0);
  EXPECT_EQ(host.output(), "");
  EXPECT_THAT(host.errors(), HasSubstr("minimal_host: status 204\n"));
}

TEST(MinimalHost, FailsForAnAnswerThatIsAnError) {
  test_support::ScriptedServer server;
  MinimalHost host({TRANSPORT, "127.0.0.1", std::to_string(server.port()), "/nothing-here"});
  EXPECT_EQ(host.wait(), 1);
  EXPECT_THAT(host.errors(), HasSubstr("minimal_host: status 404\n"));
}

TEST(MinimalHost, TellsWhyAServerCouldNotBeReached) {
  const std::string port = std::to_string(test_support::unusedPort());
  MinimalHost host({TRANSPORT, "127.0.0.1", port, "/"});
  EXPECT_EQ(host.wait(), 1);
  EXPECT_THAT(host.output(), HasSubstr("Connection refused"));
  EXPECT_THAT(host.errors(), HasSubstr("minimal_host: status 400\n"));
}

TEST(MinimalHost, TellsWhyThereIsNoTransport) {
  MinimalHost host({TRANSPORT, "127.0.0.1", "http", "/"});
  EXPECT_EQ(host.wait(), 1);
  EXPECT_THAT(host.errors(), HasSubstr("Exception from create: HTTPClient configuration port"));
  EXPECT_THAT(host.errors(), HasSubstr("minimal_host: no transport was created"));
}

TEST(MinimalHost, TellsAFileThatIsNoLibraryAndOneThatIsNoTransport) {
  MinimalHost missing({"/nothing/here.so", "127.0.0.1", "80", "/"});
  EXPECT_EQ(missing.wait(), 1);
  EXPECT_THAT(missing.errors(), HasSubstr("minimal_host: /nothing/here.so: cannot open"));
  MinimalHost other({ECHO_PLUGIN, "127.0.0.1", "80", "/"});
  EXPECT_EQ(other.wait(), 1);
  EXPECT_THAT(other.errors(), HasSubstr("undefined symbol: qor_plugin_api_version_HTTPClient"));
}

TEST(MinimalHost, TellsItsUsage) {
  MinimalHost host({TRANSPORT});
  EXPECT_EQ(host.wait(), 2);
  EXPECT_EQ(host.errors(), "usage: minimal_host LIBRARY HOST PORT PATH\n");
}

}  // namespace
}  // namespace examples_tests
