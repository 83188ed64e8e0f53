// The body of a request: its pieces, its framing, and that it stays where it is.
#include "plugins/http_client/request/RequestBody.hpp"

#include <string>
#include <string_view>
#include <utility>

#include <gtest/gtest.h>

#include "connectivity/value_access.hpp"
#include "tests/plugins/http_client/unit/request/BodyBytes.hpp"
#include "tests/support/Messages.hpp"

namespace connectivity::plugins {
namespace {

TEST(RequestBody, OfNoneHasNoFraming) {
  const RequestBody body = RequestBody::none();
  EXPECT_FALSE(body.isFramed());
  EXPECT_EQ(body.size(), 0U);
  EXPECT_TRUE(body.pieces().empty());
  EXPECT_EQ(body.query(), "");
}

TEST(RequestBody, OfNoneMayStandInTheQuery) {
  const RequestBody body = RequestBody::none("a=1");
  EXPECT_FALSE(body.isFramed());
  EXPECT_EQ(body.query(), "a=1");
}

TEST(RequestBody, OfBytesBorrowsThem) {
  const std::string bytes = "bytes";
  const RequestBody body = RequestBody::ofBytes(bytes);
  EXPECT_TRUE(body.isFramed());
  EXPECT_EQ(body.size(), 5U);
  ASSERT_EQ(body.pieces().size(), 1U);
  EXPECT_EQ(body.pieces()[0].data(), bytes.data());
}

TEST(RequestBody, OfNoBytesHasALengthOfZero) {
  for (const RequestBody& body : {RequestBody::ofBytes(""), RequestBody::ofText("", "a/b"),
                                  RequestBody::ofBuffer(test_support::bufferValue(""))}) {
    EXPECT_TRUE(body.isFramed());
    EXPECT_EQ(body.size(), 0U);
    EXPECT_TRUE(body.pieces().empty()) << "nothing to send";
  }
}

TEST(RequestBody, OfTextHasItsType) {
  const RequestBody body = RequestBody::ofText("a=1", "application/x-www-form-urlencoded");
  EXPECT_EQ(bytesOf(body), "a=1");
  EXPECT_EQ(body.contentType(), "application/x-www-form-urlencoded");
}

TEST(RequestBody, OfABufferKeepsIt) {
  const RequestBody body = RequestBody::ofBuffer(test_support::bufferValue("bytes"));
  EXPECT_EQ(bytesOf(body), "bytes");
}

TEST(RequestBody, IsItsPiecesOneBehindTheOther) {
  const std::string borrowed = "borrowed ";
  RequestBody body;
  body.append("own ");
  body.appendBorrowed(borrowed);
  body.appendBorrowed("");
  body.append("more");
  EXPECT_EQ(bytesOf(body), "own borrowed more");
  EXPECT_EQ(body.size(), 17U);
  EXPECT_EQ(body.pieces().size(), 3U);
}

// Short texts lie inside their objects, so an object that moves would take them along.
TEST(RequestBody, KeepsItsTextsWhereTheyAreWhenItMovesAndGrows) {
  RequestBody body;
  for (int i = 0; i < 100; ++i) body.append(std::to_string(i % 10));
  const char* const first = body.pieces()[0].data();
  RequestBody moved = std::move(body);
  moved.append("x");
  EXPECT_EQ(moved.pieces()[0].data(), first);
  EXPECT_EQ(bytesOf(moved).substr(0, 12), "012345678901");
  RequestBody buffer = RequestBody::ofBuffer(test_support::bufferValue("a"));
  const RequestBody elsewhere = std::move(buffer);
  EXPECT_EQ(bytesOf(elsewhere), "a");
}

}  // namespace
}  // namespace connectivity::plugins
