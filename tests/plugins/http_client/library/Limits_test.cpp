// Response size policies through the wire: what is delivered, and that the connection stays in
// step.
#include <cstdint>
#include <sstream>
#include <string>

#include <gtest/gtest.h>

#include "tests/support/Coders.hpp"
#include "tests/support/PluginUnderTest.hpp"
#include "tests/support/ScriptedServer.hpp"

namespace test_support {
namespace {

constexpr const char* marker = "[TRUNCATED]";
constexpr const char* rejection =
    "Response exceeded maxResponseKB, with maxResponsePolicy set to REJECT";

std::string zeros(std::size_t count) { return std::string(count, '\0'); }

// Without printing bodies of many thousand bytes.
void expectBody(const Answer& answer, const std::string& expected) {
  EXPECT_EQ(answer.status(), 200) << answer.reason();
  const std::string body = answer.body();
  EXPECT_EQ(body.size(), expected.size());
  EXPECT_TRUE(body == expected);
}

class ResponseLimit : public ::testing::Test {
 protected:
  ResponseLimit() : _plugin(Config(_server.port())) { _server.answer("/next", {200, {}, "next"}); }

  Answer limited(long long kilobytes, const char* policy, CannedResponse response) {
    _server.answer("/x", std::move(response));
    return _plugin.request(Request("GET", "/x").limit(kilobytes).policy(policy));
  }
  Answer limited(long long kilobytes, const char* policy, const std::string& body) {
    return limited(kilobytes, policy, {200, {}, body});
  }
  // The next request gets its own response; gives the number of connections used so far.
  std::size_t connectionsAfterOneMore() {
    EXPECT_EQ(_plugin.request(Request("GET", "/next")).body(), "next");
    return _server.connectionCount();
  }

