#include "plugins/http_client/wire/ResponseBody.hpp"

#include <stdexcept>
#include <string>

#include <Poco/Exception.h>
#include <Poco/Net/NetException.h>
#include <Poco/Net/SSLException.h>
#include <gtest/gtest.h>

#include "tests/plugins/http_client/ByteSources.hpp"

namespace connectivity::plugins {
namespace {

TEST(ResponseBody, EndsAtItsLength) {
  BodyInPieces message({"hello", " world", "HTTP/1.1"});
  ResponseBody& body = message.begin(Framing::Length, 11);
  EXPECT_FALSE(body.complete());
  EXPECT_EQ(readAll(body), "hello world");
  EXPECT_TRUE(body.complete());
  EXPECT_FALSE(body.cutShort());
  EXPECT_EQ(message.source.roomOffered.size(), 2U);
}

TEST(ResponseBody, LeavesWhatFollowsItInTheInput) {
  BodyInPieces message({"hello worldHTTP/1.1"});
  EXPECT_EQ(readAll(message.begin(Framing::Length, 11)), "hello world");
  EXPECT_EQ(message.leftOver(), "HTTP/1.1");
}

TEST(ResponseBody, AReadOfExactlyItsLengthIsGoodAndTheNextOneEndsIt) {
  BodyInPieces message({std::string(5000, 'x')});
  ResponseBody& body = message.begin(Framing::Length, 5000);
  EXPECT_EQ(readLarge(body, 5000).size(), 5000U);
  EXPECT_TRUE(body.good());
  EXPECT_TRUE(body.complete());
  EXPECT_EQ(readLarge(body, 1), "");
  EXPECT_TRUE(body.eof());
  EXPECT_FALSE(body.bad());
}

TEST(ResponseBody, IsCompleteWithItsLastByteHoweverItIsRead) {
  BodyInPieces message({"hello"});
  ResponseBody& body = message.begin(Framing::Length, 5);
  for (int i = 0; i < 5; ++i) {
    EXPECT_FALSE(body.complete());
    body.get();
  }
  EXPECT_TRUE(body.complete());
  body.abandon();
  EXPECT_TRUE(body.complete());
}

TEST(ResponseBody, ALargeReadOffersTheCallersMemory) {
  BodyInPieces message({std::string(100, 'a'), std::string(60000, 'b')});
  ResponseBody& body = message.begin(Framing::Length, 60100);
  body.peek();  // the first piece is in the buffer
  EXPECT_EQ(readLarge(body, 102400), std::string(100, 'a') + std::string(60000, 'b'));
  EXPECT_EQ(message.source.roomOffered.back(), 60000U);
}

TEST(ResponseBody, AShortLengthEndsCutShortAndNotBad) {
  BodyInPieces message({"hello"});
  ResponseBody& body = message.begin(Framing::Length, 11);
  EXPECT_EQ(readLarge(body, 100), "hello");
  EXPECT_TRUE(body.eof());
  EXPECT_FALSE(body.bad());
  EXPECT_TRUE(body.cutShort());
  EXPECT_FALSE(body.complete());
  EXPECT_EQ(body.failure(), "The server ended the connection within the response body");
}

TEST(ResponseBody, WithoutALengthEndsWithTheConnection) {
  BodyInPieces message({"hello", " world"});
  ResponseBody& body = message.begin(Framing::UntilClose);
  EXPECT_EQ(readAll(body), "hello world");
  EXPECT_TRUE(body.complete());
  EXPECT_FALSE(body.cutShort());
}

TEST(ResponseBody, AnnouncesThatNothingCanCome) {
  BodyInPieces message({"HTTP/1.1"});
  EXPECT_TRUE(message.begin(Framing::None).announcedEmpty());
  EXPECT_EQ(readAll(message.body), "");
  EXPECT_TRUE(message.begin(Framing::Length, 0).announcedEmpty());
  EXPECT_TRUE(message.body.complete());
  EXPECT_FALSE(message.begin(Framing::Length, 1).announcedEmpty());
  EXPECT_FALSE(message.begin(Framing::Chunked).announcedEmpty());
  EXPECT_TRUE(message.source.roomOffered.empty());
}

TEST(ResponseBody, AsksForNothingBehindItsEnd) {
  for (const bool chunked : {false, true}) {
    BodyInPieces message({chunked ? "5\r\nhello\r\n0\r\n\r\n" : "hello"});
    message.source.atEnd = [] { throw Poco::TimeoutException("nothing more comes"); };
    ResponseBody& body = message.begin(chunked ? Framing::Chunked : Framing::Length, 5);
    EXPECT_EQ(readAll(body), "hello");
    EXPECT_TRUE(body.complete());
    EXPECT_FALSE(body.bad());
    EXPECT_EQ(body.failure(), "");
  }
}

TEST(ResponseBody, IgnoresAndPeeksAsAnyStream) {
  BodyInPieces message({"hel", "lo wor", "ld"});
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
  BodyInPieces message({text.substr(0, 2000), text.substr(2000, 1500), text.substr(3500)});
  ResponseBody& body = message.begin(Framing::Length, 6000);
  std::string all;
  all.push_back(static_cast<char>(body.get()));
  all += readLarge(body, 2500);
  all.push_back(static_cast<char>(body.get()));
  all += readLarge(body, 102400);
  EXPECT_EQ(all, text);
  EXPECT_TRUE(body.complete());
}

// --- reading past

TEST(ResponseBody, SkipsWhatIsLeft) {
  BodyInPieces message({"hello world", "!HTTP"});
  ResponseBody& body = message.begin(Framing::Length, 12);
  EXPECT_EQ(readLarge(body, 5), "hello");
  EXPECT_EQ(body.skipSome(), 6U);
  EXPECT_FALSE(body.complete());
  EXPECT_EQ(body.skipSome(), 1U);
  EXPECT_TRUE(body.complete());
  EXPECT_EQ(body.skipSome(), 0U);
  EXPECT_EQ(message.leftOver(), "HTTP");
}

TEST(ResponseBody, SkipsNoMoreThanHasCome) {
  BodyInPieces message({"hello world", "!"});
  ResponseBody& body = message.begin(Framing::Length, 12);
  EXPECT_EQ(body.skipSome(), 11U);
  EXPECT_FALSE(body.complete());
  EXPECT_FALSE(body.cutShort());
  EXPECT_EQ(readAll(body), "!");
}

TEST(ResponseBody, SkipsUntilTheConnectionEnds) {
  BodyInPieces message({"hello", "world"});
  ResponseBody& body = message.begin(Framing::UntilClose);
  EXPECT_EQ(body.skipSome(), 5U);
  EXPECT_EQ(body.skipSome(), 5U);
  EXPECT_FALSE(body.complete());
  EXPECT_EQ(body.skipSome(), 0U);
  EXPECT_TRUE(body.complete());
}

TEST(ResponseBody, SkippingStopsWhereTheBodyIsCutShort) {
  BodyInPieces message({"hello"});
  ResponseBody& body = message.begin(Framing::Length, 12);
  EXPECT_EQ(body.skipSome(), 5U);
  EXPECT_EQ(body.skipSome(), 0U);
  EXPECT_TRUE(body.cutShort());
}

TEST(ResponseBody, SkippingStopsWhereTheConnectionFails) {
  BodyInPieces message({"hello"});
  message.source.atEnd = [] { throw Poco::Net::ConnectionResetException("gone"); };
  ResponseBody& body = message.begin(Framing::Length, 12);
  EXPECT_EQ(body.skipSome(), 5U);
  EXPECT_EQ(body.skipSome(), 0U);
  EXPECT_FALSE(body.complete());
  EXPECT_EQ(body.failure(), "Connection reset by peer: gone");
}

TEST(ResponseBody, TellsWhatIsAnnouncedToCome) {
  BodyInPieces message({"hello world"});
  ResponseBody& body = message.begin(Framing::Length, 1000);
  EXPECT_EQ(body.announcedRest(), 1000);
  body.get();
  body.settle();
  EXPECT_EQ(body.announcedRest(), 999);
  body.skipSome();
  EXPECT_EQ(body.announcedRest(), 989);
  EXPECT_EQ(message.begin(Framing::Chunked).announcedRest(), 0);
  EXPECT_EQ(message.begin(Framing::UntilClose).announcedRest(), 0);
}

TEST(ResponseBody, WhatWasDroppedCanNoLongerBeRead) {
  BodyInPieces message({"hello world"});
  ResponseBody& body = message.begin(Framing::Length, 11);
  body.get();
  body.abandon();
  message.input.attach(nullptr);
  EXPECT_EQ(readLarge(body, 100), "");
  EXPECT_FALSE(body.cutShort()) << "by whom?";
  EXPECT_FALSE(body.complete());
}

TEST(ResponseBody, AWholeBodyStaysCompleteWhenTheConnectionIsDropped) {
  BodyInPieces message({"hello"});
  ResponseBody& body = message.begin(Framing::Length, 5);
  EXPECT_EQ(readLarge(body, 5), "hello");
  body.abandon();
  EXPECT_TRUE(body.complete());
}

TEST(ResponseBody, StartsAfreshForTheNextResponse) {
  BodyInPieces message({"hel", ""});
  EXPECT_EQ(readLarge(message.begin(Framing::Length, 11), 100), "hel");
  EXPECT_TRUE(message.body.cutShort());
  PiecesSource next({"next"});
  message.input.attach(&next);
  EXPECT_EQ(readAll(message.begin(Framing::Length, 4)), "next");
  EXPECT_TRUE(message.body.complete());
  EXPECT_FALSE(message.body.cutShort());
  EXPECT_EQ(message.body.failure(), "");
}

// --- failures

TEST(ResponseBody, IsBadWhereTheConnectionFails) {
  for (const Framing framing : {Framing::Length, Framing::Chunked, Framing::UntilClose}) {
    BodyInPieces message({framing == Framing::Chunked ? "14\r\nhello" : "hello"});
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

// The request's deadline is no exception of Poco's.
TEST(ResponseBody, IsBadWhateverTheFailureIs) {
  BodyInPieces message({"hello"});
  message.source.atEnd = [] { throw std::runtime_error("time is up"); };
  ResponseBody& body = message.begin(Framing::Length, 20);
  readLarge(body, 100);
  EXPECT_TRUE(body.bad());
  EXPECT_EQ(body.failure(), "time is up");
}

TEST(ResponseBody, ATlsEndWithoutNoticeCutsABodyShortWhoseEndIsAnnounced) {
  for (const Framing framing : {Framing::Length, Framing::Chunked}) {
    BodyInPieces message({framing == Framing::Chunked ? "14\r\nhello" : "hello"});
    message.source.atEnd = [] { throw Poco::Net::SSLConnectionUnexpectedlyClosedException(); };
    ResponseBody& body = message.begin(framing, 20);
    EXPECT_EQ(readLarge(body, 100), "hello");
    EXPECT_TRUE(body.cutShort());
    EXPECT_FALSE(body.bad());
    EXPECT_EQ(body.failure(), "The server ended the connection within the response body");
  }
}

// Nobody could tell it from a body that an attacker has cut.
TEST(ResponseBody, ATlsEndWithoutNoticeIsAFailureWhereOnlyTheEndTellsTheLength) {
  BodyInPieces message({"hello"});
  message.source.atEnd = [] { throw Poco::Net::SSLConnectionUnexpectedlyClosedException(); };
  ResponseBody& body = message.begin(Framing::UntilClose);
  readLarge(body, 100);
  EXPECT_TRUE(body.bad());
  EXPECT_FALSE(body.complete());
}

}  // namespace
}  // namespace connectivity::plugins
