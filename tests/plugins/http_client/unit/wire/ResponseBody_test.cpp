#include "plugins/http_client/wire/ResponseBody.hpp"

#include <cstring>
#include <functional>
#include <iterator>
#include <string>
#include <utility>
#include <vector>

#include <Poco/Exception.h>
#include <Poco/Net/NetException.h>
#include <Poco/Net/SSLException.h>
#include <gtest/gtest.h>

namespace connectivity::plugins {
namespace {

// Hands out its pieces, one for each receive (less where the room is less), then ends.
class Pieces final : public ByteSource {
 public:
  explicit Pieces(std::vector<std::string> pieces) : _pieces(std::move(pieces)) {}

  std::size_t receive(char* data, std::size_t size) override {
    roomOffered.push_back(size);
    if (_at == _pieces.size()) {
      if (atEnd) atEnd();
      return 0;
    }
    std::string& piece = _pieces[_at];
    const std::size_t count = std::min(size, piece.size());
    std::memcpy(data, piece.data(), count);
    piece.erase(0, count);
    if (piece.empty()) ++_at;
    return count;
  }

  std::function<void()> atEnd;
  std::vector<std::size_t> roomOffered;

 private:
  std::vector<std::string> _pieces;
  std::size_t _at = 0;
};

struct Message {
  explicit Message(std::vector<std::string> pieces) : source(std::move(pieces)) {
    input.attach(&source);
  }
  ResponseBody& begin(Framing framing, std::int64_t length = 0) {
    body.begin(framing, length);
    return body;
  }
  // What is left behind the body.
  std::string leftOver() {
    body.settle();
    return std::string(input.view());
  }

