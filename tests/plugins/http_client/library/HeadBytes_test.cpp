// A response head is bytes: nothing in it is decoded, its form is held to, and its only limits are
// those of the whole head.
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/plugins/http_client/Answering.hpp"

namespace test_support {
namespace {

using std::string_literals::operator""s;

constexpr std::size_t largestHead = 262'144;

// A response of two bytes, with these lines in its head.
std::string withLines(const std::string& lines) {
  return "HTTP/1.1 200 OK\r\n" + lines + "Content-Length: 2\r\n\r\nok";
}

void expectOk(const Answer& answer) {
  EXPECT_EQ(answer.status(), 200) << answer.reason();
  EXPECT_EQ(answer.body(), "ok");
}

// The value of x-a after these bytes have come as its line, or lines.
std::string valueOf(const std::string& lines) {
  const Answer answer = answerTo(withLines(lines));
  expectOk(answer);
  return answer.header("x-a").value_or("<none>");
}

// --- Nothing is decoded -------------------------------------------------------------------------

TEST(EncodedWord, InAHeaderStaysAsItWasSent) {
  for (const std::string value :
       {"=?utf-8?q?caf=C3=A9?=", "=?ISO-8859-1?B?Y2Fm6Q==?=", "=?utf-8?q?a?= =?utf-8?q?b?=",
        "=?a&r=?b", "=?", "=?=", "a=?utf-8?q?=0D=0AX-Forged:_1?="}) {
    EXPECT_EQ(valueOf("X-A: " + value + "\r\n"), value);
  }
}

TEST(EncodedWord, InAReasonStaysAsItWasSent) {
  EXPECT_EQ(answerTo("HTTP/1.1 200 =?utf-8?q?x?=\r\nContent-Length: 0\r\n\r\n").reason(),
            "=?utf-8?q?x?=");
}

TEST(EncodedWord, InALocationIsFollowedAsItWasSent) {
  for (const std::string target : {"/search?q=?a&r=?b", "/x?q=?utf-8?q?=41?="}) {
    ScriptedServer server(
        firstGets("HTTP/1.1 302 Found\r\nLocation: " + target + "\r\nContent-Length: 0\r\n\r\n"));
    PluginUnderTest plugin(oneClient(server.port()));
    EXPECT_EQ(plugin.request(Request("GET", "/x")).body(), target);
  }
}

TEST(EncodedWord, InACookieIsStoredAndSentBackAsItWasSent) {
  for (const std::string value : {"abc=?def?x", "=?utf-8?q?caf=C3=A9?="}) {
    ScriptedServer server(firstGets("HTTP/1.1 200 OK\r\nSet-Cookie: t=" + value +
                                    "; Path=/\r\nContent-Length: 0\r\n\r\n"));
    PluginUnderTest plugin(oneClient(server.port()).set("cookieJar", true));
    EXPECT_EQ(plugin.request(Request("GET", "/x")).cookie("t"), value);
    plugin.request(Request("GET", "/next"));
    EXPECT_EQ(server.requests().back().header("cookie"), "t=" + value);
  }
}

TEST(EncodedWord, InALengthMakesItMalformed) {
  expectError(answerTo("HTTP/1.1 200 OK\r\nContent-Length: =?utf-8?q?2?=\r\n\r\nok"), malformed);
}

TEST(EncodedWord, InATransferCodingMakesItUnsupported) {
  expectError(answerTo("HTTP/1.1 200 OK\r\nTransfer-Encoding: =?utf-8?q?chunked?=\r\n\r\n"
                       "2\r\nok\r\n0\r\n\r\n"),
              malformed);
}

TEST(EncodedWord, InAConnectionFieldClosesNothing) {
  ScriptedServer server(firstGets(withLines("Connection: =?utf-8?q?close?=\r\n")));
  PluginUnderTest plugin(oneClient(server.port()));
  expectOk(plugin.request(Request("GET", "/x")));
  expectInStep(plugin, server, 1);
}

TEST(EncodedWord, InAContentCodingIsNoCoding) {
  EXPECT_EQ(answerTo(withLines("Content-Encoding: =?utf-8?q?identity?=\r\n")).body(),
            "Unsupported Media Type: =?utf-8?q?identity?=");
}

// --- Limits -------------------------------------------------------------------------------------

TEST(HeadLimits, ThousandsOfFieldsArrive) {
  std::string lines;
  for (int field = 1; field <= 5000; ++field) {
    lines += "X-" + std::to_string(field) + ": " + std::to_string(field) + "\r\n";
  }
  const Answer answer = answerTo(withLines(lines));
  expectOk(answer);
  EXPECT_EQ(answer.header("x-1"), "1");
  EXPECT_EQ(answer.header("x-101"), "101");
  EXPECT_EQ(answer.header("x-5000"), "5000");
}

TEST(HeadLimits, LongValuesArrive) {
  for (const std::size_t size : {8'192U, 8'193U, 16'384U, 65'536U, 200'000U}) {
    const std::string value(size, 'v');
    EXPECT_TRUE(valueOf("X-A: " + value + "\r\n") == value) << size;
  }
}

TEST(HeadLimits, LongNamesArrive) {
  for (const std::size_t size : {256U, 257U, 10'000U, 200'000U}) {
    const std::string name(size, 'n');
    const Answer answer = answerTo(withLines(name + ": there\r\n"));
    expectOk(answer);
    EXPECT_EQ(answer.header(name), "there") << size;
  }
}

TEST(HeadLimits, LongReasonsArrive) {
  for (const std::size_t size : {512U, 513U, 10'000U, 200'000U}) {
    const std::string reason(size, 'r');
    const Answer answer = answerTo("HTTP/1.1 200 " + reason + "\r\nContent-Length: 2\r\n\r\nok");
    expectOk(answer);
    EXPECT_TRUE(answer.reason() == reason) << size;
  }
}

// A head of exactly so many bytes, in one long line or in many short ones.
std::string headOf(std::size_t size, bool manyLines) {
  std::string head = "HTTP/1.1 200 OK\r\nContent-Length: 2\r\n";
  constexpr std::size_t oneLine = 26;
  while (manyLines && head.size() + 2 * oneLine < size) {
    head += "X: " + std::string(oneLine - 5, 'x') + "\r\n";
  }
  head += "X-Last: ";
  head.append(size - head.size() - 4, 'x');
  return head + "\r\n\r\n";
}

TEST(HeadLimits, HeadOfTheLargestSizeArrives) {
  for (const bool manyLines : {false, true}) {
    const std::string head = headOf(largestHead, manyLines);
    ASSERT_EQ(head.size(), largestHead);
    ScriptedServer server(firstGets(head + "ok"));
    PluginUnderTest plugin(oneClient(server.port()).set("maxResponseKB", -1));
    const Answer answer = plugin.request(Request("GET", "/x"));
    expectOk(answer);
    EXPECT_TRUE(answer.header("x-last").has_value());
    expectInStep(plugin, server, 1);
  }
}

TEST(HeadLimits, HeadOfOneByteMoreIsMalformed) {
  for (const bool manyLines : {false, true}) {
    const std::string head = headOf(largestHead + 1, manyLines);
    ASSERT_EQ(head.size(), largestHead + 1);
    expectError(answerTo(head + "ok"), malformed);
  }
}

std::string interimResponses(int count) {
  std::string text;
  for (int i = 0; i < count; ++i) text += "HTTP/1.1 103 Early Hints\r\nLink: </a>\r\n\r\n";
  return text;
}

TEST(HeadLimits, HundredInterimResponsesAreReadPast) {
  ScriptedServer server(firstGets(interimResponses(100) + withLines("")));
  PluginUnderTest plugin(oneClient(server.port()));
  expectOk(plugin.request(Request("GET", "/x")));
  expectInStep(plugin, server, 1);
}

TEST(HeadLimits, OneInterimResponseMoreIsMalformed) {
  expectError(answerTo(interimResponses(101) + withLines("")), malformed);
}

TEST(HeadLimits, SixteenBytesOfEmptyLinesBeforeTheStatusLineAreSkipped) {
  std::string lineFeeds(16, '\n');
  std::string pairs;
  for (int line = 0; line < 8; ++line) pairs += "\r\n";
  for (const auto& before : {"\r\n"s, "\n"s, lineFeeds, pairs}) {
    expectOk(answerTo(before + withLines("")));
  }
}

TEST(HeadLimits, MoreEmptyLinesBeforeTheStatusLineAreMalformed) {
  std::string lineFeeds(17, '\n');
  std::string pairs;
  for (int line = 0; line < 9; ++line) pairs += "\r\n";
  for (const auto& before : {lineFeeds, pairs}) {
    expectError(answerTo(before + withLines("")), malformed);
  }
}

// --- Lines --------------------------------------------------------------------------------------

TEST(HeadLines, MayEndInALineFeedAloneEachForItself) {
  for (const std::string head : {"HTTP/1.1 200 OK\nX-A: b\nContent-Length: 2\n\n",
                                 "HTTP/1.1 200 OK\r\nX-A: b\nContent-"
                                 "Length: 2\r\n\n",
                                 "HTTP/1.1 200 OK\nX-A: b\r\nContent-Length: 2\n\r\n"}) {
    const Answer answer = answerTo(head + "ok");
    expectOk(answer);
    EXPECT_EQ(answer.header("x-a"), "b");
  }
}

TEST(HeadLines, ThatBeginWithABlankContinueTheValueJoinedByOneSpace) {
  EXPECT_EQ(valueOf("X-A: one\r\n two\r\n"), "one two");
  EXPECT_EQ(valueOf("X-A: one\r\n\ttwo\r\n  \t three\r\n"), "one two three");
  EXPECT_EQ(valueOf("X-A: one \t\r\n \t two \t\r\n"), "one two");
  EXPECT_EQ(valueOf("X-A: one\n two\n"), "one two");
  EXPECT_EQ(valueOf("X-A:\r\n one\r\n"), "one");
  EXPECT_EQ(valueOf("X-A: one\r\n two: three\r\nX-B: four\r\n"), "one two: three");
}

TEST(HeadLines, ContinueALengthToo) {
  expectOk(answerTo("HTTP/1.1 200 OK\r\nContent-Length:\r\n 2\r\n\r\nok"));
}

TEST(HeadLines, ThatContinueDoNotEndTheHead) {
  EXPECT_EQ(valueOf("X-A: one\r\n \r\nX-B: two\r\n"), "one");
}

TEST(FieldValues, LoseTheirOuterBlanksAndNothingElse) {
  EXPECT_EQ(valueOf("X-A: \t  one \t two \t \r\n"), "one \t two");
  EXPECT_EQ(valueOf("X-A:one\r\n"), "one");
  EXPECT_EQ(valueOf("X-A:\r\n"), "");
  EXPECT_EQ(valueOf("X-A: a:b::c\r\n"), "a:b::c");
}

TEST(FieldValues, HoldControlCharactersAsData) {
  for (int code = 1; code < 0x20; ++code) {
    if (code == '\t' || code == '\n' || code == '\r') continue;
    const std::string value = "a"s + static_cast<char>(code) + "b" + static_cast<char>(code);
    EXPECT_EQ(valueOf("X-A: " + value + "\r\n"), value) << code;
  }
  EXPECT_EQ(valueOf("X-A: a\x7F\r\n"), "a\x7F");
  EXPECT_EQ(valueOf("X-A: a\x80\x9F\r\n"), "a\u0080\u009f");
}

TEST(FieldNames, CompareWithoutCase) {
  expectOk(answerTo("HTTP/1.1 200 OK\r\ncONTENT-lENGTH: 2\r\n\r\nok"));
  EXPECT_EQ(
      answerTo("HTTP/1.1 200 OK\r\ntransfer-ENCODING: chunked\r\n\r\n2\r\nok\r\n0\r\n\r\n").body(),
      "ok");
}

TEST(FieldNames, AreTokens) {
  const std::string name = "!#$%&'*+-.^_`|~09azAZ";
  const Answer answer = answerTo(withLines(name + ": v\r\n"));
  expectOk(answer);
  EXPECT_EQ(answer.header("!#$%&'*+-.^_`|~09azaz"), "v");
}

// --- Status lines -------------------------------------------------------------------------------

struct StatusLine {
  const char* line;
  long long status;
  const char* reason;
};

TEST(StatusLines, OfEveryGoodFormArrive) {
  for (const auto& [line, status, reason] :
       {StatusLine{"HTTP/1.1 200", 200, ""}, StatusLine{"HTTP/1.1 200 ", 200, ""},
        StatusLine{"HTTP/1.0 200 OK", 200, "OK"}, StatusLine{"HTTP/1.9 200 OK", 200, "OK"},
        StatusLine{"HTTP/1.1 299 Sort of fine", 299, "Sort of fine"},
        StatusLine{"HTTP/1.1 600 Beyond", 600, "Beyond"}, StatusLine{"HTTP/1.1 999 No", 999, "No"},
        StatusLine{"HTTP/1.1 200 a\tb", 200, "a\tb"},
        StatusLine{"HTTP/1.1 200 a\x01z", 200, "a\x01z"}}) {
    const Answer answer = answerTo(line + "\r\nContent-Length: 2\r\n\r\nok"s);
    EXPECT_EQ(answer.status(), status) << line;
    EXPECT_EQ(answer.reason(), reason) << line;
    EXPECT_EQ(answer.body(), "ok") << line;
  }
}

// --- Malformed heads ----------------------------------------------------------------------------

struct Head {
  const char* name;
  std::string bytes;  // up to the body
};

std::string nameOf(const ::testing::TestParamInfo<Head>& info) { return info.param.name; }

class UnusableHead : public ::testing::TestWithParam<Head> {};

TEST_P(UnusableHead, IsReportedAsMalformedAndTheNextRequestIsServed) {
  ScriptedServer server({once(GetParam().bytes + "ok"), answerWithTarget});
  PluginUnderTest plugin(oneClient(server.port()));
  expectError(plugin.request(Request("GET", "/x")), malformed);
  EXPECT_EQ(server.requestCount(), 1U);
  EXPECT_EQ(plugin.statusItem(".status"), "FAILED");
  expectInStep(plugin, server, 2);
}

Head statusLine(const char* name, const std::string& line) {
  return {name, line + "\r\nContent-Length: 2\r\n\r\n"};
}
Head fieldLines(const char* name, const std::string& lines) {
  return {name, "HTTP/1.1 200 OK\r\n" + lines + "Content-Length: 2\r\n\r\n"};
}

INSTANTIATE_TEST_SUITE_P(
    StatusLine, UnusableHead,
    ::testing::Values(
        statusLine("OfTwoDigits", "HTTP/1.1 20 OK"),
        statusLine("OfANegativeNumber", "HTTP/1.1 -10"),
        statusLine("OfANegativeNumberOfThreeDigits", "HTTP/1.1 -200 OK"),
        statusLine("WithoutABlankBeforeTheReason", "HTTP/1.1 200OK"),
        statusLine("WithATabBeforeTheReason", "HTTP/1.1 200\tOK"),
        statusLine("OfVersionTwo", "HTTP/2 200"),
        statusLine("OfVersionTwoPointNought", "HTTP/2.0 200 OK"),
        statusLine("OfAVersionWithTwoDigits", "HTTP/1.12 200 OK"),
        statusLine("OfAVersionWithoutDigits", "HTTP/1. 200 OK"),
        statusLine("OfAVersionThatIsNoDigit", "HTTP/1.x 200 OK"),
        statusLine("WithTwoBlanks", "HTTP/1.1  200"), statusLine("WithATab", "HTTP/1.1\t200 OK"),
        statusLine("BelowHundred", "HTTP/1.1 099 X"), statusLine("OfNoughts", "HTTP/1.1 000 X"),
        statusLine("OfFourDigits", "HTTP/1.1 1000 X"),
        statusLine("WithABlankInside", "HTTP/1.1 2 0 OK"),
        statusLine("OfLetters", "HTTP/1.1 abc OK"), statusLine("InHexadecimals", "HTTP/1.1 0x0 OK"),
        statusLine("WithASign", "HTTP/1.1 +20 OK"), statusLine("WithoutStatus", "HTTP/1.1"),
        statusLine("WithABlankForAStatus", "HTTP/1.1 "),
        statusLine("InLowerCase", "http/1.1 200 OK"), statusLine("AfterABlank", " HTTP/1.1 200 OK"),
        statusLine("OfAnotherProtocol", "ICY 200 OK"),
        statusLine("ThatIsAField", "Content-Type: text/plain"),
        statusLine("WithANul", "HTTP/1.1 200 O\0K"s),
        statusLine("WithANulForAStatus", "HTTP/1.1 \0\0\0 OK"s),
        statusLine("WithACarriageReturnInside", "HTTP/1.1 200 O\rK"),
        statusLine("WithTwoCarriageReturns", "HTTP/1.1 200 OK\r"),
        statusLine("OfBytesBeyondAscii", "HTTP/1.1 \xB2\xB0\xB0 OK"),
        Head{"WithoutFieldsOfVersionTwo", "HTTP/2 200\r\n\r\n"}),
    nameOf);

INSTANTIATE_TEST_SUITE_P(
    FieldLine, UnusableHead,
    ::testing::Values(fieldLines("WithoutColon", "X-A\r\n"),
                      fieldLines("WithoutColonButText", "just some text\r\n"),
                      fieldLines("WithABlankBeforeTheColon", "X-A : b\r\n"),
                      fieldLines("WithATabBeforeTheColon", "X-A\t: b\r\n"),
                      Head{"OfALengthWithABlankBeforeTheColon",
                           "HTTP/1.1 200 OK\r\nContent-Length : 2\r\n\r\n"},
                      fieldLines("WithoutName", ": b\r\n"),
                      fieldLines("WithABlankInTheName", "X A: b\r\n"),
                      fieldLines("WithABracketInTheName", "X(A): b\r\n"),
                      fieldLines("WithASlashInTheName", "X/A: b\r\n"),
                      fieldLines("WithAQuoteInTheName", "\"X\": b\r\n"),
                      fieldLines("WithAControlCharacterInTheName", "X\x01: b\r\n"),
                      fieldLines("WithAByteBeyondAsciiInTheName", "X\xE9: b\r\n"),
                      fieldLines("WithANulInTheName", "X\0A: b\r\n"s),
                      fieldLines("WithANulInTheValue", "X-A: a\0b\r\n"s),
                      fieldLines("WithANulAtItsEnd", "X-A: a\0\r\n"s),
                      fieldLines("WithANulInAContinuation", "X-A: a\r\n b\0\r\n"s),
                      fieldLines("OfANul", "\0\r\n"s),
                      fieldLines("WithACarriageReturnInTheValue", "X-A: a\rb\r\n"),
                      fieldLines("WithTwoCarriageReturns", "X-A: a\r\r\n"),
                      fieldLines("WithACarriageReturnInTheName", "X\rA: b\r\n"),
                      fieldLines("OfACarriageReturn", "\rX-A: b\r\n"),
                      fieldLines("ThatContinuesTheStatusLine", " X-A: b\r\n"),
                      fieldLines("ThatContinuesTheStatusLineAfterATab", "\tmore\r\n"),
                      fieldLines("OfBlanksAsTheFirst", "  \r\n")),
    nameOf);

INSTANTIATE_TEST_SUITE_P(
    Length, UnusableHead,
    ::testing::Values(Head{"ThatIsNoNumber", "HTTP/1.1 200 OK\r\nContent-Length: abc\r\n\r\n"},
                      Head{"ThatIsNegative", "HTTP/1.1 200 OK\r\nContent-Length: -1\r\n\r\n"},
                      Head{"WithASign", "HTTP/1.1 200 OK\r\nContent-Length: +2\r\n\r\n"},
                      Head{"InHexadecimals", "HTTP/1.1 200 OK\r\nContent-Length: 0x2\r\n\r\n"},
                      Head{"OfTwoNumbers", "HTTP/1.1 200 OK\r\nContent-Length: 2 2\r\n\r\n"},
                      Head{"BeyondCounting",
                           "HTTP/1.1 200 OK\r\nContent-Length: 99999999999999999999\r\n\r\n"}),
    nameOf);

// --- However the bytes come ---------------------------------------------------------------------

struct GoodHead {
  const char* name;
  std::string response;
};

std::string goodName(const ::testing::TestParamInfo<GoodHead>& info) { return info.param.name; }

class HeadInPieces : public ::testing::TestWithParam<GoodHead> {
 protected:
  static void expectRead(const Answer& answer) {
    expectOk(answer);
    EXPECT_EQ(answer.header("x-a"), "one two");
  }
};

TEST_P(HeadInPieces, IsReadByteByByte) {
  const std::string response = GetParam().response;
  Gate gate;
  gate.open(response.size());
  ScriptedServer server(firstGets(
      [&](Connection& connection) { connection.trickle(response, response.size(), gate); }));
  PluginUnderTest plugin(oneClient(server.port()));
  expectRead(plugin.request(Request("GET", "/x")));
  expectInStep(plugin, server, 1);
}

TEST_P(HeadInPieces, IsReadWhereverItIsSplit) {
  const std::string response = GetParam().response;
  std::size_t split = 0;
  ScriptedServer server([&](Connection& connection) {
    while (connection.readRequest()) {
      ++split;
      connection.send(response.substr(0, split));
      connection.send(response.substr(split));
    }
  });
  PluginUnderTest plugin(oneClient(server.port()));
  for (std::size_t i = 1; i < response.size() && !HasFailure(); ++i) {
    expectRead(plugin.request(Request("GET", "/x").id(static_cast<long long>(i))));
  }
  EXPECT_EQ(server.connectionCount(), 1U);
}

INSTANTIATE_TEST_SUITE_P(
    All, HeadInPieces,
    ::testing::Values(
        GoodHead{"Plain", withLines("X-A: one two\r\n")},
        GoodHead{"WithLineFeedsAlone", "HTTP/1.1 200 OK\nX-A: one two\nContent-Length: 2\n\nok"},
        GoodHead{"WithContinuations", withLines("X-A: one \r\n\t two\r\n")},
        GoodHead{"BehindEmptyLines", "\r\n\n\r\n" + withLines("X-A: one two\r\n")},
        GoodHead{"BehindInterimResponses", interimResponses(2) + withLines("X-A: one two\r\n")},
        GoodHead{"BeforeChunks",
                 "HTTP/1.1 200 OK\r\nX-A: one two\r\nTransfer-Encoding: chunked"
                 "\r\n\r\n1;x=y\r\no\r\n1\nk\n0\r\nT: v\r\n\r\n"}),
    goodName);

// --- Chunk lines and trailers -------------------------------------------------------------------

TEST(ChunkLines, EndAsHeadLinesDo) {
  EXPECT_EQ(answerTo(chunked("2\nok\n0\n\n")).body(), "ok");
  EXPECT_EQ(answerTo(chunked("1\r\no\n1\nk\r\n0\r\nT: v\n\r\n")).body(), "ok");
}

TEST(ChunkLines, MayBeLong) {
  const std::string extension(16'000, 'x');
  ScriptedServer server(
      firstGets(chunked("2;e=" + extension + "\r\nok\r\n0;e=" + extension + "\r\n\r\n")));
  PluginUnderTest plugin(oneClient(server.port()));
  expectOk(plugin.request(Request("GET", "/x")));
  expectInStep(plugin, server, 1);
}

TEST(ChunkLines, ThatAreTooLongBreakTheBody) {
  expectError(answerTo(chunked("2;e=" + std::string(16'400, 'x') + "\r\nok\r\n0\r\n\r\n")),
              "Error processing response stream: ");
}

std::string trailers(std::size_t bytes) {
  std::string lines;
  while (lines.size() + 64 < bytes) lines += "X-Trailer: " + std::string(40, 't') + "\r\n";
  return lines;
}

TEST(Trailers, OfManyLinesAreReadPast) {
  ScriptedServer server(firstGets(chunked("2\r\nok\r\n0\r\n" + trailers(65'000) + "\r\n")));
  PluginUnderTest plugin(oneClient(server.port()));
  expectOk(plugin.request(Request("GET", "/x")));
  expectInStep(plugin, server, 1);
}

TEST(Trailers, ThatAreTooLargeBreakTheBody) {
  expectError(answerTo(chunked("2\r\nok\r\n0\r\n" + trailers(66'000) + "\r\n")),
              "Error processing response stream: ");
}

}  // namespace
}  // namespace test_support
