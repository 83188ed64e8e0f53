// The body of a response, decoded and held to its limit.
#include "plugins/http_client/response/ResponseReading.hpp"

#include <algorithm>
#include <cstring>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include <Poco/Exception.h>
#include <gtest/gtest.h>

#include "orrery/Exception.hpp"
#include "plugins/http_client/wire/ResponseBody.hpp"
#include "tests/support/Coders.hpp"

namespace connectivity::plugins {
namespace {

using test_support::emptyGzip;
using test_support::emptyZlib;
using test_support::gzip;
using test_support::noise;
using test_support::rawDeflate;
using test_support::zlib;

constexpr const char* ioError = "Error processing response stream: I/O error";
constexpr const char* seriousError = "Error processing response stream: Serious I/O error";

// What the peer sends, and how its side of the connection ends.
class Peer final : public ByteSource {
 public:
  enum class End { Closes, Resets };
  explicit Peer(std::string bytes, End end = End::Closes) : _bytes(std::move(bytes)), _end(end) {}

  std::size_t receive(char* data, std::size_t size) override {
    if (_at == _bytes.size() && _end == End::Resets) throw Poco::IOException("reset");
    const std::size_t count = std::min(size, _bytes.size() - _at);
    std::memcpy(data, _bytes.data() + _at, count);
    _at += count;
    return count;
  }

 private:
  const std::string _bytes;
  const End _end;
  std::size_t _at = 0;
};

std::string chunked(const std::string& bytes, const std::string& last = "0\r\n\r\n") {
  std::ostringstream text;
  if (!bytes.empty()) text << std::hex << bytes.size() << "\r\n" << bytes << "\r\n";
  text << last;
  return text.str();
}

// One response on its way into memory.
class Reading {
 public:
  // A body of announced length, all of which arrives.
  explicit Reading(const std::string& bytes)
      : Reading(bytes, Framing::Length, static_cast<std::int64_t>(bytes.size())) {}
  Reading(const std::string& bytes, Framing framing, std::int64_t length = 0,
          Peer::End end = Peer::End::Closes)
      : _peer(bytes, end), _body(_input) {
    _input.attach(&_peer);
    _body.begin(framing, length);
  }

  Reading& coding(const std::string& name) { return header("Content-Encoding", name); }
  Reading& header(const std::string& name, const std::string& value) {
    _head.addField(name, value);
    return *this;
  }
  Reading& limit(long long kilobytes, const std::string& policy) {
    _limit = {kilobytes, policy};
    return *this;
  }

  std::string deliver() {
    const ReadBody read = processResponse(
        _head, _body, _buffer, _limit, [this](const std::string& line) { _lines.push_back(line); });
    _leftUnread = read.leftUnread;
    return {_buffer.data(), read.size};
  }
  std::string failure() {
    try {
      deliver();
    } catch (const orrery::StreamException& exception) {
      return exception.what();
    }
    return "no failure";
  }

  const ResponseBody& body() const { return _body; }
  const std::vector<std::string>& lines() const { return _lines; }
  bool leftUnread() const { return _leftUnread; }

