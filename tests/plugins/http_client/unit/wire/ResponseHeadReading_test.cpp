// From a connection's bytes to the final response's head: interim responses, the connection's end,
// and what is known where that fails.
#include "plugins/http_client/wire/ResponseHeadReading.hpp"

#include <algorithm>
#include <cstddef>
#include <string>
#include <string_view>
#include <utility>

#include <Poco/Exception.h>
#include <Poco/Net/NetException.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace connectivity::plugins {
namespace {

using Poco::Net::MessageException;
using Poco::Net::NoMessageException;
using testing::Property;
using testing::Throws;

const std::string ok = "HTTP/1.1 200 OK\r\nA: b\r\n\r\n";
const std::string goOn = "HTTP/1.1 100 Continue\r\n\r\n";

// A connection that gives its bytes in such steps, and then ends, or fails.
class Bytes final : public ByteSource {
 public:
  enum class End { Closed, TimedOut };

  explicit Bytes(std::string bytes, std::size_t step = std::string::npos, End end = End::Closed)
      : _bytes(std::move(bytes)), _step(step), _end(end) {}

  std::size_t receive(char* data, std::size_t size) override {
    const std::size_t count = std::min({size, _step, _bytes.size() - _given});
    if (count == 0 && _end == End::TimedOut) throw Poco::TimeoutException("nothing more");
    std::copy_n(_bytes.data() + _given, count, data);
    _given += count;
    return count;
  }

 private:
  const std::string _bytes;
  const std::size_t _step;
  const End _end;
  std::size_t _given = 0;
};

// A connection, and what has been read from it.
struct Reading {
  explicit Reading(const std::string& bytes, std::size_t step = std::string::npos,
                   Bytes::End end = Bytes::End::Closed)
      : source(bytes, step, end) {
    input.attach(&source);
  }
  void read() { readResponseHead(input, head, "The peer", progress); }
  void expectNoMore(const std::string& text) {
    EXPECT_THAT([&] { read(); },
                Throws<MessageException>(Property(&Poco::Exception::message, text)));
  }

