// Where a head announces a body that cannot be, or says two things of it: what is delivered, and
// whether the connection is used again.
#include <ostream>
#include <string>

#include <gtest/gtest.h>

#include "tests/plugins/http_client/Answering.hpp"

namespace test_support {
namespace {

std::string head(int status, const std::string& fields) {
  return "HTTP/1.1 " + std::to_string(status) + " X\r\n" + fields + "\r\n";
}

// What a server sends, and over how many connections two requests go then.
struct Message {
  const char* name;
  std::string bytes;
  std::size_t connections = 1;
};

void PrintTo(const Message& message, std::ostream* out) { *out << message.name; }
std::string nameOf(const ::testing::TestParamInfo<Message>& info) { return info.param.name; }

// The answer is that of the server, with this body; the next request gets its own.
void expectDelivered(const Message& message, int status, const std::string& body,
                     const Request& request = {"GET", "/x"}) {
  ScriptedServer server(firstGets(message.bytes));
  PluginUnderTest plugin(oneClient(server.port()));
  const Answer answer = plugin.request(request);
  EXPECT_EQ(answer.status(), status) << answer.reason();
  EXPECT_FALSE(answer.isError());
  EXPECT_EQ(answer.body(), body);
  EXPECT_EQ(plugin.statusItem(".status"), "ONLINE");
  expectInStep(plugin, server, message.connections);
}

// --- 204 ----------------------------------------------------------------------------------------

class NoContent : public ::testing::TestWithParam<Message> {};

TEST_P(NoContent, IsDeliveredWithoutABody) { expectDelivered(GetParam(), 204, ""); }

INSTANTIATE_TEST_SUITE_P(
    All, NoContent,
    ::testing::Values(
        Message{"WithoutALength", head(204, "")},
        Message{"WithALengthOfNought", head(204, "Content-Length: 0\r\n")},
        Message{"WithTwoLengthsOfNought", head(204, "Content-Length: 0, 0\r\n")},
        Message{"WithALength", head(204, "Content-Length: 6\r\n"), 2},
        Message{"WithALengthAndItsBody", head(204, "Content-Length: 6\r\n") + "forged", 2},
        Message{"WithALengthAndAnAnswerForABody", head(204, "Content-Length: 43\r\n") + forged, 2},
        Message{"WithTwoLengths", head(204, "Content-Length: 0\r\nContent-Length: 6\r\n"), 2},
        Message{"WithALengthThatIsNoNumber", head(204, "Content-Length: six\r\n"), 2},
        Message{"WithChunks", head(204, "Transfer-Encoding: chunked\r\n"), 2},
        Message{"WithChunksThatCome", head(204, "Transfer-Encoding: chunked\r\n") + "0\r\n\r\n", 2},
        Message{"WithAnUnknownTransferCoding", head(204, "Transfer-Encoding: gzip\r\n"), 2},
        Message{"WithTheTransferCodingIdentity", head(204, "Transfer-Encoding: identity\r\n"), 2}),
    nameOf);

// The bytes of a body that comes late are nobody's answer.
TEST(NoContentWithABody, ThatComesLateIsNobodysAnswer) {
  Event answered;
  ScriptedServer server(firstGets([&](Connection& connection) {
    connection.send(head(204, "Content-Length: 43\r\n"));
    connection.stallUntil(answered);
    connection.send(forged);
  }));
  PluginUnderTest plugin(oneClient(server.port()));
  EXPECT_EQ(plugin.request(Request("GET", "/x")).body(), "");
  answered.set();
  expectInStep(plugin, server, 2);
}

// --- Interim responses --------------------------------------------------------------------------

class InterimResponse : public ::testing::TestWithParam<Message> {};

TEST_P(InterimResponse, IsReadPast) {
  const Message& message = GetParam();
  expectDelivered({message.name, message.bytes + head(201, "Content-Length: 5\r\n") + "final",
                   message.connections},
                  201, "final");
}

INSTANTIATE_TEST_SUITE_P(
    All, InterimResponse,
    ::testing::Values(Message{"WithoutALength", head(103, "")},
                      Message{"WithALengthOfNought", head(100, "Content-Length: 0\r\n")},
                      Message{"WithALength", head(103, "Content-Length: 6\r\n"), 2},
                      Message{"WithChunks", head(102, "Transfer-Encoding: chunked\r\n"), 2},
                      Message{"WithALengthBeforeOneWithout",
                              head(103, "Content-Length: 6\r\n") + head(100, ""), 2},
                      Message{"WithALengthBehindOneWithout",
                              head(103, "") + head(100, "Content-Length: 6\r\n"), 2}),
    nameOf);

TEST(InterimResponseWithABody, ThatComesIsNoAnswer) {
  ScriptedServer server(
      {once(head(103, "Content-Length: 6\r\n") + "forged" + head(200, "Content-Length: 0\r\n")),
       answerWithTarget});
  PluginUnderTest plugin(oneClient(server.port()));
  EXPECT_EQ(plugin.request(Request("GET", "/x")).reason(),
            "Malformed message: The response is not HTTP");
  expectInStep(plugin, server, 2);
}

// --- Answers to HEAD, and 304 -------------------------------------------------------------------

const std::string framings[] = {"", "Content-Length: 0\r\n", "Content-Length: 43\r\n",
                                "Transfer-Encoding: chunked\r\n"};

TEST(AnswerToHead, KeepsTheConnectionWhateverItAnnounces) {
  for (const std::string& framing : framings) {
    SCOPED_TRACE(framing);
    expectDelivered({"", head(200, framing)}, 200, "", Request("HEAD", "/x"));
  }
}

TEST(NotModified, KeepsTheConnectionWhateverItAnnounces) {
  for (const std::string& framing : framings) {
    SCOPED_TRACE(framing);
    expectDelivered({"", head(304, framing)}, 304, "");
  }
}

// --- Transfer codings ---------------------------------------------------------------------------

const std::string inChunks = "2\r\nwh\r\n3\r\nole\r\n0\r\n\r\n";

class ReadableFraming : public ::testing::TestWithParam<Message> {};

TEST_P(ReadableFraming, IsRead) { expectDelivered(GetParam(), 200, "whole"); }

Message ofChunks(const char* name, const std::string& fields, std::size_t connections = 1) {
  return {name, head(200, fields) + inChunks, connections};
}
Message ofLength(const char* name, const std::string& fields) {
  return {name, head(200, fields) + "whole"};
}

INSTANTIATE_TEST_SUITE_P(
    Chunks, ReadableFraming,
    ::testing::Values(
        ofChunks("InUpperCase", "TRANSFER-ENCODING: CHUNKED\r\n"),
        ofChunks("BesideIdentity", "Transfer-Encoding: identity, chunked\r\n"),
        ofChunks("BesideIdentityInALineOfItsOwn",
                 "Transfer-Encoding: Identity\r\nTransfer-Encoding: chunked\r\n"),
        ofChunks("BesideALength", "Content-Length: 5\r\nTransfer-Encoding: chunked\r\n", 2),
        ofChunks("BeforeALength", "Transfer-Encoding: chunked\r\nContent-Length: 5\r\n", 2),
        ofChunks("BesideTheLengthOfTheChunks",
                 "Content-Length: 20\r\nTransfer-Encoding: chunked\r\n", 2),
        ofChunks("BesideALengthOfNought", "Content-Length: 0\r\nTransfer-Encoding: chunked\r\n", 2),
        ofChunks("BesideAShortLength", "Content-Length: 2\r\nTransfer-Encoding: chunked\r\n", 2)),
    nameOf);

INSTANTIATE_TEST_SUITE_P(
    Length, ReadableFraming,
    ::testing::Values(
        ofLength("BesideIdentity", "Transfer-Encoding: identity\r\nContent-Length: 5\r\n"),
        ofLength("BesideIdentityInUpperCase",
                 "Transfer-Encoding: IDENTITY\r\nContent-Length: 5\r\n"),
        ofLength("InTwoEqualLines", "Content-Length: 5\r\nContent-Length: 5\r\n"),
        ofLength("TwiceInALine", "Content-Length: 5, 5\r\n"),
        ofLength("OftenInSeveralLines", "Content-Length: 5,5 , 5\r\ncontent-length: 5\r\n")),
    nameOf);

TEST(IdentityAlone, EndsWithTheConnection) {
  ScriptedServer server(
      {once(head(200, "Transfer-Encoding: identity\r\n") + "whole"), answerWithTarget});
  PluginUnderTest plugin(oneClient(server.port()));
  EXPECT_EQ(plugin.request(Request("GET", "/x")).body(), "whole");
  expectInStep(plugin, server, 2);
}

// --- What makes an answer unusable --------------------------------------------------------------

struct Unusable {
  const char* name;
  std::string fields;
  std::string text;  // behind "Malformed message: "
};

void PrintTo(const Unusable& unusable, std::ostream* out) { *out << unusable.name; }
std::string nameOfUnusable(const ::testing::TestParamInfo<Unusable>& info) {
  return info.param.name;
}

class UnusableFraming : public ::testing::TestWithParam<Unusable> {};

TEST_P(UnusableFraming, IsAnErrorAndTheConnectionIsNotUsedAgain) {
  ScriptedServer server(firstGets(head(200, GetParam().fields) + inChunks));
  PluginUnderTest plugin(oneClient(server.port()));
  const Answer answer = plugin.request(Request("GET", "/x"));
  expectError(answer, malformed);
  EXPECT_EQ(answer.reason(), malformed + GetParam().text);
  EXPECT_EQ(plugin.statusItem(".status"), "FAILED");
  EXPECT_EQ(server.requestCount(), 1U);
  expectInStep(plugin, server, 2);
}

Unusable coding(const char* name, const std::string& value) {
  return {name, "Transfer-Encoding: " + value + "\r\n",
          "Unsupported Transfer-Encoding in the response: " + value};
}
Unusable lengths(const char* name, const std::string& value) {
  return {name, "Content-Length: " + value + "\r\n",
          "Contradictory Content-Length in the response: " + value};
}

INSTANTIATE_TEST_SUITE_P(
    Coding, UnusableFraming,
    ::testing::Values(coding("ThatIsUnknown", "sdch"), coding("BehindChunks", "chunked, gzip"),
                      coding("BesideIdentity", "identity, gzip"),
                      coding("OfChunksTwice", "chunked, Chunked"),
                      coding("OfChunksWithAParameter", "chunked;q=1"),
                      coding("InQuotes", "\"chunked\""), coding("WithAPrefix", "x-chunked"),
                      coding("WithoutAName", ""),
                      Unusable{"BesideALength", "Transfer-Encoding: gzip\r\nContent-Length: 5\r\n",
                               "Unsupported Transfer-Encoding in the response: gzip"}),
    nameOfUnusable);

INSTANTIATE_TEST_SUITE_P(
    Lengths, UnusableFraming,
    ::testing::Values(lengths("ThatDiffer", "5, 6"), lengths("OfWhichTheLastDiffers", "5, 5, 50"),
                      Unusable{"ThatDifferInTheirLines",
                               "Content-Length: 5\r\nX: y\r\nContent-Length: 0\r\n",
                               "Contradictory Content-Length in the response: 5, 0"},
                      Unusable{"OfWhichOneIsNoNumber", "Content-Length: 5, x\r\n",
                               "Malformed Content-Length in the response: 5, x"}),
    nameOfUnusable);

}  // namespace
}  // namespace test_support
