#include <cmath>
#include <string>

#include <gtest/gtest.h>

#include "connectivity/value_access.hpp"
#include "host/chain/ChainFile.hpp"
#include "host/chain/ChainFileError.hpp"
#include "host/messages/JsonWriter.hpp"
#include "tests/support/TemporaryDirectory.hpp"

namespace host {
namespace {

using connectivity::data_t;
using connectivity::get;

// A file with one chain, whose first lines are these.
const std::string chainHead =
    "chains:\n"
    "  - id: orders\n"
    "    name: shop\n"
    "    transport: HTTPClient\n";

std::string errorOf(const std::string& text) {
  try {
    parseChainFile(text, "x.yaml");
    return {};
  } catch (const ChainFileError& error) {
    return error.what();
  }
}

TEST(ChainFile, ReadsAChainWithItsDefaults) {
  const ChainFile file = parseChainFile(chainHead, "x.yaml");
  ASSERT_EQ(file.chains.size(), 1U);
  const ChainDefinition& chain = file.chains.front();
  EXPECT_EQ(chain.id, "orders");
  EXPECT_EQ(chain.name, "shop");
  EXPECT_EQ(chain.transport.text, "HTTPClient");
  EXPECT_FALSE(chain.library);
  EXPECT_EQ(chain.codec, Codec::Text);
  EXPECT_TRUE(chain.assignRequestIds);
  EXPECT_TRUE(chain.config.empty());
  EXPECT_EQ(chain.input.text, "-");
  EXPECT_EQ(chain.output.text, "-");
  EXPECT_EQ(file.log.level, QOR_LOG_INFO);
  EXPECT_TRUE(file.log.levels.empty());
  EXPECT_FALSE(file.status);
}

TEST(ChainFile, ReadsEveryKey) {
  const ChainFile file = parseChainFile(chainHead +
                                            "    library: /lib/x.so\n"
                                            "    codec: json\n"
                                            "    assignRequestIds: false\n"
                                            "    config: {host: localhost, port: 8080}\n"
                                            "    input: in.jsonl\n"
                                            "    output: out.jsonl\n"
                                            "log: {level: warn, levels: {a.b: trace}}\n"
                                            "status: {port: 9090, address: 0.0.0.0}\n",
                                        "x.yaml");
  const ChainDefinition& chain = file.chains.front();
  EXPECT_EQ(chain.library->text, "/lib/x.so");
  EXPECT_EQ(chain.codec, Codec::Json);
  EXPECT_FALSE(chain.assignRequestIds);
  EXPECT_EQ(chain.config.size(), 2U);
  EXPECT_EQ(chain.input.text, "in.jsonl");
  EXPECT_EQ(chain.output.text, "out.jsonl");
  EXPECT_EQ(file.log.level, QOR_LOG_WARN);
  EXPECT_EQ(file.log.levels.at("a.b"), QOR_LOG_TRACE);
  EXPECT_EQ(file.status->port, 9090);
  EXPECT_EQ(file.status->address, "0.0.0.0");
}

TEST(ChainFile, StatusListensOnTheLoopbackAddressUnlessToldOtherwise) {
  EXPECT_EQ(parseChainFile(chainHead + "status: {port: 1}\n", "x").status->address, "127.0.0.1");
}

TEST(ChainFile, NamesPlaceAndKeyOfAnUnknownKeyAndTheNearestRightOne) {
  EXPECT_EQ(errorOf(chainHead + "    codek: text\n"),
            "x.yaml:5:5: chains[0].codek: unknown key (did you mean \"codec\"?)");
  EXPECT_EQ(errorOf(chainHead + "    host: localhost\n"),
            "x.yaml:5:5: chains[0].host: unknown key; known: id, name, transport, library, codec, "
            "assignRequestIds, config, input, output. What the transport itself is told stands in "
            "config");
  EXPECT_EQ(errorOf(chainHead + "colours: {}\n"),
            "x.yaml:5:1: colours: unknown key; known: chains, log, status");
  EXPECT_EQ(errorOf(chainHead + "logs: {}\n"),
            "x.yaml:5:1: logs: unknown key (did you mean \"log\"?)");
  EXPECT_EQ(errorOf(chainHead + "log:\n  levle: info\n"),
            "x.yaml:6:3: log.levle: unknown key (did you mean \"level\"?)");
  EXPECT_EQ(errorOf(chainHead + "status: {port: 1, adress: x}\n"),
            "x.yaml:5:19: status.adress: unknown key (did you mean \"address\"?)");
}

TEST(ChainFile, NamesPlaceAndKeyOfAWrongType) {
  EXPECT_EQ(errorOf("chains: 5\n"),
            "x.yaml:1:9: chains: must be a list: \"- \" stands before the first key of each chain");
  EXPECT_EQ(errorOf("chains: []\n"), "x.yaml:1:9: chains: must hold a chain");
  EXPECT_EQ(errorOf("chains:\n  - 7\n"), "x.yaml:2:5: chains[0]: must be a map");
  EXPECT_EQ(errorOf("chains:\n  - id: [1]\n"), "x.yaml:2:9: chains[0].id: must be a text");
  EXPECT_EQ(errorOf("chains:\n  - id: 12\n"),
            "x.yaml:2:9: chains[0].id: must be a text: put it in quotes");
  EXPECT_EQ(errorOf("chains:\n  - id: \"\"\n"), "x.yaml:2:9: chains[0].id: must not be empty");
  EXPECT_EQ(errorOf(chainHead + "    codec: xml\n"),
            "x.yaml:5:12: chains[0].codec: must be text, json or none");
  EXPECT_EQ(errorOf(chainHead + "    codec: JSON\n"),
            "x.yaml:5:12: chains[0].codec: must be text, json or none (did you mean \"json\"?)");
  EXPECT_EQ(errorOf(chainHead + "log: {level: warning}\n"),
            "x.yaml:5:14: log.level: must be error, warn, info, debug or trace (did you mean "
            "\"warn\"?)");
  EXPECT_EQ(errorOf(chainHead + "    assignRequestIds: maybe\n"),
            "x.yaml:5:23: chains[0].assignRequestIds: must be true or false");
  EXPECT_EQ(errorOf(chainHead + "    config: [1]\n"),
            "x.yaml:5:13: chains[0].config: must be a map");
  EXPECT_EQ(errorOf(chainHead + "    input: {}\n"), "x.yaml:5:12: chains[0].input: must be a text");
  EXPECT_EQ(errorOf(chainHead + "log: info\n"),
            "x.yaml:5:6: log: must be a map, such as {level: info}");
  EXPECT_EQ(errorOf(chainHead + "log: {level: loud}\n"),
            "x.yaml:5:14: log.level: must be error, warn, info, debug or trace");
  EXPECT_EQ(errorOf(chainHead + "log: {levels: {a: 5}}\n"),
            "x.yaml:5:19: log.levels.a: must be a text: put it in quotes");
  EXPECT_EQ(errorOf(chainHead + "status: {port: 65536}\n"),
            "x.yaml:5:16: status.port: must be an integer between 0 and 65535");
  EXPECT_EQ(errorOf(chainHead + "status: {port: http}\n"),
            "x.yaml:5:16: status.port: must be an integer between 0 and 65535");
}

TEST(ChainFile, SaysThatAKeyWithoutAValueIsNull) {
  EXPECT_EQ(errorOf("chains:\n  - id:\n"),
            "x.yaml:2:5: chains[0].id: must be a text but it's actually null");
  EXPECT_EQ(errorOf("chains:\n  -\n"),
            "x.yaml:3:1: chains[0]: must be a map but it's actually null");
  EXPECT_EQ(errorOf(chainHead + "    assignRequestIds: ~\n"),
            "x.yaml:5:5: chains[0].assignRequestIds: must be true or false but it's actually null");
  EXPECT_EQ(errorOf(chainHead + "log: ~\n"),
            "x.yaml:5:1: log: must be a map, such as {level: info} but it's actually null");
  EXPECT_EQ(
      errorOf(chainHead + "status: {port: }\n"),
      "x.yaml:5:10: status.port: must be an integer between 0 and 65535 but it's actually null");
  EXPECT_EQ(errorOf(chainHead + "status: ~\n"),
            "x.yaml:5:1: status: must be a map, such as {port: 9090} but it's actually null");
  EXPECT_EQ(
      errorOf("chains: null\n"),
      "x.yaml:1:1: chains: must be a list: \"- \" stands before the first key of each chain but "
      "it's actually null");
}

TEST(ChainFile, TakesBooleansAndIntegersForItsOwnKeysAsTheCoreSchemaDoes) {
  const auto assigns = [](const std::string& value) {
    return parseChainFile(chainHead + "    assignRequestIds: " + value + "\n", "x.yaml")
        .chains.front()
        .assignRequestIds;
  };
  EXPECT_TRUE(assigns("True"));
  EXPECT_TRUE(assigns("TRUE"));
  EXPECT_FALSE(assigns("False"));
  EXPECT_FALSE(assigns("FALSE"));
  EXPECT_FALSE(assigns("false"));
  const auto port = [](const std::string& value) {
    return parseChainFile(chainHead + "status: {port: " + value + "}\n", "x.yaml").status->port;
  };
  EXPECT_EQ(port("0x1F90"), 8080);
  EXPECT_EQ(port("+8080"), 8080);
  for (const char* text : {"yes", "\"true\"", "tRUE", "1"}) {
    EXPECT_EQ(errorOf(chainHead + "    assignRequestIds: " + text + "\n"),
              "x.yaml:5:23: chains[0].assignRequestIds: must be true or false");
  }
  EXPECT_EQ(errorOf(chainHead + "status: {port: 2.50}\n"),
            "x.yaml:5:16: status.port: must be an integer between 0 and 65535");
}

TEST(ChainFile, TakesForATextWhatWouldNotComeBackFromItsValue) {
  const ChainFile file = parseChainFile(
      "chains:\n  - id: 1.50\n    name: True\n    transport: T\n    input: 0x1F\n", "x.yaml");
  EXPECT_EQ(file.chains.front().id, "1.50");
  EXPECT_EQ(file.chains.front().name, "True");
  EXPECT_EQ(file.chains.front().input.text, "0x1F");
}

TEST(ChainFile, NamesWhatIsMissing) {
  EXPECT_EQ(errorOf(""), "x.yaml:1:1: chains: must be given");
  EXPECT_EQ(errorOf("log: {}\n"), "x.yaml:1:1: chains: must be given");
  EXPECT_EQ(errorOf("chains:\n  - name: a\n    transport: T\n"),
            "x.yaml:2:5: chains[0].id: must be given");
  EXPECT_EQ(errorOf("chains:\n  - id: a\n    name: a\n"),
            "x.yaml:2:5: chains[0].transport: must be given");
  EXPECT_EQ(errorOf(chainHead + "status: {}\n"), "x.yaml:5:9: status.port: must be given");
}

TEST(ChainFile, RefusesATransportWhoseNameCannotEndASymbol) {
  EXPECT_EQ(
      errorOf("chains:\n  - id: a\n    name: b\n    transport: ../evil\n"),
      "x.yaml:4:16: chains[0].transport: must be the name of a transport: letters, digits and _");
}

TEST(ChainFile, NamesTheLineWhereItIsNotYaml) {
  EXPECT_EQ(errorOf(chainHead + "    config: {a: [}\n").substr(0, 28),
            "x.yaml:5:18: not valid YAML:");
  EXPECT_EQ(errorOf(chainHead + "---\nchains: []\n").substr(0, 7), "x.yaml:");
}

TEST(ChainFile, RefusesAKeyThatStandsTwice) {
  EXPECT_EQ(errorOf(chainHead + "    id: again\n"),
            "x.yaml:5:5: chains[0].id: the key stands twice");
  EXPECT_EQ(errorOf(chainHead + "    config:\n      a: {b: 1, b: 2}\n"),
            "x.yaml:6:17: chains[0].config.a.b: the key stands twice");
}

TEST(ChainFile, AMissingFileIsAnErrorThatNamesIt) {
  const test_support::TemporaryDirectory directory;
  const std::string path = directory.file("none.yaml");
  try {
    readChainFile(path);
    FAIL();
  } catch (const ChainFileError& error) {
    EXPECT_EQ(error.what(), path + ": cannot read the chain file: No such file or directory");
  }
  EXPECT_THROW(readChainFile(directory.path().string()), ChainFileError);
}

// --- What the files have to be -------------------------------------------------------------------

class ChainFiles : public testing::Test {
 protected:
  std::string chain(const std::string& id, const std::string& more) const {
    return "  - id: " + id + "\n    name: n\n    transport: T\n" + more;
  }
  std::string errorOfFiles(const std::string& chains) const {
    try {
      checkFiles(parseChainFile("chains:\n" + chains, "x.yaml"));
      return {};
    } catch (const ChainFileError& error) {
      return error.what();
    }
  }
  const test_support::TemporaryDirectory _directory;
};

TEST_F(ChainFiles, OneChainMayUseBothStandardStreams) {
  EXPECT_EQ(errorOfFiles(chain("a", "")), "");
}

TEST_F(ChainFiles, AMissingInputIsAnErrorThatNamesFileLineAndKey) {
  const std::string input = _directory.file("none");
  EXPECT_EQ(errorOfFiles(chain("a", "    input: " + input + "\n")),
            "x.yaml:5:12: chains[0].input: cannot read " + input + ": No such file or directory");
}

TEST_F(ChainFiles, AMissingLibraryIsAnErrorThatNamesFileLineAndKey) {
  const std::string library = _directory.file("none.so");
  EXPECT_EQ(
      errorOfFiles(chain("a", "    library: " + library + "\n")),
      "x.yaml:5:14: chains[0].library: cannot read " + library + ": No such file or directory");
}

TEST_F(ChainFiles, AnOutputNeedsItsDirectory) {
  const std::string output = _directory.file("none/out");
  EXPECT_EQ(errorOfFiles(chain("a", "    output: " + output + "\n")),
            "x.yaml:5:13: chains[0].output: there is no directory " + _directory.file("none"));
  EXPECT_EQ(errorOfFiles(chain("a", "    output: " + _directory.path().string() + "\n")),
            "x.yaml:5:13: chains[0].output: " + _directory.path().string() + " is a directory");
}

TEST_F(ChainFiles, TwoChainsMayNotShareStandardInput) {
  const std::string output = "    output: " + _directory.file("out") + "\n";
  EXPECT_EQ(errorOfFiles(chain("a", "") + chain("b", output)),
            "x.yaml:7:16: chains[1].input: two chains cannot share standard input");
  EXPECT_EQ(errorOfFiles(chain("a", "    input: \"-\"\n") + chain("b", "    input: \"-\"\n")),
            "x.yaml:9:12: chains[1].input: two chains cannot share standard input");
}

TEST_F(ChainFiles, TwoChainsMayNotShareStandardOutput) {
  const std::string input = "    input: " + _directory.write("in", "") + "\n";
  EXPECT_EQ(errorOfFiles(chain("a", "") + chain("b", input)),
            "x.yaml:7:16: chains[1].output: two chains cannot share standard output");
}

TEST_F(ChainFiles, TwoChainsMayNotWriteOneFileButMayShareADevice) {
  const std::string input = "    input: " + _directory.write("in", "") + "\n";
  const std::string output = _directory.file("out");
  const auto both = [&](const std::string& first, const std::string& second) {
    return chain("a", input + "    output: " + first + "\n") +
           chain("b", input + "    output: " + second + "\n");
  };
  EXPECT_EQ(errorOfFiles(both(output, _directory.path().string() + "/./out")),
            "x.yaml:11:13: chains[1].output: two chains cannot share the output " +
                _directory.path().string() + "/./out");
  EXPECT_EQ(errorOfFiles(both("/dev/null", "/dev/null")), "");
  EXPECT_EQ(errorOfFiles(both(output, output + "2")), "");
}

TEST_F(ChainFiles, AnOutputMayNotReplaceAnInput) {
  const std::string file = _directory.write("both", "");
  EXPECT_EQ(errorOfFiles(chain("a", "    input: " + file + "\n    output: " + file + "\n")),
            "x.yaml:6:13: chains[0].output: " + file + " is also an input");
}

TEST_F(ChainFiles, TwoChainsMayNotHaveOneIdentity) {
  const std::string streams = "    input: /dev/null\n    output: /dev/null\n";
  EXPECT_EQ(errorOfFiles(chain("a", streams) + chain("a", streams)),
            "x.yaml:9:16: chains[1]: another chain has the same id and name");
}

}  // namespace
}  // namespace host
