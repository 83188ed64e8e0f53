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

constexpr const char* inTheBody = "Error processing response stream: ";
constexpr const char* anything = "";

enum class Ending { StaysOpen, Closes, Resets };

// An answer that goes wrong after its first byte.
struct Wrong {
  const char* name;
  const char* text;  // how the error begins
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

// The request arrived once, over one connection, and its one answer says what was wrong.
void expectSentOnce(PluginUnderTest& plugin, const ScriptedServer& server, const Wrong& wrong) {
  expectError(plugin.request(Request("POST", "/x").body("once")), wrong.text);
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
  expectError(plugin.request(Request("POST", "/x").body("once")), GetParam().text);
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
        Wrong{"OfAnotherProtocol", malformed, "SSH-2.0-OpenSSH\r\n\r\n"},
        Wrong{"OfBinaryData", malformed, "\x4A\x00\x00\x00\x0A\xFF\xFE\x80\r\n\r\n"s},
        Wrong{"WithAStatusOfTwoDigits", malformed, emptyUnder("HTTP/1.1 20 OK")},
        Wrong{"WithAStatusBelowHundred", malformed, emptyUnder("HTTP/1.1 099 X")},
        Wrong{"WithBytesBeyondAsciiForAStatus", malformed, emptyUnder("HTTP/1.1 \xE9\xE9\xE9 X")},
        Wrong{"WithAnotherVersion", malformed, emptyUnder("HTTP/2 200")},
        Wrong{"WithALineWithoutColon", malformed, empty("nothing of the kind\r\n")},
        Wrong{"WithANameThatIsNoToken", malformed, empty("caf\xE9: b\r\n")},
        Wrong{"WithABlankBeforeTheColon", malformed, empty("X-A : b\r\n")},
        Wrong{"WithANul", malformed, empty("X-A: \0\r\n"s)},
        Wrong{"WithACarriageReturnAlone", malformed, empty("X-A: a\rb\r\n")},
        Wrong{"WithAContinuedStatusLine", malformed, empty(" X-A: b\r\n")},
        Wrong{"BehindTooManyEmptyLines", malformed, std::string(17, '\n') + empty("")},
        Wrong{"BehindTooManyInterimResponses", malformed, manyInterimResponses() + empty("")},
        Wrong{"BehindAnInterimResponse", malformed,
              "HTTP/1.1 100 Continue\r\n\r\nnonsense\r\n\r\n"s + empty("")},
        Wrong{"ThatIsTooLarge", malformed, fields("X: " + std::string(300'000, 'x') + "\r\n")},
        Wrong{"ThatIsTooLargeAndGoesOn", malformed, "HTTP/1.1 200 " + std::string(300'000, 'x')},
        Wrong{"WithALengthThatIsNoNumber", malformed, fields("Content-Length: abc\r\n")},
        Wrong{"WithALengthWithoutNumber", malformed, fields("Content-Length:\r\n")},
        Wrong{"WithANegativeLength", malformed, fields("Content-Length: -1\r\n")},
        Wrong{"WithALengthBeyondCounting", malformed,
              fields("Content-Length: 99999999999999999999\r\n")},
        Wrong{"WithContradictoryLengths", malformed,
              fields("Content-Length: 1\r\nContent-Length: 2\r\n")},
        Wrong{"WithContradictoryLengthsInOneLine", malformed, fields("Content-Length: 1, 2\r\n")},
        Wrong{"WithAnUnsupportedTransferCoding", malformed, fields("Transfer-Encoding: gzip\r\n")},
        Wrong{"WithATransferCodingMore", malformed, fields("Transfer-Encoding: gzip, chunked\r\n")},
        Wrong{"WithChunksWithinChunks", malformed,
              fields("Transfer-Encoding: chunked\r\nTransfer-Encoding: chunked\r\n")}),
    nameOf);

INSTANTIATE_TEST_SUITE_P(
    HeadThatBreaksOff, AnswerBegun,
    ::testing::Values(
        Wrong{"AfterAByteAndTheEnd", malformed, "H", Ending::Closes},
        Wrong{"AfterAByteAndAReset", anything, "H", Ending::Resets},
        Wrong{"AfterAnEmptyLineAndTheEnd", anything, "\r\n", Ending::Closes},
        Wrong{"WithinTheStatusLine", malformed, "HTTP/1.1 20", Ending::Closes},
        Wrong{"WithinAField", malformed, "HTTP/1.1 200 OK\r\nContent-Le", Ending::Closes},
        Wrong{"WithinAFieldByAReset", anything, "HTTP/1.1 200 OK\r\nContent-Le", Ending::Resets},
        Wrong{"BeforeTheEmptyLine", malformed, "HTTP/1.1 200 OK\r\nContent-Length: 2\r\n",
              Ending::Closes},
        Wrong{"AfterAnInterimResponse", anything, "HTTP/1.1 100 Continue\r\n\r\n", Ending::Closes},
        Wrong{"AfterAnInterimResponseByAReset", anything, "HTTP/1.1 103 Early Hints\r\n\r\n",
              Ending::Resets},
        Wrong{"AfterAnInterimResponseWithinTheNext", malformed,
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
        Wrong{"WithAChunkSizeThatIsNoNumber", inTheBody, chunked("zz\r\nabc\r\n0\r\n\r\n")},
        Wrong{"WithANegativeChunkSize", inTheBody, chunked("-3\r\nabc\r\n0\r\n\r\n")},
        Wrong{"WithAChunkSizeWithASign", inTheBody, chunked("+3\r\nabc\r\n0\r\n\r\n")},
        Wrong{"WithoutAChunkSize", inTheBody, chunked("\r\nabc\r\n0\r\n\r\n")},
        Wrong{"WithAChunkSizeBeyondCounting", inTheBody,
              chunked("FFFFFFFFFFFFFFFFF\r\nabc\r\n0\r\n\r\n")},
        Wrong{"WithAChunkThatIsTooLong", inTheBody, chunked("3\r\nabcdef\r\n0\r\n\r\n")},
        Wrong{"WithAChunkLineThatIsTooLong", inTheBody,
              chunked("3;" + std::string(20'000, 'x') + "\r\nabc\r\n0\r\n\r\n")},
        Wrong{"WithTrailersThatAreTooLarge", inTheBody,
              chunked("3\r\nabc\r\n0\r\nT: " + std::string(70'000, 'x') + "\r\n\r\n")},
        Wrong{"ThatIsNoGzip", broken, coded("gzip", "this is no gzip at all")},
        Wrong{"OfCorruptGzip", broken, coded("gzip", corrupted(longGzip()))},
        Wrong{"OfCorruptDeflate", inTheBody, coded("deflate", "\x78\x9C\xFF\xFF\xFF\xFF\xFF\xFF")},
        Wrong{"OfGzipThatEndsEarly", cutShort, coded("gzip", longGzip().substr(0, 500))},
        Wrong{"OfGzipThatIsCut", inTheBody, coded("gzip", longGzip()).substr(0, 500),
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
    expectError(plugin.request(Request("POST", "/x").body("once")), "Timeout");
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
