// A request whose answer has begun is never sent again, whatever becomes of the answer: the server
// may have done what it was asked for.
#include <ostream>
#include <string>

#include <gtest/gtest.h>

#include "tests/plugins/http_client/Answering.hpp"
#include "tests/support/Certificates.hpp"

namespace test_support {
namespace {

using std::string_literals::operator""s;

constexpr const char* notHttp = "Malformed message: The response is not HTTP";
constexpr const char* tooLarge = "Malformed message: The response head is too large";
constexpr const char* endsInTheHead =
    "Malformed message: The server closed the connection within the response head";
constexpr const char* tooManyInterim =
    "Malformed message: The server sent too many interim responses";
constexpr const char* resetByPeer = "Connection reset by peer: receiving from the server";

std::string badStatusLine(const std::string& line) {
  return "Malformed message: Malformed status line in the response: " + line;
}
// Of the first line behind the status line.
std::string badHeaderLine(const std::string& why) {
  return "Malformed message: Malformed header line 1 in the response: " + why;
}
std::string badField(const std::string& what) { return "Malformed message: " + what; }

enum class Ending { StaysOpen, Closes, Resets };

// An answer that goes wrong after its first byte.
struct Wrong {
  const char* name;
  std::string text;  // of the error
  std::string bytes;
  Ending ending = Ending::StaysOpen;
};

void PrintTo(const Wrong& wrong, std::ostream* out) { *out << wrong.name; }
std::string nameOf(const ::testing::TestParamInfo<Wrong>& info) { return info.param.name; }

ScriptedServer::Script sending(const Wrong& wrong) {
  return [wrong](Connection& connection) {
    if (!connection.readRequest()) return;
    connection.send(wrong.bytes);
    if (wrong.ending == Ending::Resets) connection.reset();
    if (wrong.ending == Ending::StaysOpen) connection.awaitPeerClose();
  };
}

void expectErrorText(const Answer& answer, const std::string& text) {
  expectError(answer, text);
  EXPECT_EQ(answer.reason(), text);
}

// The request arrived once, over one connection, and its one answer says what was wrong.
void expectSentOnce(PluginUnderTest& plugin, const ScriptedServer& server, const Wrong& wrong) {
  expectErrorText(plugin.request(Request("POST", "/x").body("once")), wrong.text);
  EXPECT_EQ(server.request(0).body, "once");
  EXPECT_EQ(plugin.statusItem(".status"), "FAILED");
  EXPECT_FALSE(plugin.log().contains(retryLine));
  // Whatever was still to come has come.
  plugin.shutdown();
  EXPECT_EQ(server.requestCount(), 1U);
  EXPECT_EQ(server.connectionCount(), 1U);
  EXPECT_EQ(plugin.answerCount(), 1U);
}

class AnswerBegun : public ::testing::TestWithParam<Wrong> {};

TEST_P(AnswerBegun, RequestIsNotSentAgain) {
  ScriptedServer server(sending(GetParam()));
  PluginUnderTest plugin(oneClient(server.port()));
  expectSentOnce(plugin, server, GetParam());
}

TEST_P(AnswerBegun, RequestIsNotSentAgainOverTls) {
  CertificateAuthority authority;
  ScriptedServer server(sending(GetParam()), TlsOptions{authority.issue()});
  PluginUnderTest plugin(oneClient(server.port()).tls(authority.caFile()));
  expectSentOnce(plugin, server, GetParam());
}

// Nor on a connection that was kept, where a failure is tried a second time soonest.
TEST_P(AnswerBegun, RequestIsNotSentAgainOnAKeptConnection) {
  ScriptedServer server([](Connection& connection) {
    connection.readRequest();
    connection.sendResponse(200);
    sending(GetParam())(connection);
  });
  PluginUnderTest plugin(oneClient(server.port()));
  EXPECT_EQ(plugin.request(Request("GET", "/first").id(2)).status(), 200);
  expectErrorText(plugin.request(Request("POST", "/x").body("once")), GetParam().text);
  plugin.shutdown();
  EXPECT_EQ(server.requestCount(), 2U);
  EXPECT_EQ(server.connectionCount(), 1U);
}

std::string fields(const std::string& lines) { return "HTTP/1.1 200 OK\r\n" + lines + "\r\n"; }
// Without a body, so that nobody waits for one.
std::string empty(const std::string& lines) { return fields(lines + "Content-Length: 0\r\n"); }
std::string emptyUnder(const std::string& statusLine) {
  return statusLine + "\r\nContent-Length: 0\r\n\r\n";
}

std::string manyInterimResponses() {
  std::string text;
  for (int i = 0; i < 101; ++i) text += "HTTP/1.1 102 Processing\r\n\r\n";
  return text;
}

INSTANTIATE_TEST_SUITE_P(
    HeadThatIsMalformed, AnswerBegun,
    ::testing::Values(
        Wrong{"OfAnotherProtocol", notHttp, "SSH-2.0-OpenSSH\r\n\r\n"},
        Wrong{"OfBinaryData", notHttp, "\x4A\x00\x00\x00\x0A\xFF\xFE\x80\r\n\r\n"s},
        Wrong{"WithAStatusOfTwoDigits", badStatusLine("HTTP/1.1 20 OK"),
              emptyUnder("HTTP/1.1 20 OK")},
        Wrong{"WithAStatusBelowHundred", badStatusLine("HTTP/1.1 099 X"),
              emptyUnder("HTTP/1.1 099 X")},
        Wrong{"WithBytesBeyondAsciiForAStatus", badStatusLine("HTTP/1.1 \u00e9\u00e9\u00e9 X"),
              emptyUnder("HTTP/1.1 \xE9\xE9\xE9 X")},
        Wrong{"WithAnotherVersion", notHttp, emptyUnder("HTTP/2 200")},
        Wrong{"WithALineWithoutColon", badHeaderLine("no colon"), empty("nothing of the kind\r\n")},
        Wrong{"WithANameThatIsNoToken", badHeaderLine("no field name"), empty("caf\xE9: b\r\n")},
        Wrong{"WithABlankBeforeTheColon", badHeaderLine("no field name"), empty("X-A : b\r\n")},
        Wrong{"WithANul", badHeaderLine("a control character"), empty("X-A: \0\r\n"s)},
        Wrong{"WithACarriageReturnAlone", badHeaderLine("a control character"),
              empty("X-A: a\rb\r\n")},
        Wrong{"WithAContinuedStatusLine", badHeaderLine("nothing to continue"),
              empty(" X-A: b\r\n")},
        Wrong{"BehindTooManyEmptyLines", notHttp, std::string(17, '\n') + empty("")},
        Wrong{"BehindTooManyInterimResponses", tooManyInterim, manyInterimResponses() + empty("")},
        Wrong{"BehindAnInterimResponse", notHttp,
              "HTTP/1.1 100 Continue\r\n\r\nnonsense\r\n\r\n"s + empty("")},
        Wrong{"ThatIsTooLarge", tooLarge, fields("X: " + std::string(300'000, 'x') + "\r\n")},
        Wrong{"ThatIsTooLargeAndGoesOn", tooLarge, "HTTP/1.1 200 " + std::string(300'000, 'x')},
        Wrong{"WithALengthThatIsNoNumber",
              badField("Malformed Content-Length in the response: abc"),
              fields("Content-Length: abc\r\n")},
        Wrong{"WithALengthWithoutNumber", badField("Malformed Content-Length in the response: "),
              fields("Content-Length:\r\n")},
        Wrong{"WithANegativeLength", badField("Malformed Content-Length in the response: -1"),
              fields("Content-Length: -1\r\n")},
        Wrong{"WithALengthBeyondCounting",
              badField("Malformed Content-Length in the response: 99999999999999999999"),
              fields("Content-Length: 99999999999999999999\r\n")},
        Wrong{"WithContradictoryLengths",
              badField("Contradictory Content-Length in the response: 1, 2"),
              fields("Content-Length: 1\r\nContent-Length: 2\r\n")},
        Wrong{"WithContradictoryLengthsInOneLine",
              badField("Contradictory Content-Length in the response: 1, 2"),
              fields("Content-Length: 1, 2\r\n")},
        Wrong{"WithAnUnsupportedTransferCoding",
              badField("Unsupported Transfer-Encoding in the response: gzip"),
              fields("Transfer-Encoding: gzip\r\n")},
        Wrong{"WithATransferCodingMore",
              badField("Unsupported Transfer-Encoding in the response: gzip, chunked"),
              fields("Transfer-Encoding: gzip, chunked\r\n")},
        Wrong{"WithChunksWithinChunks",
              badField("Unsupported Transfer-Encoding in the response: chunked, chunked"),
              fields("Transfer-Encoding: chunked\r\nTransfer-Encoding: chunked\r\n")}),
    nameOf);

INSTANTIATE_TEST_SUITE_P(
    HeadThatBreaksOff, AnswerBegun,
    ::testing::Values(
        Wrong{"AfterAByteAndTheEnd", endsInTheHead, "H", Ending::Closes},
        Wrong{"AfterAByteAndAReset", resetByPeer, "H", Ending::Resets},
        Wrong{"AfterAnEmptyLineAndTheEnd", endsInTheHead, "\r\n", Ending::Closes},
        Wrong{"WithinTheStatusLine", endsInTheHead, "HTTP/1.1 20", Ending::Closes},
        Wrong{"WithinAField", endsInTheHead, "HTTP/1.1 200 OK\r\nContent-Le", Ending::Closes},
        Wrong{"WithinAFieldByAReset", resetByPeer, "HTTP/1.1 200 OK\r\nContent-Le", Ending::Resets},
        Wrong{"BeforeTheEmptyLine", endsInTheHead, "HTTP/1.1 200 OK\r\nContent-Length: 2\r\n",
              Ending::Closes},
        Wrong{"AfterAnInterimResponse", endsInTheHead, "HTTP/1.1 100 Continue\r\n\r\n",
              Ending::Closes},
        Wrong{"AfterAnInterimResponseByAReset", resetByPeer, "HTTP/1.1 103 Early Hints\r\n\r\n",
              Ending::Resets},
        Wrong{"AfterAnInterimResponseWithinTheNext", endsInTheHead,
              "HTTP/1.1 100 Continue\r\n\r\nHTTP/1.1 2", Ending::Closes}),
    nameOf);

std::string coded(const char* coding, const std::string& body) {
  return fields("Content-Encoding: "s + coding +
                "\r\nContent-Length: " + std::to_string(body.size()) + "\r\n") +
         body;
}

std::string corrupted(std::string bytes) {
  bytes[bytes.size() / 2] = static_cast<char>(~bytes[bytes.size() / 2]);
  return bytes;
}

std::string longGzip() { return gzip(noise(3000)); }
std::string longZlib() { return zlib(noise(3000)); }
// The whole content in one chunk; the last chunk is missing.
std::string codedChunk(const char* coding, const std::string& body) {
  return fields("Content-Encoding: "s + coding + "\r\nTransfer-Encoding: chunked\r\n") +
         chunk(body);
}

INSTANTIATE_TEST_SUITE_P(
    Body, AnswerBegun,
    ::testing::Values(
        Wrong{"ThatIsCut", cutShort, fields("Content-Length: 9\r\n") + "short", Ending::Closes},
        Wrong{"ThatIsMissing", cutShort, fields("Content-Length: 9\r\n"), Ending::Closes},
        Wrong{"ThatIsReset", broken, fields("Content-Length: 9\r\n") + "short", Ending::Resets},
        Wrong{"ThatIsMissingAndReset", broken, fields("Content-Length: 9\r\n"), Ending::Resets},
        Wrong{"OfUnknownLengthThatIsReset", broken, fields("") + "some", Ending::Resets},
        Wrong{"WithoutAnyChunk", cutShort, chunked(""), Ending::Closes},
        Wrong{"WithoutTheLastChunk", cutShort, chunked("3\r\nabc\r\n"), Ending::Closes},
        Wrong{"CutWithinAChunk", cutShort, chunked("5\r\nabc"), Ending::Closes},
        Wrong{"ResetWithinAChunk", broken, chunked("5\r\nabc"), Ending::Resets},
        Wrong{"CutWithinTheTrailers", cutShort, chunked("3\r\nabc\r\n0\r\nT: v\r\n"),
              Ending::Closes},
        Wrong{"WithAChunkSizeThatIsNoNumber", cutShort, chunked("zz\r\nabc\r\n0\r\n\r\n")},
        Wrong{"WithANegativeChunkSize", cutShort, chunked("-3\r\nabc\r\n0\r\n\r\n")},
        Wrong{"WithAChunkSizeWithASign", cutShort, chunked("+3\r\nabc\r\n0\r\n\r\n")},
        Wrong{"WithoutAChunkSize", cutShort, chunked("\r\nabc\r\n0\r\n\r\n")},
        Wrong{"WithAChunkSizeBeyondCounting", cutShort,
              chunked("FFFFFFFFFFFFFFFFF\r\nabc\r\n0\r\n\r\n")},
        Wrong{"WithAChunkThatIsTooLong", cutShort, chunked("3\r\nabcdef\r\n0\r\n\r\n")},
        Wrong{"WithAChunkLineThatIsTooLong", cutShort,
              chunked("3;" + std::string(20'000, 'x') + "\r\nabc\r\n0\r\n\r\n")},
        Wrong{"WithTrailersThatAreTooLarge", cutShort,
              chunked("3\r\nabc\r\n0\r\nT: " + std::string(70'000, 'x') + "\r\n\r\n")},
        Wrong{"ThatIsNoGzip", broken, coded("gzip", "this is no gzip at all")},
        Wrong{"OfCorruptGzip", broken, coded("gzip", corrupted(longGzip()))},
        Wrong{"OfCorruptDeflate", broken, coded("deflate", "\x78\x9C\xFF\xFF\xFF\xFF\xFF\xFF")},
        Wrong{"OfGzipThatEndsEarly", cutShort, coded("gzip", longGzip().substr(0, 500))},
        Wrong{"OfDeflateThatIsCut", cutShort, coded("deflate", longZlib()).substr(0, 500),
              Ending::Closes},
        Wrong{"OfDeflateThatIsReset", broken, coded("deflate", longZlib()).substr(0, 500),
              Ending::Resets},
        Wrong{"OfGzipWithoutTheLastChunk", cutShort, codedChunk("gzip", longGzip()),
              Ending::Closes},
        Wrong{"OfDeflateWithoutTheLastChunk", cutShort, codedChunk("deflate", longZlib()),
              Ending::Closes},
        Wrong{"OfDeflateWithoutTheLastChunkThatIsReset", broken, codedChunk("deflate", longZlib()),
              Ending::Resets},
        Wrong{"OfGzipThatIsCut", cutShort, coded("gzip", longGzip()).substr(0, 500),
              Ending::Closes},
        Wrong{"OfGzipThatIsReset", broken, coded("gzip", longGzip()).substr(0, 500),
              Ending::Resets}),
    nameOf);

// --- Waiting in vain ----------------------------------------------------------------------------

TEST(AnswerBegunAndStopped, IsATimeOutAndNotSentAgain) {
  for (const std::string begun :
       {"H", "\r\n", "HTTP/1.1 100 Continue\r\n\r\n", "HTTP/1.1 200 OK\r\nX-A"}) {
    ScriptedServer server(sending({"", "", begun}));
    PluginUnderTest plugin(Config(server.port()).timeoutSecs(1));
    expectErrorText(plugin.request(Request("POST", "/x").body("once")),
                    "Timeout: The server sent nothing within the time-out");
    plugin.shutdown();
    EXPECT_EQ(server.requestCount(), 1U) << begun;
    EXPECT_EQ(server.connectionCount(), 1U) << begun;
  }
}

// --- And where it has not begun -----------------------------------------------------------------

TEST(AnswerNotBegun, RequestIsSentASecondTime) {
  for (const Ending ending : {Ending::Closes, Ending::Resets}) {
    ScriptedServer server({sending({"", "", "", ending}), answerWithTarget});
    PluginUnderTest plugin(oneClient(server.port()));
    EXPECT_EQ(plugin.request(Request("POST", "/x").body("again")).body(), "/x");
    EXPECT_EQ(server.requestCount(), 2U);
  }
}

}  // namespace
}  // namespace test_support
