// How a response's body ends, and whether the connection may serve another request, by what its
// head says.
#include "plugins/http_client/wire/Framing.hpp"

#include <cstdint>
#include <limits>
#include <string>
#include <vector>

#include <Poco/Net/NetException.h>
#include <gtest/gtest.h>

#include "plugins/http_client/wire/HeadReader.hpp"

namespace connectivity::plugins {
namespace {

using Lines = std::vector<std::string>;

const Lines none;

ResponseHead headOf(int status, const Lines& lines, int minorVersion = 1) {
  std::string bytes =
      "HTTP/1." + std::to_string(minorVersion) + " " + std::to_string(status) + " x\r\n";
  for (const std::string& line : lines) bytes += line + "\r\n";
  ResponseHead head;
  EXPECT_EQ(HeadReader(head).read(bytes + "\r\n"), bytes.size() + 2);
  return head;
}

std::string joined(const Lines& lines) {
  std::string text;
  for (const std::string& line : lines) text += line + " | ";
  return text;
}

// "none", "5 bytes", "chunked", "until close", or the error's text.
std::string framingOf(const ResponseHead& head, bool answersHead = false) {
  try {
    const BodyFraming body = bodyFraming(head, answersHead);
    EXPECT_TRUE(body.length == 0 || body.framing == Framing::Length);
    switch (body.framing) {
      case Framing::None:
        return "none";
      case Framing::Length:
        return std::to_string(body.length) + " bytes";
      case Framing::Chunked:
        return "chunked";
      case Framing::UntilClose:
        return "until close";
    }
  } catch (const Poco::Net::MessageException& error) {
    return error.message();
  }
  return "nothing known";
}

void expectFraming(const Lines& lines, const std::string& expected) {
  EXPECT_EQ(framingOf(headOf(200, lines)), expected) << joined(lines);
}

std::string malformed(const std::string& shown) {
  return "Malformed Content-Length in the response: " + shown;
}
std::string contradictory(const std::string& shown) {
  return "Contradictory Content-Length in the response: " + shown;
}
std::string unsupported(const std::string& shown) {
  return "Unsupported Transfer-Encoding in the response: " + shown;
}

// --- Lengths ------------------------------------------------------------------------------------

TEST(Framing, BodyWithoutALengthEndsWithTheConnection) {
  expectFraming(none, "until close");
  expectFraming({"Content-Type: text/plain", "X-Content-Length: 5"}, "until close");
}

TEST(Framing, LengthIsDigitsAndNothingElse) {
  expectFraming({"Content-Length: 5"}, "5 bytes");
  expectFraming({"CONTENT-length:0"}, "0 bytes");
  expectFraming({"Content-Length: \t 0012 \t"}, "12 bytes");
  for (const std::string text :
       {"",    "x",   "5x",  "x5", "5 6",     "5\t6",  "+5", "-5", "-0",  "+0",  "--5",
        "5.0", "5e1", "0x5", "5;", "5 bytes", "\"5\"", "5-", "5+", "\v5", "5\f", "=?utf-8?q?5?="}) {
    expectFraming({"Content-Length: " + text}, malformed(text));
  }
  expectFraming({"Content-Length: \xB2"}, malformed("\xC2\xB2"));
}

TEST(Framing, LengthGoesUpTo63Bits) {
  const std::string most = std::to_string(std::numeric_limits<std::int64_t>::max());
  ASSERT_EQ(most, "9223372036854775807");
  expectFraming({"Content-Length: " + most}, most + " bytes");
  expectFraming({"Content-Length: 000" + most}, most + " bytes");
  for (const std::string text :
       {"9223372036854775808", "18446744073709551615", "18446744073709551616",
        "18446744073709551621", "99999999999999999999999999999999999999999"}) {
    expectFraming({"Content-Length: " + text}, malformed(text));
  }
}

TEST(Framing, EqualLengthsAreOne) {
  expectFraming({"Content-Length: 5, 5"}, "5 bytes");
  expectFraming({"Content-Length: 5,5,\t5 , 05"}, "5 bytes");
  expectFraming({"Content-Length: 5", "content-length: 5"}, "5 bytes");
  expectFraming({"Content-Length: 5, 5", "A: b", "Content-Length: 5"}, "5 bytes");
  expectFraming({"Content-Length: 5,", " 5"}, "5 bytes");
}

TEST(Framing, DifferentLengthsContradictEachOther) {
  expectFraming({"Content-Length: 5, 6"}, contradictory("5, 6"));
  expectFraming({"Content-Length: 5", "Content-Length: 6"}, contradictory("5, 6"));
  expectFraming({"Content-Length: 5,5", "A: b", "CONTENT-LENGTH: 5,0"}, contradictory("5,5, 5,0"));
  expectFraming({"Content-Length: 0, 5"}, contradictory("0, 5"));
  expectFraming({"Content-Length: 5", "Content-Length: 5", "Content-Length: 50"},
                contradictory("5, 5, 50"));
}

TEST(Framing, MalformedElementMakesTheListMalformed) {
  expectFraming({"Content-Length: 5,"}, malformed("5,"));
  expectFraming({"Content-Length: ,5"}, malformed(",5"));
  expectFraming({"Content-Length: 5,,5"}, malformed("5,,5"));
  expectFraming({"Content-Length: ,"}, malformed(","));
  expectFraming({"Content-Length: 5, x"}, malformed("5, x"));
  expectFraming({"Content-Length: 5, +5"}, malformed("5, +5"));
  expectFraming({"Content-Length: 5", "Content-Length: -5"}, malformed("5, -5"));
  expectFraming({"Content-Length: 5", "Content-Length:"}, malformed("5, "));
  expectFraming({"Content-Length: 5;5"}, malformed("5;5"));
}

TEST(Framing, ErrorShowsTheFirst100BytesOfEachValue) {
  const std::string shown(100, 'x');
  expectFraming({"Content-Length: " + shown + "y"}, malformed(shown));
  expectFraming({"Content-Length: 5", "Content-Length: " + shown + "y"}, malformed("5, " + shown));
  expectFraming({"Transfer-Encoding: " + shown + "y"}, unsupported(shown));
}

TEST(Framing, ErrorShowsNoMoreThanTheFirstValues) {
  const std::string length = "Content-Length: " + std::string(99, 'x');
  const std::string value(99, 'x');
  expectFraming({length, length, "Content-Length: 5"}, malformed(value + ", " + value + ", ..."));
  expectFraming({length, "Content-Length: 5"}, malformed(value + ", 5"));
}

// --- Transfer codings ---------------------------------------------------------------------------

TEST(Framing, ChunkedIsTheOneTransferCoding) {
  expectFraming({"Transfer-Encoding: chunked"}, "chunked");
  expectFraming({"transfer-ENCODING: \t cHuNkEd \t"}, "chunked");
  for (const std::string text : {"",
                                 "gzip",
                                 "gzip, chunked",
                                 "chunked, gzip",
                                 "chunked, chunked",
                                 "chunked,chunked",
                                 "chunked;q=1",
                                 "chunked x",
                                 "xchunked",
                                 "chunke",
                                 "\"chunked\"",
                                 "chunked\v",
                                 "deflate",
                                 "compress",
                                 "chunked,",
                                 ",chunked",
                                 "identity, gzip",
                                 "identity;",
                                 "chunked; a=b",
                                 "=?utf-8?q?chunked?=",
                                 "x, identity"}) {
    expectFraming({"Transfer-Encoding: " + text}, unsupported(text));
  }
  expectFraming({"Transfer-Encoding: \xE9"}, unsupported("\xC3\xA9"));
}

TEST(Framing, TransferCodingsOfSeveralLinesAreOneList) {
  expectFraming({"Transfer-Encoding: gzip", "Transfer-Encoding: chunked"},
                unsupported("gzip, chunked"));
  expectFraming({"Transfer-Encoding: chunked", "A: b", "transfer-encoding: Chunked"},
                unsupported("chunked, Chunked"));
  expectFraming({"Transfer-Encoding: chunked", "Transfer-Encoding:"}, unsupported("chunked, "));
}

TEST(Framing, IdentityCountsAsNone) {
  for (const char* text : {"identity", "Identity", "identity, IDENTITY"}) {
    const std::string line = "Transfer-Encoding: " + std::string(text);
    expectFraming({line}, "until close");
    expectFraming({line, "Content-Length: 5"}, "5 bytes");
    expectFraming({line, "Transfer-Encoding: chunked"}, "chunked");
  }
  expectFraming({"Transfer-Encoding: identity, chunked"}, "chunked");
  expectFraming({"Transfer-Encoding: chunked, identity"}, "chunked");
}

TEST(Framing, ChunksBesideALengthAreReadAsChunks) {
  for (const char* length : {"5", "5, 6", "x", ""}) {
    const std::string line = "Content-Length: " + std::string(length);
    expectFraming({"Transfer-Encoding: chunked", line}, "chunked");
    expectFraming({line, "Transfer-Encoding: chunked"}, "chunked");
  }
  expectFraming({"Content-Length: 5", "Transfer-Encoding: gzip"}, unsupported("gzip"));
}

// --- No body ------------------------------------------------------------------------------------

const std::vector<Lines> announcements = {
    {"Content-Length: 5"},       {"Content-Length: x"},
    {"Content-Length: 5, 6"},    {"Transfer-Encoding: chunked"},
    {"Transfer-Encoding: gzip"}, {"Content-Length: 5", "Transfer-Encoding: chunked"},
};

TEST(Framing, SomeResponsesHaveNoBodyWhateverTheyAnnounce) {
  for (const Lines& lines : announcements) {
    for (const int status : {100, 101, 103, 199, 204, 304}) {
      EXPECT_EQ(framingOf(headOf(status, lines)), "none") << status << joined(lines);
    }
    for (const int status : {200, 206, 302, 404, 500, 999}) {
      EXPECT_EQ(framingOf(headOf(status, lines), true), "none") << status << joined(lines);
    }
  }
  for (const int status : {100, 101, 204, 304}) EXPECT_EQ(framingOf(headOf(status, none)), "none");
  EXPECT_EQ(framingOf(headOf(200, none), true), "none");
}

TEST(Framing, EveryOtherResponseHasABody) {
  for (int status = 200; status < 1000; ++status) {
    if (status == 204 || status == 304) continue;
    ASSERT_EQ(framingOf(headOf(status, {"Content-Length: 5"})), "5 bytes") << status;
    ASSERT_EQ(framingOf(headOf(status, {"Transfer-Encoding: chunked"})), "chunked") << status;
    ASSERT_EQ(framingOf(headOf(status, none)), "until close") << status;
  }
}

TEST(Framing, Every1xxBut101IsInterim) {
  for (int status = 100; status < 1000; ++status) {
    ASSERT_EQ(isInterim(headOf(status, none)), status < 200 && status != 101) << status;
  }
}

TEST(Framing, StatusWithoutABodyMayAnnounceNone) {
  for (const int status : {100, 103, 204}) {
    for (const Lines& lines : announcements) {
      EXPECT_TRUE(announcesForbiddenBody(headOf(status, lines))) << status << joined(lines);
    }
    for (const Lines& lines : std::vector<Lines>{{"Transfer-Encoding: identity"},
                                                 {"transfer-encoding:"},
                                                 {"Content-Length: 0, 5"},
                                                 {"Content-Length: 0", "content-length: 1"},
                                                 {"Content-Length: -0"},
                                                 {"Content-Length:"},
                                                 {"Content-Length: 9223372036854775808"}}) {
      EXPECT_TRUE(announcesForbiddenBody(headOf(status, lines))) << status << joined(lines);
    }
    for (const Lines& lines :
         std::vector<Lines>{none, {"Content-Length: 0"}, {"Content-Length: 0, 00"}, {"A: 5"}}) {
      EXPECT_FALSE(announcesForbiddenBody(headOf(status, lines))) << status << joined(lines);
    }
  }
}

TEST(Framing, EveryOtherStatusMayAnnounceABody) {
  for (int status = 200; status < 1000; ++status) {
    if (status == 204) continue;
    ASSERT_FALSE(announcesForbiddenBody(headOf(status, {"Content-Length: 5"}))) << status;
    ASSERT_FALSE(announcesForbiddenBody(headOf(status, {"Transfer-Encoding: chunked"}))) << status;
  }
}

// --- Whether the connection is kept -------------------------------------------------------------

bool keeps(int status, const Lines& lines, int minorVersion = 1, bool answersHead = false) {
  const ResponseHead head = headOf(status, lines, minorVersion);
  return keepsConnection(head, bodyFraming(head, answersHead));
}

TEST(KeptConnection, IsThatOfHttp11UnlessItSaysClose) {
  const std::string length = "Content-Length: 5";
  EXPECT_TRUE(keeps(200, {length}));
  EXPECT_TRUE(keeps(200, {length}, 2));
  EXPECT_TRUE(keeps(200, {length}, 9));
  for (const std::string name : {"Connection", "Proxy-Connection", "CONNECTION"}) {
    for (const char* value : {"close", "Close", "\t CLOSE", "a, close", "close, a", "a ,close ,b",
                              "close, keep-alive", "keep-alive, close"}) {
      EXPECT_FALSE(keeps(200, {length, name + ": " + value})) << name << value;
      EXPECT_FALSE(keeps(200, {name + ": a", name + ": " + value, length})) << name << value;
      EXPECT_FALSE(keeps(200, {length, name + ": " + value}, 0)) << name << value;
    }
    for (const char* value : {"", "keep-alive", "closed", "no close", "close;", "\"close\"",
                              "close x", "upgrade", ",", "=?utf-8?q?close?="}) {
      EXPECT_TRUE(keeps(200, {length, name + ": " + value})) << name << value;
    }
  }
  EXPECT_TRUE(keeps(200, {length, "X-Connection: close", "Close: close"}));
}

TEST(KeptConnection, IsThatOfHttp10WhereItSaysKeepAlive) {
  const std::string length = "Content-Length: 5";
  EXPECT_FALSE(keeps(200, {length}, 0));
  for (const char* value : {"keep-alive", "Keep-Alive", "a, KEEP-ALIVE", "keep-alive,a"}) {
    const std::string line = "Connection: " + std::string(value);
    EXPECT_TRUE(keeps(200, {length, line}, 0)) << value;
    EXPECT_FALSE(keeps(200, {line}, 0)) << value;
    EXPECT_FALSE(keeps(200, {length, line, "Connection: close"}, 0)) << value;
  }
  for (const char* line : {"Connection: keep", "Connection: keep-alive2", "Connection:",
                           "Keep-Alive: timeout=5", "Proxy-Connection: keep-alive"}) {
    EXPECT_FALSE(keeps(200, {length, line}, 0)) << line;
  }
}

TEST(KeptConnection, EndsWithABodyThatOnlyItsEndEnds) {
  EXPECT_FALSE(keeps(200, none));
  EXPECT_FALSE(keeps(200, {"Connection: keep-alive"}));
  EXPECT_FALSE(keeps(200, {"Transfer-Encoding: identity"}));
}

TEST(KeptConnection, NeedsABodyWhoseEndIsBeyondDoubt) {
  EXPECT_TRUE(keeps(200, {"Transfer-Encoding: chunked"}));
  EXPECT_TRUE(keeps(200, {"Content-Length: 5, 5"}));
  EXPECT_TRUE(keeps(200, {"Transfer-Encoding: identity", "Content-Length: 5"}));
  EXPECT_FALSE(keeps(200, {"Transfer-Encoding: chunked", "Content-Length: 5"}));
  EXPECT_FALSE(keeps(200, {"content-length: 0", "Transfer-Encoding: chunked"}));
  EXPECT_FALSE(keeps(200, {"Content-Length:", "Transfer-Encoding: chunked"}));
}

TEST(KeptConnection, EndsAfterATransferCodingOfHttp10) {
  for (const char* coding : {"chunked", "identity"}) {
    const Lines lines = {"Connection: keep-alive", "Content-Length: 5",
                         "transfer-encoding: " + std::string(coding)};
    EXPECT_FALSE(keeps(200, lines, 0)) << coding;
  }
  EXPECT_FALSE(keeps(200, {"Connection: keep-alive", "Transfer-Encoding: chunked"}, 0));
}

TEST(KeptConnection, IsKeptAfterAResponseWithoutABody) {
  for (const int status : {204, 304}) {
    EXPECT_TRUE(keeps(status, none)) << status;
    EXPECT_TRUE(keeps(status, {"Content-Length: 0"})) << status;
    EXPECT_FALSE(keeps(status, {"Connection: close"})) << status;
    EXPECT_FALSE(keeps(status, none, 0)) << status;
    EXPECT_TRUE(keeps(status, {"Connection: keep-alive"}, 0)) << status;
  }
  for (const Lines& lines : announcements) {
    EXPECT_TRUE(keeps(200, lines, 1, true)) << joined(lines);
    EXPECT_TRUE(keeps(304, lines)) << joined(lines);
    EXPECT_FALSE(keeps(204, lines)) << joined(lines);
    EXPECT_FALSE(keeps(204, lines, 1, true)) << joined(lines);
  }
}

TEST(KeptConnection, EndsWhereProtocolsAreSwitched) {
  EXPECT_FALSE(keeps(101, none));
  EXPECT_FALSE(keeps(101, {"Connection: upgrade"}));
}

}  // namespace
}  // namespace connectivity::plugins
