// The mistakes that somebody is likeliest to make who meets the program, and what it says to each.
// docs/operations.md has them as a table.
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/host/HostProgram.hpp"
#include "tests/support/Certificates.hpp"
#include "tests/support/Descriptor.hpp"
#include "tests/support/ScriptedServer.hpp"

namespace host_tests {
namespace {

using test_support::CertificateAuthority;
using test_support::CertificateRequest;
using test_support::Connection;
using test_support::ScriptedServer;
using testing::AnyOf;
using testing::EndsWith;
using testing::HasSubstr;
using testing::StartsWith;

const std::string oneRequest = R"({"metadata":{"http":{"method":"GET","path":"/"}}})"
                               "\n";

struct Outcome {
  int status;
  std::string output;
  std::string errors;
};

Outcome outcomeOf(test_support::ChildProcess& program, const std::string& input = {}) {
  if (!input.empty()) program.write(input);
  program.closeInput();
  const int status = program.wait();
  return {status, program.output(), program.errors()};
}

Outcome call(std::vector<std::string> arguments, const std::string& input = {}) {
  HostProgram program(std::move(arguments));
  return outcomeOf(program, input);
}

// As somebody whom the permissions of files bind, also where the tests run as root.
Outcome callBound(std::vector<std::string> arguments) {
  arguments.insert(arguments.begin(), HOST_PROGRAM);
  if (::geteuid() == 0) {
    const std::vector<std::string> bound{"/usr/bin/setpriv", "--bounding-set",
                                         "-dac_override,-dac_read_search"};
    arguments.insert(arguments.begin(), bound.begin(), bound.end());
  }
  test_support::ChildProcess program(arguments);
  return outcomeOf(program);
}

// A folder with a chain file for the transport that is built beside the program.
class Mistake : public testing::Test {
 protected:
  // "chain.yaml", whose chain ends with these lines.
  std::string chain(const std::string& lines) {
    return write("chain.yaml",
                 "chains:\n"
                 "  - id: orders\n"
                 "    name: shop\n"
                 "    transport: HTTPClient\n" +
                     lines);
  }
  std::string chainWith(const std::string& config) {
    return chain("    config: {" + config + "}\n");
  }
  // One for a port on this machine.
  std::string chainFor(int port, const std::string& config = {}) {
    return chainWith("host: 127.0.0.1, port: " + std::to_string(port) + config);
  }
  std::string echoChain(const std::string& lines = {}) {
    return write("echo.yaml", "chains:\n" + host_tests::echoChain("orders", lines));
  }
  std::string write(const std::string& name, const std::string& content) {
    return _directory.write(name, content);
  }
  std::string file(const std::string& name) const { return _directory.file(name); }

  // What check says of a chain file, behind "orrery-host: FILE".
  std::string complaintOf(const std::string& path) {
    const Outcome outcome = call({"check", path});
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(outcome.output, "");
    const std::string begin = "orrery-host: " + path;
    EXPECT_THAT(outcome.errors, StartsWith(begin));
    return outcome.errors.substr(std::min(begin.size(), outcome.errors.size()));
  }

  // One request in vain: the transport's text stands in the answer and in the log.
  void expectFailure(const std::string& path, const testing::Matcher<std::string>& text) {
    const Outcome outcome = call({"run", path}, oneRequest);
    EXPECT_EQ(outcome.status, 0);
    EXPECT_THAT(outcome.output, text);
    EXPECT_THAT(outcome.errors, HasSubstr("Caught exception processing a request: "));
    EXPECT_THAT(outcome.errors,
                HasSubstr("No request got a response: each answer's statusReason says why\n"));
  }