  ScriptedServer _server;
  PluginUnderTest _plugin;
};

// --- REJECT -------------------------------------------------------------------------------------

TEST_F(ResponseLimit, RejectAnswersWith413AndKeepsTheConnection) {
  const Answer answer = limited(1, "REJECT", std::string(300'000, 'x'));
  EXPECT_EQ(answer.status(), 413);
  EXPECT_EQ(answer.reason(), rejection);
  EXPECT_EQ(answer.body(), rejection);
  EXPECT_TRUE(answer.isError());
  EXPECT_EQ(connectionsAfterOneMore(), 1U);
}

TEST_F(ResponseLimit, RejectPassesABodyOneByteBelow) {
  expectBody(limited(1, "REJECT", std::string(999, 'x')), std::string(999, 'x'));
}

TEST_F(ResponseLimit, BodyOfExactlyTheLimitCountsAsExceeded) {
  // Deliberate: the last read is satisfied before the end is seen.
  EXPECT_EQ(limited(1, "REJECT", std::string(1000, 'x')).status(), 413);
}

TEST_F(ResponseLimit, ZeroPassesAnEmptyBodyOnly) {
  EXPECT_EQ(limited(0, "REJECT", "").status(), 200);
  EXPECT_EQ(_plugin.request(Request("GET", "/next").limit(0).policy("REJECT")).status(), 413);
  const Answer cut = _plugin.request(Request("GET", "/next").limit(0).policy("TRUNCATE_END"));
  EXPECT_EQ(cut.body(), marker);
}

TEST_F(ResponseLimit, NegativeReadsEverythingWhateverThePolicy) {
  const std::string body = noise(250'000);
  _server.answer("/x", {200, {}, body});
  for (const char* const policy : {"REJECT", "TRUNCATE_END", "TRUNCATE_START"}) {
    expectBody(_plugin.request(Request("GET", "/x").limit(-1).policy(policy)), body);
  }
}

TEST_F(ResponseLimit, OfTheRequestWinsOverTheConfigured) {
  _server.answer("/x", {200, {}, std::string(5000, 'x')});
  PluginUnderTest plugin(
      Config(_server.port()).set("maxResponseKB", 1).set("maxResponsePolicy", "REJECT"));
  EXPECT_EQ(plugin.request(Request("GET", "/x")).status(), 413);
  EXPECT_EQ(plugin.request(Request("GET", "/x").limit(-1)).body().size(), 5000U);
  EXPECT_EQ(plugin.request(Request("GET", "/x").policy("TRUNCATE_END")).body().size(), 1011U);
}

// --- TRUNCATE_END -------------------------------------------------------------------------------

TEST_F(ResponseLimit, TruncateEndCutsOneLineAtTheLimit) {
  const Answer answer = limited(1, "TRUNCATE_END", std::string(5000, 'x'));
  EXPECT_EQ(answer.status(), 200);
  expectBody(answer, std::string(1000, 'x') + marker);
  EXPECT_EQ(connectionsAfterOneMore(), 1U);
}

TEST_F(ResponseLimit, TruncateEndCutsBeforeTheLastLineFeed) {
  std::string body(5000, 'x');
  body[300] = body[700] = '\n';
  expectBody(limited(1, "TRUNCATE_END", body), body.substr(0, 700) + marker);
}

TEST_F(ResponseLimit, TruncateEndMarksABodyOfExactlyTheLimit) {
  expectBody(limited(1, "TRUNCATE_END", std::string(1000, 'x')), std::string(1000, 'x') + marker);
}

TEST_F(ResponseLimit, TruncateEndDropsACompleteLastCharacterToo) {
  // Deliberate: whole or cut, the last multi-byte character goes.
  const std::string body = std::string(998, 'x') + "\u00e9" + std::string(100, 'y');
  expectBody(limited(1, "TRUNCATE_END", body), std::string(998, 'x') + marker);
}

TEST_F(ResponseLimit, TruncateEndLeavesBytesThatAreNotUtf8) {
  // A content type without a charset switches the trimming off.
  const std::string body = std::string(998, 'x') + "\u00e9" + std::string(100, 'y');
  const CannedResponse json = {200, {{"Content-Type", "application/json"}}, body};
  expectBody(limited(1, "TRUNCATE_END", json), body.substr(0, 1000) + marker);
}

// --- TRUNCATE_START -----------------------------------------------------------------------------

TEST_F(ResponseLimit, TruncateStartOfAShortBodyDeliversAsManyBytesAsWereDropped) {
  // Deliberate, as is each byte count of the next four: the count is defined by the arithmetic.
  const std::string body = noise(5000);
  expectBody(limited(1, "TRUNCATE_START", body), marker + body.substr(4000) + zeros(3000));
  EXPECT_EQ(connectionsAfterOneMore(), 1U);
}

TEST_F(ResponseLimit, TruncateStartOfAShortBodyWithLinesIsPaddedToTheReadBuffer) {
  std::string body = noise(5000);
  body[4300] = '\n';
  // 102400 bytes of buffer, 4000 erased, and what stands behind the line feed.
  const std::string delivered = limited(1, "TRUNCATE_START", body).body();
  EXPECT_EQ(delivered.size(), 11U + (102'400U - 4000U) - 300U - 1U);
  EXPECT_TRUE(delivered == marker + body.substr(4300) + zeros(delivered.size() - 11U - 700U));
}

TEST_F(ResponseLimit, TruncateStartExtendsWithZerosWhereTheCountIsBeyondTheBuffer) {
  const std::string body = noise(60'000);
  expectBody(limited(1, "TRUNCATE_START", body), marker + body.substr(59'000) + zeros(58'000));
}

TEST_F(ResponseLimit, TruncateStartTreatsABodyOfExactlyOneReadAsEndedThere) {
  const std::string body = noise(102'400);
  expectBody(limited(1, "TRUNCATE_START", body), marker + body.substr(101'400) + zeros(100'400));
}

TEST_F(ResponseLimit, TruncateStartWithTheLimitJustPassedDeliversTheFewBytesOfTheCount) {
  const std::string body = noise(1003);
  expectBody(limited(1, "TRUNCATE_START", body), marker + body.substr(3, 3));
}

TEST_F(ResponseLimit, TruncateStartDeliversNothingOfAnEarlierResponse) {
  limited(-1, "REJECT", std::string(100'000, 'S'));
  _server.answer("/later", {200, {}, std::string(5000, 'x')});
  const auto body =
      _plugin.request(Request("GET", "/later").limit(1).policy("TRUNCATE_START")).body();
  ASSERT_EQ(body.size(), 4011U);
  EXPECT_EQ(body.find('S'), std::string::npos);
  EXPECT_TRUE(body.substr(1011) == zeros(3000));
}

TEST_F(ResponseLimit, TruncateStartOfALongBodyKeepsItsTail) {
  const std::string body = noise(350'000);
  expectBody(limited(1, "TRUNCATE_START", body), marker + body.substr(349'000));
  EXPECT_EQ(connectionsAfterOneMore(), 1U);
}

TEST_F(ResponseLimit, TruncateStartOfALongBodyBeginsAtItsFirstLineFeed) {
  std::string body = noise(350'000);
  body[349'400] = body[349'700] = '\n';
  expectBody(limited(1, "TRUNCATE_START", body), marker + body.substr(349'400));
}

TEST_F(ResponseLimit, TruncateStartOfALongBodyBeginsWithAWholeCharacter) {
  std::string body = noise(350'000);
  body.replace(348'999, 2, "\u00e9");
  expectBody(limited(1, "TRUNCATE_START", body), marker + body.substr(349'001));
}

TEST_F(ResponseLimit, TruncateStartLeavesABodyWithinTheLimitAlone) {
  expectBody(limited(1, "TRUNCATE_START", std::string(1000, 'x')), std::string(1000, 'x'));
}

// --- With content codings -----------------------------------------------------------------------

TEST_F(ResponseLimit, CountsDecodedBytes) {
  const CannedResponse coded = {200, {{"Content-Encoding", "gzip"}}, gzip(std::string(5000, 'x'))};
  ASSERT_LT(coded.body.size(), 1000U);
  expectBody(limited(1, "TRUNCATE_END", coded), std::string(1000, 'x') + marker);
  EXPECT_EQ(connectionsAfterOneMore(), 1U);
}

TEST_F(ResponseLimit, RejectsALargeCodedBodyAndStaysInStep) {
  const CannedResponse coded = {200, {{"Content-Encoding", "gzip"}}, gzip(noise(400'000))};
  EXPECT_EQ(limited(1, "REJECT", coded).status(), 413);
  connectionsAfterOneMore();
}

TEST_F(ResponseLimit, AppliesToTheTextAboutAnUnsupportedCoding) {
  const CannedResponse coded = {200, {{"Content-Encoding", std::string(1200, 'z')}}, "body"};
  EXPECT_EQ(limited(1, "REJECT", coded).status(), 413);
  connectionsAfterOneMore();
}

class UnsupportedCoding : public ResponseLimit,
                          public ::testing::WithParamInterface<const char*> {};

TEST_P(UnsupportedCoding, IsDeliveredAsItsName) {
  const std::string text = std::string("Unsupported Media Type: ") + GetParam();
  const Answer answer =
      limited(-1, "REJECT", {203, {{"Content-Encoding", GetParam()}}, "coded bytes"});
  EXPECT_EQ(answer.status(), 203);
  EXPECT_EQ(answer.body(), text);
  EXPECT_FALSE(answer.isError());
  const auto line = _plugin.log().find(text);
  ASSERT_TRUE(line.has_value());
  EXPECT_EQ(line->level, QOR_LOG_WARN);
  connectionsAfterOneMore();
}

INSTANTIATE_TEST_SUITE_P(All, UnsupportedCoding,
                         ::testing::Values("br", "GZIP", "Identity", "gzip, deflate"));

// --- Where there is no body ---------------------------------------------------------------------

TEST_F(ResponseLimit, ResponsesWithoutBodyAreEmptyWhateverTheirCoding) {
  for (const int status : {204, 304}) {
    ScriptedServer server([status](Connection& connection) {
      while (connection.readRequest()) {
        connection.send("HTTP/1.1 " + std::to_string(status) +
                        " X\r\nContent-Encoding: gzip\r\n\r\n");
      }
    });
    PluginUnderTest plugin(Config(server.port()));
    for (int time = 0; time < 2; ++time) {
      const Answer answer = plugin.request(Request("GET", "/x"));
      EXPECT_EQ(answer.status(), status);
      EXPECT_EQ(answer.body(), "");
    }
    EXPECT_EQ(server.connectionCount(), 1U);
  }
  const Answer empty = limited(-1, "REJECT", {200, {{"Content-Encoding", "gzip"}}, ""});
  EXPECT_EQ(empty.status(), 200);
  EXPECT_EQ(empty.body(), "");
}

TEST_F(ResponseLimit, AnswerToHeadIsEmptyWhateverItAnnounces) {
  _server.answer("/x", {200, {{"Content-Encoding", "gzip"}}, "as long as this"});
  const Answer answer = _plugin.request(Request("HEAD", "/x").limit(0));
  EXPECT_EQ(answer.status(), 200);
  EXPECT_EQ(answer.header("content-length"), "15");
  EXPECT_EQ(answer.body(), "");
  EXPECT_EQ(connectionsAfterOneMore(), 1U);
}

}  // namespace
}  // namespace test_support
