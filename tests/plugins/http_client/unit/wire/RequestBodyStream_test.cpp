#include "plugins/http_client/wire/RequestBodyStream.hpp"

#include <stdexcept>
#include <string>
#include <vector>

#include <Poco/Exception.h>
#include <gtest/gtest.h>

namespace connectivity::plugins {
namespace {

struct Sink final : ByteSink {
  void send(std::string_view first, std::string_view second) override {
    ++sends;
    if (fails) throw Poco::IOException("gone");
    bytes.append(first).append(second);
    last = second;
  }
  int sends = 0;
  bool fails = false;
  std::string bytes;
  std::string_view last;
};

struct Request {
  void begin(std::int64_t length) {
    head = "HEAD";
    stream.begin(&sink, head, length);
  }
  Sink sink;
  std::string head;
  RequestBodyStream stream;
};

TEST(RequestBodyStream, SendsTheHeadAtOnceWhereNoBodyFollows) {
  Request request;
  request.begin(0);
  EXPECT_EQ(request.sink.bytes, "HEAD");
  EXPECT_EQ(request.sink.sends, 1);
}

TEST(RequestBodyStream, SendsASmallBodyTogetherWithTheHead) {
  Request request;
  request.begin(6);
  request.stream << "ab" << 'c' << 12;
  request.stream.flush();
  EXPECT_EQ(request.sink.sends, 0);
  request.stream << 3;
  EXPECT_EQ(request.sink.bytes, "HEADabc123");
  EXPECT_EQ(request.sink.sends, 1);
}

TEST(RequestBodyStream, SendsALargeBodyFromTheCallersMemory) {
  const std::string body(100000, 'x');
  Request request;
  request.begin(100000);
  request.stream.write(body.data(), 100000);
  EXPECT_EQ(request.sink.bytes, "HEAD" + body);
  EXPECT_EQ(request.sink.sends, 1);
  EXPECT_EQ(request.sink.last.data(), body.data());
}

TEST(RequestBodyStream, GathersSmallPiecesUpToItsLimit) {
  constexpr int count = 10000;
  Request request;
  request.begin(count * 10);
  for (int i = 0; i < count; ++i) request.stream << "0123456789";
  EXPECT_EQ(request.sink.bytes.size(), 4U + count * 10);
  EXPECT_EQ(request.sink.sends,
            (4 + count * 10) / static_cast<int>(RequestBuffer::gatherLimit) + 1);
}

TEST(RequestBodyStream, RefusesMoreThanTheAnnouncedLength) {
  Request request;
  request.begin(3);
  EXPECT_THROW(request.stream << "four", std::logic_error);
  EXPECT_EQ(request.sink.sends, 0);
}

TEST(RequestBodyStream, ReportsLessThanTheAnnouncedLength) {
  Request request;
  request.begin(3);
  request.stream << "tw";
  EXPECT_THROW(request.stream.finish(), std::logic_error);
}

TEST(RequestBodyStream, ThrowsWhatSendingThrowsAndSendsNothingAgain) {
  Request request;
  request.begin(6);
  request.sink.fails = true;
  EXPECT_THROW(request.stream << "sixsix", Poco::IOException);
  request.sink.fails = false;
  request.stream.clear();
  EXPECT_THROW(request.stream << "x", std::logic_error);
  EXPECT_EQ(request.sink.bytes, "");
}

TEST(RequestBodyStream, TakesNoBodyWithoutARequest) {
  RequestBodyStream stream;
  EXPECT_THROW(stream << "x", std::logic_error);
}

TEST(RequestBodyStream, ServesTheNextRequestAfterAFailure) {
  Request request;
  request.begin(1);
  request.sink.fails = true;
  EXPECT_THROW(request.stream << "x", Poco::IOException);
  request.sink.fails = false;
  request.begin(1);
  request.stream << "y";
  EXPECT_EQ(request.sink.bytes, "HEADy");
}

}  // namespace
}  // namespace connectivity::plugins