  Pieces source;
  InputBuffer input;
  ResponseBody body{input};
};

std::string readAll(std::istream& stream) {
  return {std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()};
}

// As large reads do it: straight into the caller's memory.
std::string readLarge(std::istream& stream, std::size_t size) {
  std::string text(size, '?');
  stream.read(text.data(), static_cast<std::streamsize>(size));
  text.resize(static_cast<std::size_t>(stream.gcount()));
  return text;
}

TEST(ResponseBody, EndsAtItsLength) {
  Message message({"hello", " world", "HTTP/1.1"});
  ResponseBody& body = message.begin(Framing::Length, 11);
  EXPECT_FALSE(body.complete());
  EXPECT_EQ(readAll(body), "hello world");
  EXPECT_TRUE(body.complete());
  EXPECT_FALSE(body.cutShort());
  EXPECT_EQ(message.source.roomOffered.size(), 2U);
}

TEST(ResponseBody, LeavesWhatFollowsItInTheInput) {
  Message message({"hello worldHTTP/1.1"});
  EXPECT_EQ(readAll(message.begin(Framing::Length, 11)), "hello world");
  EXPECT_EQ(message.leftOver(), "HTTP/1.1");
}

TEST(ResponseBody, AReadOfExactlyItsLengthIsGoodAndTheNextOneEndsIt) {
  Message message({std::string(5000, 'x')});
  ResponseBody& body = message.begin(Framing::Length, 5000);
  EXPECT_EQ(readLarge(body, 5000).size(), 5000U);
  EXPECT_TRUE(body.good());
  EXPECT_TRUE(body.complete());
  EXPECT_EQ(readLarge(body, 1), "");
  EXPECT_TRUE(body.eof());
  EXPECT_FALSE(body.bad());
}

TEST(ResponseBody, ALargeReadOffersTheCallersMemory) {
  Message message({std::string(100, 'a'), std::string(60000, 'b')});
  ResponseBody& body = message.begin(Framing::Length, 60100);
  body.peek();  // the first piece is in the buffer
  EXPECT_EQ(readLarge(body, 102400), std::string(100, 'a') + std::string(60000, 'b'));
  EXPECT_EQ(message.source.roomOffered.back(), 60000U);
}

TEST(ResponseBody, AShortLengthEndsCutShortAndNotBad) {
  Message message({"hello"});
  ResponseBody& body = message.begin(Framing::Length, 11);
  EXPECT_EQ(readLarge(body, 100), "hello");
  EXPECT_TRUE(body.eof());
  EXPECT_FALSE(body.bad());
  EXPECT_TRUE(body.cutShort());
  EXPECT_FALSE(body.complete());
  EXPECT_EQ(body.failure(), "The server ended the connection within the response body");
}

TEST(ResponseBody, WithoutALengthEndsWithTheConnection) {
  Message message({"hello", " world"});
  ResponseBody& body = message.begin(Framing::UntilClose);
  EXPECT_EQ(readAll(body), "hello world");
  EXPECT_TRUE(body.complete());
  EXPECT_FALSE(body.cutShort());
}

TEST(ResponseBody, AnnouncesThatNothingCanCome) {
  Message message({"HTTP/1.1"});
  EXPECT_TRUE(message.begin(Framing::None).announcedEmpty());
  EXPECT_EQ(readAll(message.body), "");
  EXPECT_TRUE(message.begin(Framing::Length, 0).announcedEmpty());
  EXPECT_TRUE(message.body.complete());
  EXPECT_FALSE(message.begin(Framing::Length, 1).announcedEmpty());
  EXPECT_FALSE(message.begin(Framing::Chunked).announcedEmpty());
  EXPECT_TRUE(message.source.roomOffered.empty());
}

TEST(ResponseBody, JoinsChunks) {
  Message message({"5\r\nhello\r\n1;name=\"value\"\r\n \r\n0005 \r\nworld\r\n0\r\n\r\nHTTP"});
  ResponseBody& body = message.begin(Framing::Chunked);
  EXPECT_EQ(readAll(body), "hello world");
  EXPECT_TRUE(body.complete());
  EXPECT_EQ(message.leftOver(), "HTTP");
}

TEST(ResponseBody, JoinsChunksHoweverTheyAreCut) {
  const std::string wire = "a\r\n0123456789\r\nF;x\r\nabcdefghijklmno\r\n0\r\nTrailer: x\r\n\r\n";
  for (std::size_t size = 1; size < wire.size(); ++size) {
    std::vector<std::string> pieces;
    for (std::size_t at = 0; at < wire.size(); at += size) pieces.push_back(wire.substr(at, size));
    Message byChar(pieces);
    EXPECT_EQ(readAll(byChar.begin(Framing::Chunked)), "0123456789abcdefghijklmno") << size;
    EXPECT_TRUE(byChar.body.complete());
    Message large(pieces);
    EXPECT_EQ(readLarge(large.begin(Framing::Chunked), 4096), "0123456789abcdefghijklmno");
    EXPECT_TRUE(large.body.complete());
  }
}

TEST(ResponseBody, LargeChunksGoStraightIntoTheCallersMemory) {
  const std::string chunk(50000, 'x');
  Message message({"c350\r\n", chunk, "\r\nc350\r\n", chunk, "\r\n0\r\n\r\n"});
  EXPECT_EQ(readLarge(message.begin(Framing::Chunked), 102400).size(), 100000U);
  EXPECT_TRUE(message.body.complete());
  EXPECT_EQ(message.source.roomOffered[1], 50000U);
}

TEST(ResponseBody, IsNotCompleteBeforeTheLastChunkWasRead) {
  Message message({"5\r\nhello\r\n0\r\n\r\n"});
  ResponseBody& body = message.begin(Framing::Chunked);
  EXPECT_EQ(readLarge(body, 5), "hello");
  EXPECT_FALSE(body.complete());
  EXPECT_TRUE(body.drain(0));
  EXPECT_TRUE(body.complete());
}

TEST(ResponseBody, ReadsPastTrailers) {
  Message message({"0\r\nA: b\r\nC: d\r\n\r\nHTTP"});
  EXPECT_EQ(readAll(message.begin(Framing::Chunked)), "");
  EXPECT_TRUE(message.body.complete());
  EXPECT_EQ(message.leftOver(), "HTTP");
}

void expectCutShort(const std::string& wire, const std::string& text) {
  Message message({wire});
  ResponseBody& body = message.begin(Framing::Chunked);
  EXPECT_EQ(readLarge(body, 100000), text) << wire;
  EXPECT_TRUE(body.eof()) << wire;
  EXPECT_FALSE(body.bad()) << wire;
  EXPECT_TRUE(body.cutShort()) << wire;
  EXPECT_FALSE(body.complete()) << wire;
  EXPECT_FALSE(body.failure().empty()) << wire;
}

TEST(ResponseBody, IsCutShortWithoutItsLastChunk) {
  expectCutShort("", "");
  expectCutShort("5\r\nhel", "hel");
  expectCutShort("5\r\nhello", "hello");
  expectCutShort("5\r\nhello\r\n", "hello");
  expectCutShort("5\r\nhello\r\n0", "hello");
  expectCutShort("5\r\nhello\r\n0\r\n", "hello");
  expectCutShort("5\r\nhello\r\n0\r\nTrailer: x\r\n", "hello");
}

TEST(ResponseBody, IsCutShortWhereItsChunksAreMalformed) {
  expectCutShort("x\r\nhello\r\n0\r\n\r\n", "");
  expectCutShort("\r\nhello\r\n0\r\n\r\n", "");
  expectCutShort("-5\r\nhello\r\n0\r\n\r\n", "");
  expectCutShort("0x5\r\nhello\r\n0\r\n\r\n", "");
  expectCutShort("5 5\r\nhello\r\n0\r\n\r\n", "");
  expectCutShort("5;a\001b\r\nhello\r\n0\r\n\r\n", "");
  expectCutShort("5\nhello\n0\n\n", "");
  expectCutShort("5\r\nhelloworld\r\n0\r\n\r\n", "hello");
  expectCutShort("8000000000000000\r\nhello", "");
  expectCutShort("10000000000000005\r\nhello", "");
}

TEST(ResponseBody, TakesTheLargestChunkSizeThatFits63Bits) {
  Message message({"7fffffffffffffff\r\nhello"});
  EXPECT_EQ(readLarge(message.begin(Framing::Chunked), 100), "hello");
}

TEST(ResponseBody, BoundsChunkExtensionsAndTrailers) {
  expectCutShort("5;" + std::string(20000, 'x') + "\r\nhello\r\n0\r\n\r\n", "");
  std::string trailers;
  for (int i = 0; i < 1000; ++i) trailers += "Trailer: " + std::string(100, 'x') + "\r\n";
  expectCutShort("0\r\n" + trailers + "\r\n", "");
}

TEST(ResponseBody, DrainsWhatIsLeftWithinTheBound) {
  Message message({"hello world", "!"});
  ResponseBody& body = message.begin(Framing::Length, 12);
  EXPECT_EQ(readLarge(body, 5), "hello");
  EXPECT_TRUE(body.drain(7));
  EXPECT_TRUE(body.complete());
}

TEST(ResponseBody, DrainingStopsAtTheBound) {
  Message message({"hello world", "!"});
  ResponseBody& body = message.begin(Framing::Length, 12);
  EXPECT_FALSE(body.drain(11));
  EXPECT_FALSE(body.complete());
  EXPECT_FALSE(body.cutShort());
  EXPECT_EQ(readAll(body), "!");
}

TEST(ResponseBody, DrainingStopsWhereTheConnectionFails) {
  Message message({"hello"});
  message.source.atEnd = [] { throw Poco::Net::ConnectionResetException("gone"); };
  ResponseBody& body = message.begin(Framing::Length, 12);
  EXPECT_FALSE(body.drain(100));
  EXPECT_FALSE(body.complete());
  EXPECT_EQ(body.failure(), "Connection reset by peer: gone");
}

TEST(ResponseBody, IsBadWhereTheConnectionFails) {
  for (const Framing framing : {Framing::Length, Framing::Chunked, Framing::UntilClose}) {
    Message message({framing == Framing::Chunked ? "14\r\nhello" : "hello"});
    message.source.atEnd = [] { throw Poco::TimeoutException("silence"); };
    ResponseBody& body = message.begin(framing, 20);
    readLarge(body, 100);
    EXPECT_TRUE(body.bad());
    EXPECT_FALSE(body.eof());
    EXPECT_FALSE(body.cutShort());
    EXPECT_FALSE(body.complete());
    EXPECT_EQ(body.failure(), "Timeout: silence");
  }
}

TEST(ResponseBody, ATlsEndWithoutNoticeCutsAnAnnouncedBodyShort) {
  Message message({"hello"});
  message.source.atEnd = [] { throw Poco::Net::SSLConnectionUnexpectedlyClosedException(); };
  ResponseBody& body = message.begin(Framing::Length, 20);
  EXPECT_EQ(readLarge(body, 100), "hello");
  EXPECT_TRUE(body.cutShort());
  EXPECT_FALSE(body.bad());
}

// Nobody could tell it from a body that an attacker has cut.
TEST(ResponseBody, ATlsEndWithoutNoticeIsAFailureWhereOnlyTheEndTellsTheLength) {
  Message message({"hello"});
  message.source.atEnd = [] { throw Poco::Net::SSLConnectionUnexpectedlyClosedException(); };
  ResponseBody& body = message.begin(Framing::UntilClose);
  readLarge(body, 100);
  EXPECT_TRUE(body.bad());
  EXPECT_FALSE(body.complete());
}

TEST(ResponseBody, IgnoresAndPeeksAsAnyStream) {
  Message message({"hel", "lo wor", "ld"});
  ResponseBody& body = message.begin(Framing::Length, 11);
  EXPECT_EQ(body.peek(), 'h');
  body.ignore(6);
  EXPECT_EQ(body.peek(), 'w');
  body.ignore(2147483647);
  EXPECT_TRUE(body.eof());
  EXPECT_FALSE(body.fail());
  EXPECT_TRUE(body.complete());
}

TEST(ResponseBody, MixesSmallAndLargeReads) {
  const std::string text = std::string(3000, 'a') + std::string(3000, 'b');
  Message message({text.substr(0, 2000), text.substr(2000, 1500), text.substr(3500)});
  ResponseBody& body = message.begin(Framing::Length, 6000);
  std::string all;
  all.push_back(static_cast<char>(body.get()));
  all += readLarge(body, 2500);
  all.push_back(static_cast<char>(body.get()));
  all += readLarge(body, 102400);
  EXPECT_EQ(all, text);
  EXPECT_TRUE(body.complete());
}

TEST(ResponseBody, WhatWasDroppedCanNoLongerBeRead) {
  Message message({"hello world"});
  ResponseBody& body = message.begin(Framing::Length, 11);
  body.get();
  body.abandon();
  message.input.attach(nullptr);
  EXPECT_EQ(readLarge(body, 100), "");
  EXPECT_FALSE(body.complete());
}

TEST(ResponseBody, AWholeBodyStaysCompleteWhenTheConnectionIsDropped) {
  Message message({"hello"});
  ResponseBody& body = message.begin(Framing::Length, 5);
  EXPECT_EQ(readLarge(body, 5), "hello");
  body.abandon();
  EXPECT_TRUE(body.complete());
}

TEST(ResponseBody, StartsAfreshForTheNextResponse) {
  Message message({"hel", ""});
  EXPECT_EQ(readLarge(message.begin(Framing::Length, 11), 100), "hel");
  EXPECT_TRUE(message.body.cutShort());
  Pieces next({"next"});
  message.input.attach(&next);
  EXPECT_EQ(readAll(message.begin(Framing::Length, 4)), "next");
  EXPECT_TRUE(message.body.complete());
  EXPECT_FALSE(message.body.cutShort());
  EXPECT_EQ(message.body.failure(), "");
}

}  // namespace
}  // namespace connectivity::plugins
