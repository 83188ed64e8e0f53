// Content-Encoding "deflate" is zlib's format; content without zlib's header is raw deflate, as
// some servers send it.
#include <ostream>
#include <string>

#include <gtest/gtest.h>

#include "tests/plugins/http_client/Answering.hpp"
#include "tests/plugins/http_client/PlainOrTls.hpp"

namespace test_support {
namespace {

using std::string_literals::operator""s;

std::string deflated(const std::string& content) {
  return responseHead(200, {{"Content-Encoding", "deflate"},
                            {"Content-Length", std::to_string(content.size())}}) +
         content;
}

struct Content {
  const char* name;
  std::string bytes;
  std::string text;  // what they mean, or the error
};

void PrintTo(const Content& content, std::ostream* out) { *out << content.name; }
std::string nameOf(const ::testing::TestParamInfo<Content>& info) { return info.param.name; }

// --- What is decoded ----------------------------------------------------------------------------

class Deflate : public ::testing::TestWithParam<Content> {
 protected:
  static void expectText(PluginUnderTest& plugin, const Request& request = {"GET", "/x"}) {
    const Answer answer = plugin.request(request);
    EXPECT_EQ(answer.status(), 200) << answer.reason();
    EXPECT_TRUE(answer.body() == GetParam().text) << answer.body().size();
  }
};

TEST_P(Deflate, IsDecoded) {
  ScriptedServer server(firstGets(deflated(GetParam().bytes)));
  PluginUnderTest plugin(oneClient(server.port()), terse());
  expectText(plugin);
  expectInStep(plugin, server, 1);
}

// The format is known by the second byte only.
TEST_P(Deflate, InChunksOfAByteIsDecoded) {
  const std::string& bytes = GetParam().bytes;
  std::string response =
      "HTTP/1.1 200 OK\r\nContent-Encoding: deflate\r\nTransfer-Encoding: chunked\r\n\r\n";
  for (const char byte : bytes) response += chunk({byte});
  ScriptedServer server(firstGets([&](Connection& connection) {
    response += "0\r\n\r\n";
    // Short ones arrive byte by byte, too.
    const std::size_t piece = response.size() < 50'000 ? 1 : response.size();
    for (std::size_t at = 0; at < response.size(); at += piece) {
      connection.send(response.substr(at, piece));
    }
  }));
  PluginUnderTest plugin(oneClient(server.port()), terse());
  expectText(plugin);
  expectInStep(plugin, server, 1);
}

TEST_P(Deflate, ThatEndsWithTheConnectionIsDecoded) {
  ScriptedServer server(
      {once("HTTP/1.1 200 OK\r\nContent-Encoding: deflate\r\n\r\n" + GetParam().bytes),
       answerWithTarget});
  PluginUnderTest plugin(oneClient(server.port()), terse());
  expectText(plugin);
  expectInStep(plugin, server, 2);
}

std::string repeated(std::size_t count) {
  std::string text;
  while (text.size() < count) text += "a line that comes again and again\n";
  return text;
}

INSTANTIATE_TEST_SUITE_P(
    Raw, Deflate,
    ::testing::Values(Content{"OfAWord", rawDeflate("word"), "word"},
                      Content{"OfNothing", "\x03\0"s, ""},
                      Content{"OfLines", rawDeflate(repeated(5000)), repeated(5000)},
                      Content{"ThatIsStored", rawDeflate(noise(3000), 0), noise(3000)},
                      Content{"InSeveralBlocks", rawDeflate(noise(300'000)), noise(300'000)},
                      Content{"ThatGrowsAlot", rawDeflate(std::string(2'000'000, 'x'), 9),
                              std::string(2'000'000, 'x')},
                      Content{"OfBytesThatAreNoText", rawDeflate("\0\xFF\x80"s), "\0\xFF\x80"s}),
    nameOf);

INSTANTIATE_TEST_SUITE_P(
    WithItsHeader, Deflate,
    ::testing::Values(Content{"OfAWord", zlib("word"), "word"},
                      Content{"OfNothing", "\x78\x9C\x03\0\0\0\0\x01"s, ""},
                      Content{"OfLines", zlib(repeated(5000)), repeated(5000)},
                      Content{"ThatIsStored", zlib(noise(3000), 0), noise(3000)},
                      Content{"AtTheLowestLevel", zlib(repeated(5000), 1), repeated(5000)},
                      Content{"AtTheHighestLevel", zlib(repeated(5000), 9), repeated(5000)},
                      Content{"InSeveralBlocks", zlib(noise(300'000)), noise(300'000)}),
    nameOf);

// --- What is not --------------------------------------------------------------------------------

class BadDeflate : public ::testing::TestWithParam<Content> {};

TEST_P(BadDeflate, IsAnError) {
  ScriptedServer server({once(deflated(GetParam().bytes)), answerWithTarget});
  PluginUnderTest plugin(oneClient(server.port()), terse());
  const Answer answer = plugin.request(Request("GET", "/x"));
  expectError(answer, "Error processing response stream: ");
  EXPECT_EQ(answer.reason(), GetParam().text);
  EXPECT_EQ(server.requestCount(), 1U);
  server.waitForEndedConnections(1);
  expectInStep(plugin, server, 2);
}

std::string corrupted(std::string bytes) {
  for (std::size_t at = bytes.size() / 2; at < bytes.size(); ++at) bytes[at] = '\xFF';
  return bytes;
}
std::string withoutItsEnd(const std::string& bytes) { return bytes.substr(0, bytes.size() - 1); }

INSTANTIATE_TEST_SUITE_P(
    That, BadDeflate,
    ::testing::Values(
        Content{"IsRawAndBreaksOff", withoutItsEnd(rawDeflate(noise(3000))), cutShort},
        Content{"IsRawAndBreaksOffEarly", rawDeflate("word").substr(0, 2), cutShort},
        Content{"IsAByte", "\x03", cutShort}, Content{"IsAByteOfZlibs", "x", cutShort},
        Content{"IsAHeaderAlone", zlib("word").substr(0, 2), cutShort},
        Content{"HasNoChecksum", withoutItsEnd(zlib("word")), cutShort},
        Content{"HasAWrongChecksum", withoutItsEnd(zlib("word")) + "?", broken},
        Content{"IsRawAndCorrupt", corrupted(rawDeflate(noise(3000))), broken},
        Content{"IsCorrupt", corrupted(zlib(noise(3000))), broken},
        Content{"IsGzip", gzip("word"), broken}, Content{"IsText", "no deflate at all", broken}),
    nameOf);

// --- Limits -------------------------------------------------------------------------------------

TEST(RawDeflateLimit, CountsDecodedBytes) {
  ScriptedServer server(firstGets(deflated(rawDeflate(repeated(50'000)))));
  PluginUnderTest plugin(oneClient(server.port()));
  Request request("GET", "/x");
  request.limit(1).policy("TRUNCATE_END");
  const std::string start = repeated(50'000).substr(0, 1000);
  EXPECT_EQ(plugin.request(request).body(), start.substr(0, start.rfind('\n')) + "[TRUNCATED]");
  expectInStep(plugin, server, 1);
}

TEST(RawDeflateBehindItsEnd, BytesAreIgnored) {
  ScriptedServer server(firstGets(deflated(rawDeflate("word") + "and some more")));
  PluginUnderTest plugin(oneClient(server.port()));
  EXPECT_EQ(plugin.request(Request("GET", "/x")).body(), "word");
  expectInStep(plugin, server, 1);
}

TEST(RawDeflateOfHead, IsNotDecoded) {
  ScriptedServer server(
      firstGets(responseHead(200, {{"Content-Encoding", "deflate"}, {"Content-Length", "100"}})));
  PluginUnderTest plugin(oneClient(server.port()));
  const Answer answer = plugin.request(Request("HEAD", "/x"));
  EXPECT_EQ(answer.status(), 200);
  EXPECT_EQ(answer.body(), "");
  expectInStep(plugin, server, 1);
}

}  // namespace
}  // namespace test_support
