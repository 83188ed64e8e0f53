// Bodies that are framed by chunks.
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "plugins/http_client/wire/ResponseBody.hpp"
#include "tests/plugins/http_client/ByteSources.hpp"

namespace connectivity::plugins {
namespace {

TEST(ResponseBodyChunks, JoinsChunks) {
  BodyInPieces message({"5\r\nhello\r\n1;name=\"value\"\r\n \r\n0005 \r\nworld\r\n0\r\n\r\nHTTP"});
  ResponseBody& body = message.begin(Framing::Chunked);
  EXPECT_EQ(readAll(body), "hello world");
  EXPECT_TRUE(body.complete());
  EXPECT_EQ(message.leftOver(), "HTTP");
}

TEST(ResponseBodyChunks, JoinsChunksHoweverTheyAreCut) {
  const std::string wire = "a\r\n0123456789\r\nF;x\r\nabcdefghijklmno\r\n0\r\nTrailer: x\r\n\r\n";
  for (std::size_t size = 1; size < wire.size(); ++size) {
    std::vector<std::string> pieces;
    for (std::size_t at = 0; at < wire.size(); at += size) pieces.push_back(wire.substr(at, size));
    BodyInPieces byChar(pieces);
    EXPECT_EQ(readAll(byChar.begin(Framing::Chunked)), "0123456789abcdefghijklmno") << size;
    EXPECT_TRUE(byChar.body.complete());
    BodyInPieces large(pieces);
    EXPECT_EQ(readLarge(large.begin(Framing::Chunked), 4096), "0123456789abcdefghijklmno");
    EXPECT_TRUE(large.body.complete());
  }
}

TEST(ResponseBodyChunks, LargeChunksGoStraightIntoTheCallersMemory) {
  const std::string chunk(50000, 'x');
  BodyInPieces message({"c350\r\n", chunk, "\r\nc350\r\n", chunk, "\r\n0\r\n\r\n"});
  EXPECT_EQ(readLarge(message.begin(Framing::Chunked), 102400).size(), 100000U);
  EXPECT_TRUE(message.body.complete());
  EXPECT_EQ(message.source.roomOffered[1], 50000U);
}

TEST(ResponseBodyChunks, IsNotCompleteBeforeTheLastChunkWasRead) {
  BodyInPieces message({"5\r\nhello\r\n0\r\n\r\n"});
  ResponseBody& body = message.begin(Framing::Chunked);
  EXPECT_EQ(readLarge(body, 5), "hello");
  EXPECT_FALSE(body.complete());
  EXPECT_EQ(body.skipSome(), 0U);
  EXPECT_TRUE(body.complete());
}

TEST(ResponseBodyChunks, ReadsPastTrailers) {
  BodyInPieces message({"0\r\nA: b\r\nC: d\r\n\r\nHTTP"});
  EXPECT_EQ(readAll(message.begin(Framing::Chunked)), "");
  EXPECT_TRUE(message.body.complete());
  EXPECT_EQ(message.leftOver(), "HTTP");
}

void expectCutShort(const std::string& wire, const std::string& text) {
  BodyInPieces message({wire});
  ResponseBody& body = message.begin(Framing::Chunked);
  EXPECT_EQ(readLarge(body, 100000), text) << wire;
  EXPECT_TRUE(body.eof()) << wire;
  EXPECT_FALSE(body.bad()) << wire;
  EXPECT_TRUE(body.cutShort()) << wire;
  EXPECT_FALSE(body.complete()) << wire;
  EXPECT_FALSE(body.failure().empty()) << wire;
}

TEST(ResponseBodyChunks, IsCutShortWithoutItsLastChunk) {
  expectCutShort("", "");
  expectCutShort("5\r\nhel", "hel");
  expectCutShort("5\r\nhello", "hello");
  expectCutShort("5\r\nhello\r\n", "hello");
  expectCutShort("5\r\nhello\r\n0", "hello");
  expectCutShort("5\r\nhello\r\n0\r\n", "hello");
  expectCutShort("5\r\nhello\r\n0\r\nTrailer: x\r\n", "hello");
}

TEST(ResponseBodyChunks, IsCutShortWhereItsChunksAreMalformed) {
  expectCutShort("x\r\nhello\r\n0\r\n\r\n", "");
  expectCutShort("\r\nhello\r\n0\r\n\r\n", "");
  expectCutShort("-5\r\nhello\r\n0\r\n\r\n", "");
  expectCutShort("0x5\r\nhello\r\n0\r\n\r\n", "");
  expectCutShort("5 5\r\nhello\r\n0\r\n\r\n", "");
  expectCutShort("5;a\001b\r\nhello\r\n0\r\n\r\n", "");
  expectCutShort("5\rhello\r\n0\r\n\r\n", "");
  expectCutShort(std::string("5;\0\r\nhello\r\n0\r\n\r\n", 17), "");
  expectCutShort("5\r\nhelloworld\r\n0\r\n\r\n", "hello");
  expectCutShort("5\r\nhellow\n0\r\n\r\n", "hello");
  expectCutShort("8000000000000000\r\nhello", "");
  expectCutShort("10000000000000005\r\nhello", "");
}

TEST(ResponseBodyChunks, TakesTheLargestChunkSizeThatFits63Bits) {
  BodyInPieces message({"7fffffffffffffff\r\nhello"});
  EXPECT_EQ(readLarge(message.begin(Framing::Chunked), 100), "hello");
}

TEST(ResponseBodyChunks, TakesLinesThatEndInALineFeedAlone) {
  BodyInPieces message({"5\nhello\n6;x\n world\r\n0\nA: b\n\nHTTP"});
  EXPECT_EQ(readAll(message.begin(Framing::Chunked)), "hello world");
  EXPECT_TRUE(message.body.complete());
  EXPECT_EQ(message.leftOver(), "HTTP");
}

// A chunk of five bytes whose size line has this many, with its end.
std::string withChunkLineOf(std::size_t size) {
  return "5;" + std::string(size - 4, 'x') + "\r\nhello\r\n0\r\n\r\n";
}

// A body of one chunk whose trailers have this many bytes, with their ends and the empty line.
std::string withTrailersOf(std::size_t size) {
  std::string trailers;
  while (trailers.size() + 1000 < size) trailers += "A: " + std::string(95, 'x') + "\r\n";
  trailers += "A: " + std::string(size - trailers.size() - 7, 'x') + "\r\n\r\n";
  return "5\r\nhello\r\n0\r\n" + trailers;
}

TEST(ResponseBodyChunks, BoundsChunkLinesAndTrailers) {
  for (const std::string& wire : {withChunkLineOf(16384), withTrailersOf(65536)}) {
    BodyInPieces message({wire});
    EXPECT_EQ(readAll(message.begin(Framing::Chunked)), "hello");
    EXPECT_TRUE(message.body.complete());
  }
  expectCutShort(withChunkLineOf(16385), "");
  expectCutShort(withTrailersOf(65537), "hello");
}

TEST(ResponseBodyChunks, SkipsChunksAndCountsTheirBytesAlone) {
  BodyInPieces message({"5;x\r\nhel", "lo\r\n1\r\n!\r\n0\r\nA: b\r\n\r\nHTTP"});
  ResponseBody& body = message.begin(Framing::Chunked);
  EXPECT_EQ(body.skipSome(), 3U);
  EXPECT_EQ(body.skipSome(), 2U);
  EXPECT_EQ(body.skipSome(), 1U);
  EXPECT_EQ(body.skipSome(), 0U);
  EXPECT_TRUE(body.complete());
  EXPECT_EQ(message.leftOver(), "HTTP");
}

}  // namespace
}  // namespace connectivity::plugins