 private:
  ResponseHead _head;
  Peer _peer;
  InputBuffer _input;
  ResponseBody _body;
  std::vector<char> _buffer;
  std::vector<std::string> _lines;
  ResponseLimit _limit{-1, "REJECT"};
  bool _leftUnread = false;
};

// --- the character set --------------------------------------------------------------------------

TEST(ResponseReading, CharsetSwitchesTheTrimmingOfCutCharacters) {
  const std::string text = std::string(998, 'x') + "\xC3\xA4" + "more";
  const auto deliver = [&](const std::string& contentType) {
    return Reading(text).header("Content-Type", contentType).limit(1, "TRUNCATE_END").deliver();
  };
  EXPECT_EQ(deliver("text/plain; charset=utf-8"), text.substr(0, 998) + "[TRUNCATED]");
  EXPECT_EQ(deliver("text/plain; charset=utf8"), text.substr(0, 1000) + "[TRUNCATED]");
  EXPECT_EQ(deliver("application/json"), text.substr(0, 1000) + "[TRUNCATED]");
  EXPECT_EQ(Reading(text).limit(1, "TRUNCATE_END").deliver(), text.substr(0, 998) + "[TRUNCATED]");
}

// --- codings ------------------------------------------------------------------------------------

TEST(ResponseReading, BodyWithoutCodingIsDeliveredAsItIs) {
  const std::string text = noise(250000);
  EXPECT_EQ(Reading(text).deliver(), text);
  EXPECT_EQ(Reading(text).coding("identity").deliver(), text);
  EXPECT_EQ(Reading(text).coding("empty").deliver(), text);
  EXPECT_EQ(Reading(chunked(text), Framing::Chunked).deliver(), text);
  EXPECT_EQ(Reading(text, Framing::UntilClose).deliver(), text);
}

TEST(ResponseReading, CodedBodyIsDecoded) {
  for (const std::size_t size : {1U, 17U, 102400U, 102401U, 1000000U}) {
    const std::string text = noise(size);
    EXPECT_EQ(Reading(gzip(text)).coding("gzip").deliver(), text) << size;
    EXPECT_EQ(Reading(zlib(text)).coding("deflate").deliver(), text) << size;
    EXPECT_EQ(Reading(chunked(gzip(text)), Framing::Chunked).coding("gzip").deliver(), text);
    EXPECT_EQ(Reading(gzip(text), Framing::UntilClose).coding("gzip").deliver(), text);
  }
}

TEST(ResponseReading, GzipOfSeveralMembersIsDecodedWhole) {
  const std::string first = noise(100000);
  EXPECT_EQ(Reading(gzip(first) + gzip("second") + emptyGzip).coding("gzip").deliver(),
            first + "second");
  EXPECT_EQ(Reading(gzip("first") + gzip("second").substr(0, 15)).coding("gzip").failure(),
            ioError);
}

TEST(ResponseReading, LimitCountsDecodedBytes) {
  const std::string text(5000, 'x');
  EXPECT_EQ(Reading(gzip(text)).coding("gzip").limit(1, "TRUNCATE_END").deliver(),
            text.substr(0, 1000) + "[TRUNCATED]");
  EXPECT_THROW(Reading(gzip(text)).coding("gzip").limit(1, "REJECT").deliver(),
               ResponseLimitExceeded);
}

TEST(ResponseReading, CodedBodyOfNothingIsEmpty) {
  EXPECT_EQ(Reading(emptyGzip).coding("gzip").deliver(), "");
  EXPECT_EQ(Reading(emptyZlib).coding("deflate").deliver(), "");
  EXPECT_EQ(Reading(emptyGzip).coding("gzip").limit(0, "REJECT").deliver(), "");
}

TEST(ResponseReading, BodyThatIsAnnouncedEmptyIsNotDecoded) {
  for (const char* coding : {"gzip", "deflate"}) {
    Reading headOnly("", Framing::None);
    EXPECT_EQ(headOnly.coding(coding).deliver(), "");
    EXPECT_EQ(Reading("").coding(coding).deliver(), "");
  }
}

TEST(ResponseReading, BodyThatIsFoundEmptyIsNotDecoded) {
  Reading chunks(chunked(""), Framing::Chunked);
  EXPECT_EQ(chunks.coding("gzip").deliver(), "");
  EXPECT_TRUE(chunks.body().complete());
  EXPECT_EQ(Reading("", Framing::UntilClose).coding("deflate").deliver(), "");
}

TEST(ResponseReading, UnsupportedCodingIsDeliveredAsItsTextAndReported) {
  Reading brotli(noise(1000));
  EXPECT_EQ(brotli.coding("br").deliver(), "Unsupported Media Type: br");
  EXPECT_EQ(brotli.lines(), std::vector<std::string>{"Unsupported Media Type: br"});
  EXPECT_TRUE(brotli.leftUnread());
  EXPECT_FALSE(brotli.body().complete()) << "the session must not use the connection again";
}

TEST(ResponseReading, BodyThatIsReadIsNotLeftUnread) {
  Reading plain("text");
  plain.deliver();
  EXPECT_FALSE(plain.leftUnread());
  EXPECT_TRUE(plain.lines().empty());
  Reading coded(gzip("text"));
  coded.coding("gzip").deliver();
  EXPECT_FALSE(coded.leftUnread());
}

TEST(ResponseReading, TextOfAnUnsupportedCodingIsUtf8) {
  Reading odd("text");
  EXPECT_EQ(odd.coding("caf\xE9").deliver(), "Unsupported Media Type: caf\u00e9");
}

TEST(ResponseReading, EncodedWordIsNoCoding) {
  EXPECT_EQ(Reading(gzip("text")).coding("=?us-ascii?q?gzip?=").deliver(),
            "Unsupported Media Type: =?us-ascii?q?gzip?=");
}

TEST(ResponseReading, CodingInUpperCaseIsUnsupported) {
  EXPECT_EQ(Reading(gzip("text")).coding("GZIP").deliver(), "Unsupported Media Type: GZIP");
  EXPECT_EQ(Reading("text").coding("").deliver(), "Unsupported Media Type: ");
  EXPECT_EQ(Reading("text").coding("gzip, gzip").deliver(), "Unsupported Media Type: gzip, gzip");
}

TEST(ResponseReading, TextOfAnUnsupportedCodingIsHeldToTheLimitToo) {
  EXPECT_EQ(Reading("x").coding("br").limit(0, "TRUNCATE_END").deliver(), "[TRUNCATED]");
  EXPECT_THROW(Reading("x").coding("br").limit(0, "REJECT").deliver(), ResponseLimitExceeded);
}

// --- bodies that break off ----------------------------------------------------------------------

TEST(ResponseReading, BodyShorterThanAnnouncedIsAFailureWhereverItsEndIsWanted) {
  for (const char* policy : {"REJECT", "TRUNCATE_END", "TRUNCATE_START"}) {
    for (const std::size_t arrived : {0U, 500U, 1500U, 150000U}) {
      for (const long long kilobytes : {-1, 1, 500}) {
        Reading exchange(noise(arrived), Framing::Length, 200000);
        exchange.limit(kilobytes, policy);
        const bool cut = kilobytes == 1 && arrived >= 1000;
        if (cut && std::string(policy) == "REJECT") {
          EXPECT_THROW(exchange.deliver(), ResponseLimitExceeded);
        } else if (cut && std::string(policy) == "TRUNCATE_END") {
          EXPECT_EQ(exchange.failure(), "no failure") << "the rest is not read";
        } else {
          EXPECT_EQ(exchange.failure(), ioError) << policy << " " << arrived << " " << kilobytes;
        }
      }
    }
  }
}

TEST(ResponseReading, BodyWithoutItsLastChunkIsAFailure) {
  EXPECT_EQ(Reading(chunked("text", ""), Framing::Chunked).failure(), ioError);
  EXPECT_EQ(Reading(chunked(gzip("text"), ""), Framing::Chunked).coding("gzip").failure(), ioError);
}

TEST(ResponseReading, MalformedChunkIsAFailure) {
  EXPECT_EQ(Reading("zz\r\ntext", Framing::Chunked).failure(), ioError);
}

TEST(ResponseReading, ConnectionThatFailsIsASeriousFailure) {
  for (const char* coding : {"identity", "gzip"}) {
    for (const std::size_t arrived : {0U, 5U, 15U, 50000U}) {
      Reading exchange(gzip(noise(100000)).substr(0, arrived), Framing::Length, 100000,
                       Peer::End::Resets);
      EXPECT_EQ(exchange.coding(coding).failure(), seriousError) << coding << " " << arrived;
    }
  }
}

TEST(ResponseReading, CorruptCodingIsASeriousFailure) {
  std::string damaged = gzip(noise(5000));
  damaged[2500] = static_cast<char>(~damaged[2500]);
  EXPECT_EQ(Reading(damaged).coding("gzip").failure(), seriousError);
  EXPECT_EQ(Reading("this is plain text").coding("gzip").failure(), seriousError);
  EXPECT_EQ(Reading("this is plain text").coding("deflate").failure(), seriousError);
  EXPECT_EQ(Reading(gzip("text")).coding("deflate").failure(), seriousError);
}

// Some servers send deflate's bytes without zlib's format around them.
TEST(ResponseReading, DeflateWithoutItsFrameIsDecoded) {
  for (const std::size_t size : {1U, 500U, 200000U}) {
    const std::string text = noise(size);
    EXPECT_EQ(Reading(rawDeflate(text)).coding("deflate").deliver(), text) << size;
    EXPECT_EQ(Reading(chunked(rawDeflate(text)), Framing::Chunked).coding("deflate").deliver(),
              text);
  }
  EXPECT_EQ(Reading(rawDeflate(noise(500))).coding("gzip").failure(), seriousError);
}

TEST(ResponseReading, CodingThatBreaksOffAnywhereIsAFailure) {
  for (const std::string& text : {std::string("some text"), std::string(), noise(2000)}) {
    for (const char* coding : {"gzip", "deflate"}) {
      std::string whole = coding[0] == 'g' ? gzip(text) : zlib(text);
      if (text.empty()) whole = coding[0] == 'g' ? emptyGzip : emptyZlib;
      for (std::size_t cut = 1; cut < whole.size(); ++cut) {
        EXPECT_EQ(Reading(whole.substr(0, cut)).coding(coding).failure(), ioError)
            << coding << " of " << text.size() << " bytes cut at " << cut;
      }
    }
  }
}

// --- what is left of a message ------------------------------------------------------------------

TEST(ResponseReading, WhatIsBehindACodedBodyIsLeftToTheSession) {
  Reading trailing(gzip("text") + noise(200000));
  EXPECT_EQ(trailing.coding("gzip").deliver(), "text");
  EXPECT_FALSE(trailing.body().complete());
  EXPECT_FALSE(trailing.leftUnread()) << "the session may read past it";
}

TEST(ResponseReading, WhatIsBehindALimitIsLeftToTheSession) {
  const std::string text(300000, 'x');
  for (const char* coding : {"identity", "gzip"}) {
    const std::string bytes = coding[0] == 'g' ? gzip(noise(300000)) : text;
    Reading rejected(bytes);
    EXPECT_THROW(rejected.coding(coding).limit(1, "REJECT").deliver(), ResponseLimitExceeded);
    EXPECT_FALSE(rejected.body().complete());
    Reading cut(chunked(bytes), Framing::Chunked);
    EXPECT_TRUE(cut.coding(coding).limit(1, "TRUNCATE_END").deliver().ends_with("[TRUNCATED]"));
    EXPECT_FALSE(cut.body().complete());
  }
}

TEST(ResponseReading, BodyWhoseEndIsWantedIsReadToItsEnd) {
  const std::string text(300000, 'x');
  Reading announced(text);
  announced.limit(1, "TRUNCATE_START").deliver();
  EXPECT_TRUE(announced.body().complete());
  Reading chunks(chunked(text, "0\r\nX-Trailer: x\r\n\r\n"), Framing::Chunked);
  chunks.limit(1, "TRUNCATE_START").deliver();
  EXPECT_TRUE(chunks.body().complete());
}

}  // namespace
}  // namespace connectivity::plugins