  Bytes source;
  InputBuffer input;
  ResponseHead head;
  HeadProgress progress;
};

std::string repeated(const std::string& text, int times) {
  std::string all;
  while (times-- > 0) all += text;
  return all;
}

TEST(ResponseHeadReading, LeavesTheInputAtTheBodysFirstByte) {
  for (const std::size_t step : {std::string::npos, std::size_t{1}, std::size_t{7}}) {
    Reading reading(ok + "body", step);
    reading.read();
    EXPECT_EQ(reading.head.status(), 200);
    EXPECT_EQ(reading.head.find("a"), "b");
    EXPECT_TRUE(reading.progress.begun);
    EXPECT_FALSE(reading.progress.ambiguous);
    std::string rest(reading.input.view());
    while (reading.input.fill()) rest = reading.input.view();
    EXPECT_EQ(rest, "body");
  }
}

// --- Interim responses --------------------------------------------------------------------------

TEST(ResponseHeadReading, PassesOverInterimResponses) {
  for (const std::size_t step : {std::string::npos, std::size_t{1}}) {
    Reading reading(goOn + "HTTP/1.1 102 x\r\nOnly: interim\r\n\r\nHTTP/1.0 103\n\n" +
                        "\r\nHTTP/1.1 199 x\r\n\r\n" + ok + "body",
                    step);
    reading.read();
    EXPECT_EQ(reading.head.status(), 200);
    EXPECT_EQ(reading.head.minorVersion(), 1);
    EXPECT_EQ(reading.head.fieldCount(), 1U);
    EXPECT_FALSE(reading.progress.ambiguous);
  }
}

TEST(ResponseHeadReading, SwitchingProtocolsIsFinal) {
  Reading reading("HTTP/1.1 101 Switching Protocols\r\nUpgrade: x\r\n\r\n" + ok);
  reading.read();
  EXPECT_EQ(reading.head.status(), 101);
  EXPECT_EQ(reading.input.view(), ok);
}

TEST(ResponseHeadReading, Takes100InterimResponsesAndNotOneMore) {
  Reading most(repeated(goOn, 100) + ok);
  most.read();
  EXPECT_EQ(most.head.status(), 200);
  Reading(repeated(goOn, 101) + ok).expectNoMore("The peer sent too many interim responses");
  Reading(repeated(goOn, 101)).expectNoMore("The peer sent too many interim responses");
}

TEST(ResponseHeadReading, EachHeadHasALimitOfItsOwn) {
  const std::string large = "HTTP/1.1 100 " + std::string(200000, 'x') + "\r\n\r\n";
  Reading reading(large + large + ok);
  reading.read();
  EXPECT_EQ(reading.head.status(), 200);
}

TEST(ResponseHeadReading, InterimResponseThatAnnouncesABodyMakesTheRestAmbiguous) {
  for (const char* field : {"Content-Length: 1", "Transfer-Encoding: chunked",
                            "Transfer-Encoding: identity", "Content-Length: x"}) {
    for (const bool first : {false, true}) {
      const std::string announcing = "HTTP/1.1 103 x\r\n" + std::string(field) + "\r\n\r\n";
      Reading reading(first ? announcing + goOn + ok : goOn + announcing + ok);
      reading.read();
      EXPECT_EQ(reading.head.status(), 200) << field;
      EXPECT_TRUE(reading.progress.ambiguous) << field;
    }
  }
}

TEST(ResponseHeadReading, NothingElseMakesItAmbiguous) {
  for (const char* bytes :
       {"HTTP/1.1 100 x\r\nContent-Length: 0\r\n\r\nHTTP/1.1 200 OK\r\n\r\n",
        "HTTP/1.1 200 OK\r\nContent-Length: 5\r\nTransfer-Encoding: chunked\r\n\r\n",
        "HTTP/1.1 101 x\r\nContent-Length: 5\r\n\r\n",
        "HTTP/1.1 204 x\r\nContent-Length: 5\r\n\r\n"}) {
    Reading reading(bytes);
    reading.read();
    EXPECT_FALSE(reading.progress.ambiguous) << bytes;
  }
}

// --- No head ------------------------------------------------------------------------------------

TEST(ResponseHeadReading, EndWithoutAByteIsNoAnswer) {
  Reading reading("");
  EXPECT_THAT([&] { reading.read(); },
              Throws<NoMessageException>(Property(
                  &Poco::Exception::message, "The peer closed the connection without an answer")));
  EXPECT_FALSE(reading.progress.begun);
}

TEST(ResponseHeadReading, EndAfterAByteIsAHeadCutShort) {
  const std::string whole = "\r\n" + goOn + "HTTP/1.1 200 OK\r\nA: b\r\n\r\n";
  for (std::size_t size = 1; size < whole.size(); ++size) {
    for (const std::size_t step : {std::string::npos, std::size_t{1}}) {
      Reading reading(whole.substr(0, size), step);
      reading.expectNoMore("The peer closed the connection within the response head");
      EXPECT_TRUE(reading.progress.begun) << size;
    }
  }
}

TEST(ResponseHeadReading, MalformedHeadHasBegun) {
  Reading foreign("X");
  foreign.expectNoMore("The response is not HTTP");
  EXPECT_TRUE(foreign.progress.begun);
  Reading second(goOn + "HTTP/1.1 200 OK\r\nno colon\r\n\r\n");
  second.expectNoMore("Malformed header line 1 in the response: no colon");
  EXPECT_TRUE(second.progress.begun);
}

TEST(ResponseHeadReading, TellsWhetherAnAnswerHadBegunBeforeTheConnectionFailed) {
  for (const std::string& bytes : {std::string(), std::string("H"), goOn}) {
    Reading reading(bytes, std::string::npos, Bytes::End::TimedOut);
    EXPECT_THAT([&] { reading.read(); }, Throws<Poco::TimeoutException>(
                                             Property(&Poco::Exception::message, "nothing more")));
    EXPECT_EQ(reading.progress.begun, !bytes.empty()) << bytes;
  }
}

TEST(ResponseHeadReading, BytesThatWereThereBeforeCount) {
  Reading reading(ok + ok);
  reading.read();
  reading.progress = {};
  reading.read();
  EXPECT_TRUE(reading.progress.begun);
  EXPECT_EQ(reading.head.status(), 200);
  EXPECT_TRUE(reading.input.empty());
}

TEST(ResponseHeadReading, InterimFieldsDoNotShowInAHeadCutShort) {
  Reading reading("HTTP/1.1 103 x\r\nOnly: interim\r\n\r\nHTTP/1.1 200 OK\r\nA: b\r\n");
  reading.expectNoMore("The peer closed the connection within the response head");
  EXPECT_EQ(reading.head.find("Only"), std::nullopt);
}

}  // namespace
}  // namespace connectivity::plugins