 private:
  const test_support::TemporaryDirectory _directory;
};

// --- The command line ----------------------------------------------------------------------------

TEST_F(Mistake, MisspeltCommand) {
  const Outcome outcome = call({"rum", "chain.yaml"});
  EXPECT_EQ(outcome.status, 2);
  EXPECT_THAT(outcome.errors, StartsWith("rum is no command (did you mean \"run\"?)\n"));
}

TEST_F(Mistake, ChainFileWithoutCommand) {
  const Outcome outcome = call({"chain.yaml"});
  EXPECT_EQ(outcome.status, 2);
  EXPECT_THAT(outcome.errors,
              StartsWith("chain.yaml is no command (did you mean orrery-host run chain.yaml?)\n"));
}

TEST_F(Mistake, MisspeltOption) {
  const Outcome outcome = call({"run", "chain.yaml", "--inptu", "x"});
  EXPECT_EQ(outcome.status, 2);
  EXPECT_THAT(outcome.errors, StartsWith("--inptu: did you mean --input?\n"));
}

TEST_F(Mistake, WrongPathOfTheChainFile) {
  EXPECT_EQ(complaintOf(file("none.yaml")),
            ": cannot read the chain file: No such file or directory\n");
}

TEST_F(Mistake, FolderInsteadOfAChainFile) {
  EXPECT_EQ(complaintOf("/tmp"), ": cannot read the chain file: it is a directory\n");
}

TEST_F(Mistake, StatusPortInUse) {
  const test_support::Descriptor taken = test_support::listenOnLoopback();
  const std::string port = std::to_string(test_support::localPort(taken));
  const Outcome outcome = call({"run", echoChain(), "--status-port", port});
  EXPECT_EQ(outcome.status, 1);
  EXPECT_EQ(outcome.errors, "orrery-host: cannot listen on 127.0.0.1:" + port +
                                ": Net Exception: Address already in use: 127.0.0.1:" + port +
                                " (another program has the port; 0 picks a free one)\n");
}

// --- The chain file ------------------------------------------------------------------------------

TEST_F(Mistake, EmptyChainFile) {
  EXPECT_EQ(complaintOf(write("empty.yaml", "")), ":1:1: chains: must be given\n");
}

TEST_F(Mistake, ChainThatIsNoListEntry) {
  EXPECT_EQ(complaintOf(write("c.yaml", "chains:\n  id: orders\n")),
            ":2:3: chains: must be a list: \"- \" stands before the first key of each chain\n");
}

TEST_F(Mistake, TabsInTheChainFile) {
  EXPECT_EQ(complaintOf(chain("    config:\n\thost: x\n")),
            ":6:2: not valid YAML: end of map not found (indent with spaces, not with tabs)\n");
}

TEST_F(Mistake, BraceThatIsNotClosed) {
  EXPECT_EQ(complaintOf(chain("    config: {host: x\n    input: y\n")),
            ":6:10: not valid YAML: end of map flow not found (a { has no })\n");
}

TEST_F(Mistake, ColonThatIsMissing) {
  EXPECT_EQ(complaintOf(chain("    config\n      host: x\n")),
            ":6:11: not valid YAML: illegal map value (the line above lacks its colon, or a text "
            "that holds a colon lacks its quotes)\n");
}

TEST_F(Mistake, WrongIndentation) {
  EXPECT_EQ(complaintOf(chain("   config: {host: x}\n")),
            ":5:4: not valid YAML: end of sequence not found (the line is not indented as those "
            "above)\n");
}

TEST_F(Mistake, NumberWhereATextMustStand) {
  EXPECT_EQ(complaintOf(write("c.yaml", "chains:\n  - id: 12\n")),
            ":2:9: chains[0].id: must be a text: put it in quotes\n");
}

TEST_F(Mistake, MisspeltKey) {
  EXPECT_EQ(complaintOf(chain("    trasnport: HTTPClient\n")),
            ":5:5: chains[0].trasnport: unknown key (did you mean \"transport\"?)\n");
}

TEST_F(Mistake, ConfigurationBesideConfig) {
  EXPECT_EQ(complaintOf(chain("    port: 8080\n")),
            ":5:5: chains[0].port: unknown key; known: id, name, transport, library, codec, "
            "assignRequestIds, config, input, output. What the transport itself is told stands in "
            "config\n");
}

TEST_F(Mistake, UnknownCodec) {
  EXPECT_EQ(complaintOf(chain("    codec: jsno\n")),
            ":5:12: chains[0].codec: must be text, json or none (did you mean \"json\"?)\n");
}

TEST_F(Mistake, UnknownLevelOfTheLog) {
  EXPECT_EQ(complaintOf(chain("log: {level: warning}\n")),
            ":5:14: log.level: must be error, warn, info, debug or trace (did you mean "
            "\"warn\"?)\n");
}

TEST_F(Mistake, StatusThatIsJustAPort) {
  EXPECT_EQ(complaintOf(chain("status: 9090\n")),
            ":5:9: status: must be a map, such as {port: 9090}\n");
}

TEST_F(Mistake, DuplicateChain) {
  const std::string streams = "    input: /dev/null\n    output: /dev/null\n";
  EXPECT_EQ(complaintOf(write("c.yaml", "chains:\n" + host_tests::echoChain("a", streams) +
                                            host_tests::echoChain("a", streams))),
            ":10:16: chains[1]: another chain has the same id and name\n");
}

TEST_F(Mistake, TwoChainsOnStandardInput) {
  EXPECT_EQ(complaintOf(write(
                "c.yaml", "chains:\n" + host_tests::echoChain("a") + host_tests::echoChain("b"))),
            ":8:16: chains[1].input: two chains cannot share standard input\n");
}

TEST_F(Mistake, LibraryThatIsNotFound) {
  const Outcome outcome =
      call({"check", write("c.yaml", "chains:\n  - {id: a, name: b, transport: HTTPCleint}\n")});
  EXPECT_EQ(outcome.status, 1);
  EXPECT_THAT(outcome.errors,
              StartsWith("orrery-host: cannot load the transport HTTPCleint, tried /"));
  EXPECT_THAT(outcome.errors, HasSubstr("/lib/libHTTPCleint.so (/"));
  EXPECT_THAT(outcome.errors, HasSubstr("; libHTTPCleint.so in /"));
  EXPECT_THAT(outcome.errors, EndsWith("(libHTTPCleint.so: cannot open shared object file: No such "
                                       "file or directory); \"library\" in the chain file can name "
                                       "the file\n"));
}

// --- The transport's configuration ---------------------------------------------------------------

// What the transport's log line says, before the host names the chain.
void expectRefused(const std::string& path, const std::string& reason) {
  const Outcome outcome = call({"check", path});
  EXPECT_EQ(outcome.status, 1);
  EXPECT_THAT(outcome.errors, HasSubstr("ERROR [connectivity.shop.orders] "
                                        "<connectivity.shop.orders> Exception from create: " +
                                        reason));
  EXPECT_EQ(lastLine(outcome.errors),
            "orrery-host: the transport HTTPClient of chain orders could not be created (see the "
            "log)");
}

TEST_F(Mistake, MissingHost) {
  expectRefused(chainWith("port: 8080"), "HTTPClient configuration host must be given\n");
}

TEST_F(Mistake, MisspeltConfigurationKey) {
  expectRefused(chainWith("hots: localhost"), "Unknown configuration element hots\n");
}

TEST_F(Mistake, WrongTypeInTheConfiguration) {
  expectRefused(chainWith("host: localhost, port: eighty"),
                "HTTPClient configuration port must be an integer but it's actually string\n");
}

TEST_F(Mistake, KeyWithoutAValueInTheConfiguration) {
  expectRefused(chainWith("host: localhost, port: "),
                "HTTPClient configuration port must be an integer but it's actually null\n");
}

TEST_F(Mistake, NumberOfMoreThan64BitsInTheConfiguration) {
  expectRefused(
      chainWith("host: localhost, port: 12345678901234567890"),
      "HTTPClient configuration port \"12345678901234567890\" is outside the range of 64 bits\n");
}

TEST_F(Mistake, BooleanInCapitalsInTheConfiguration) {
  expectRefused(chainWith("host: localhost, tls: True"),
                "HTTPClient configuration tls \"True\" is not a bool\n");
}

TEST_F(Mistake, MissingFileOfAuthorities) {
  expectRefused(
      chainWith("host: localhost, tls: true, tlsCertificateAuthorityFile: " + file("ca.pem")),
      "HTTPClient configuration tlsCertificateAuthorityFile: cannot use " + file("ca.pem") +
          ": No such file or directory\n");
}

TEST_F(Mistake, FileOfAuthoritiesThatIsNone) {
  const std::string authorities = write("ca.pem", "no certificate");
  expectRefused(
      chainWith("host: localhost, tls: true, tlsCertificateAuthorityFile: " + authorities),
      "HTTPClient configuration tlsCertificateAuthorityFile: cannot use " + authorities +
          ": no certificate or crl found\n");
}

// --- Input and output ----------------------------------------------------------------------------

TEST_F(Mistake, MissingInputFile) {
  const Outcome outcome = call({"run", echoChain(), "--input", file("none.jsonl")});
  EXPECT_EQ(outcome.status, 1);
  EXPECT_EQ(outcome.errors, "orrery-host: --input: cannot read " + file("none.jsonl") +
                                ": No such file or directory\n");
}

TEST_F(Mistake, InputFileThatMayNotBeRead) {
  const std::string input = write("in.jsonl", oneRequest);
  ASSERT_EQ(::chmod(input.c_str(), 0), 0);
  const Outcome outcome = callBound({"run", echoChain(), "--input", input});
  EXPECT_EQ(outcome.status, 1);
  EXPECT_EQ(outcome.errors, "orrery-host: --input: cannot read " + input + ": Permission denied\n");
}

TEST_F(Mistake, MissingOutputFolder) {
  const std::string path = echoChain("    output: " + file("none/out.jsonl") + "\n");
  EXPECT_EQ(complaintOf(path),
            ":6:13: chains[0].output: there is no directory " + file("none") + "\n");
}

TEST_F(Mistake, OutputFolderThatMayNotBeWritten) {
  const std::string folder = file("folder");
  ASSERT_EQ(::mkdir(folder.c_str(), 0500), 0);
  const Outcome outcome = callBound({"run", echoChain(), "--output", folder + "/out.jsonl"});
  EXPECT_EQ(outcome.status, 1);
  EXPECT_EQ(outcome.errors,
            "orrery-host: --output: cannot write " + folder + "/out.jsonl: Permission denied\n");
}

TEST_F(Mistake, OutputPipeThatIsClosed) {
  int ends[2] = {-1, -1};
  ASSERT_EQ(::pipe(ends), 0);
  ::close(ends[0]);
  test_support::ChildProcess::Options options;
  options.inherited.push_back(ends[1]);
  test_support::ChildProcess program(
      {"/bin/sh", "-c", "exec \"$0\" run \"$1\" >&" + std::to_string(ends[1]), HOST_PROGRAM,
       echoChain()},
      options);
  ::close(ends[1]);
  const Outcome outcome = outcomeOf(program, oneRequest);
  EXPECT_EQ(outcome.status, 1);
  EXPECT_THAT(outcome.errors, HasSubstr("ERROR [host] chain orders: cannot write standard output: "
                                        "Broken pipe\n"));
}

// --- Messages ------------------------------------------------------------------------------------

TEST_F(Mistake, LineThatIsNoJson) {
  const Outcome outcome = call({"run", echoChain()}, "GET /\nGET /\n");
  EXPECT_EQ(outcome.status, 3);
  EXPECT_THAT(outcome.output, StartsWith(R"({"error":{"line":1,"text":"not valid JSON at byte 1)"));
  EXPECT_THAT(outcome.errors,
              HasSubstr("WARN  [host] chain orders: input line 1 is not a valid message: not valid "
                        "JSON at byte 1: syntax error (each such line is answered with an error "
                        "line)\n"));
  EXPECT_THAT(outcome.errors, testing::Not(HasSubstr("input line 2")));
  EXPECT_THAT(lastLine(outcome.errors), HasSubstr("invalid lines 2"));
}

TEST_F(Mistake, MessageOverSeveralLines) {
  const Outcome outcome = call({"run", echoChain()}, "{\n  \"metadata\": {}\n}\n");
  EXPECT_EQ(outcome.status, 3);
  EXPECT_THAT(outcome.errors,
              HasSubstr("not valid JSON at byte 2: incomplete JSON (a message is one whole line)"));
}

TEST_F(Mistake, MethodAndPathAtTheTopOfAMessage) {
  const Outcome outcome = call({"run", echoChain()}, "{\"method\": \"GET\", \"path\": \"/\"}\n");
  EXPECT_EQ(outcome.status, 3);
  EXPECT_THAT(outcome.errors,
              HasSubstr("a message holds only metadata and payload, not \"method\" (method and "
                        "path stand in metadata.http)"));
}

TEST_F(Mistake, MisspeltMethod) {
  const Outcome outcome =
      call({"run", chainFor(1)}, R"({"metadata":{"http":{"method":"get","path":"/"}}})"
                                 "\n");
  EXPECT_EQ(outcome.status, 0);
  EXPECT_THAT(outcome.output,
              HasSubstr(R"("payload":"Invalid method (must be GET, PUT, POST or DELETE): get"})"));
}

TEST_F(Mistake, PayloadOfTheWrongKind) {
  const Outcome outcome =
      call({"run", chainFor(1)},
           R"({"metadata":{"http":{"method":"POST","path":"/"}},"payload":{"a":1}})"
           "\n");
  EXPECT_EQ(outcome.status, 0);
  EXPECT_THAT(outcome.output, HasSubstr("HTTPClient payloads must be binary buffers"));
}

// --- The server ----------------------------------------------------------------------------------

TEST_F(Mistake, ServerThatIsDown) {
  const int port = test_support::unusedPort();
  expectFailure(chainFor(port),
                HasSubstr("\"Connection refused: 127.0.0.1:" + std::to_string(port) + "\"}"));
}

TEST_F(Mistake, UnknownHostName) {
  expectFailure(chainWith("host: no-such-host.invalid"),
                HasSubstr("\"Host not found: no-such-host.invalid\"}"));
}

TEST_F(Mistake, UrlInsteadOfAHostName) {
  expectRefused(chainWith("host: http://127.0.0.1"),
                "HTTPClient configuration host must not have a scheme");
}

TEST_F(Mistake, PortBehindTheHostName) {
  expectRefused(
      chainWith("host: 127.0.0.1:8080"),
      "HTTPClient configuration host must not have a port, which is an option of its own");
}

TEST_F(Mistake, TlsToAPortWithoutIt) {
  ScriptedServer server([](Connection& connection) {
    connection.sendResponse(400, {{"Connection", "close"}}, "not HTTP");
    connection.awaitPeerClose();
  });
  expectFailure(chainFor(server.port(), ", tls: true"),
                HasSubstr("\"SSL Exception: TLS handshake failed: wrong version number\"}"));
}

TEST_F(Mistake, NoTlsToAPortWithIt) {
  CertificateAuthority authority;
  ScriptedServer server(test_support::TlsOptions{authority.issue()});
  expectFailure(chainFor(server.port()),
                AnyOf(HasSubstr("\"Connection reset by peer: receiving from the server\"}"),
                      HasSubstr("\"No message received: "),
                      HasSubstr("\"Malformed message: The response is not HTTP\"}")));
}

TEST_F(Mistake, SelfSignedCertificate) {
  CertificateAuthority authority;
  ScriptedServer server(test_support::TlsOptions{authority.issueSelfSigned()});
  expectFailure(
      chainFor(server.port(), ", tls: true"),
      HasSubstr("\"SSL Exception: certificate verify failed: self-signed certificate\"}"));
}

TEST_F(Mistake, CertificateOfAnUnknownAuthority) {
  CertificateAuthority authority;
  ScriptedServer server(test_support::TlsOptions{authority.issue()});
  expectFailure(chainFor(server.port(), ", tls: true"),
                HasSubstr("\"SSL Exception: certificate verify failed: unable to get local issuer "
                          "certificate\"}"));
}

TEST_F(Mistake, WrongHostNameInTheCertificate) {
  CertificateAuthority authority;
  ScriptedServer server(test_support::TlsOptions{authority.issueForOtherName()});
  expectFailure(chainWith("host: localhost, port: " + std::to_string(server.port()) +
                          ", tls: true, tlsCertificateAuthorityFile: " + authority.caFile()),
                HasSubstr("\"SSL Exception: certificate verify failed: hostname mismatch\"}"));
}

}  // namespace
}  // namespace host_tests
