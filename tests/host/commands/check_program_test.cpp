// orrery-host check.
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/host/HostProgram.hpp"

namespace host_tests {
namespace {

using testing::HasSubstr;

TEST(Check, PrintsOkForAChainThatCouldStart) {
  const EchoChainFile chain;
  HostProgram program({"check", chain.path()});
  EXPECT_EQ(program.finish(), 0);
  EXPECT_EQ(program.output(), "OK\n");
  EXPECT_EQ(program.errors(), "");
}

TEST(Check, CreatesTheTransportWithoutStartingIt) {
  const EchoChainFile refusesToStart("    config: {fail: start}\n");
  HostProgram start({"check", refusesToStart.path()});
  EXPECT_EQ(start.finish(), 0);
  const EchoChainFile refusesToBeCreated("    config: {fail: create}\n");
  HostProgram create({"check", refusesToBeCreated.path()});
  EXPECT_EQ(create.finish(), 1);
  EXPECT_EQ(create.output(), "");
  EXPECT_THAT(create.errors(), HasSubstr("told to fail to create in chain echo"));
}

TEST(Check, TellsEveryChainThatCouldNotStart) {
  const test_support::TemporaryDirectory directory;
  const std::string streams =
      "    input: /dev/null\n"
      "    output: /dev/null\n";
  const std::string path = directory.write(
      "c.yaml", "chains:\n" + echoChain("first", streams + "    config: {fail: create}\n") +
                    echoChain("second", streams) +
                    echoChain("third", streams + "    config: {fail: create}\n"));
  HostProgram program({"check", path});
  EXPECT_EQ(program.finish(), 1);
  EXPECT_THAT(program.errors(), HasSubstr("of chain first could not be created"));
  EXPECT_THAT(program.errors(), HasSubstr("of chain third could not be created"));
}

TEST(Check, NamesFileLineAndKeyOfWhatIsWrong) {
  const EchoChainFile chain("    codek: json\n");
  HostProgram program({"check", chain.path()});
  EXPECT_EQ(program.finish(), 1);
  EXPECT_EQ(program.errors(), "orrery-host: " + chain.path() +
                                  ":6:5: chains[0].codek: unknown key (did you mean \"codec\"?)\n");
}

TEST(Check, ListsWhatWasTriedForATransportThatIsNotThere) {
  const test_support::TemporaryDirectory directory;
  HostProgram program({"check", directory.write("c.yaml",
                                                "chains:\n  - id: a\n    name: b\n"
                                                "    transport: NoSuchTransport\n")});
  EXPECT_EQ(program.finish(), 1);
  EXPECT_THAT(program.errors(), HasSubstr("/lib/libNoSuchTransport.so ("));
  EXPECT_THAT(program.errors(), HasSubstr("; libNoSuchTransport.so in "));
  EXPECT_THAT(program.errors(), HasSubstr(", /usr/lib (libNoSuchTransport.so: cannot open"));
  EXPECT_THAT(program.errors(), HasSubstr("; \"library\" in the chain file can name the file\n"));
}

TEST(Check, TellsAFileThatIsNoPlugin) {
  const EchoChainFile chain;
  const auto checkLibrary = [&](const std::string& transport, const std::string& library) {
    return chain.write("other.yaml", "chains:\n  - id: a\n    name: b\n    transport: " +
                                         transport + "\n    library: " + library + "\n");
  };
  HostProgram text({"check", checkLibrary("Echo", chain.write("text.so", "no library"))});
  EXPECT_EQ(text.finish(), 1);
  EXPECT_THAT(text.errors(), HasSubstr("cannot load the transport Echo"));
  HostProgram other({"check", checkLibrary("Other", ECHO_LIBRARY)});
  EXPECT_EQ(other.finish(), 1);
  EXPECT_THAT(other.errors(), HasSubstr("does not export qor_plugin_api_version_Other"));
}

TEST(Check, NeverPrintsAPassword) {
  const EchoChainFile chain("    config: {fail: create, authentication: {password: topsecret}}\n");
  HostProgram program({"check", chain.path()});
  EXPECT_EQ(program.finish(), 1);
  EXPECT_THAT(program.errors(), testing::Not(HasSubstr("topsecret")));
}

}  // namespace
}  // namespace host_tests
