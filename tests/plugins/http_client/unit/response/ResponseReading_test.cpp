#include "plugins/http_client/response/ResponseReading.hpp"

#include <algorithm>
#include <cstring>
#include <optional>
#include <random>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include <Poco/DeflatingStream.h>
#include <Poco/Exception.h>
#include <gtest/gtest.h>

#include "orrery/Exception.hpp"
#include "plugins/http_client/text/MediaTypes.hpp"
#include "plugins/http_client/wire/ResponseBody.hpp"

namespace connectivity::plugins {
namespace {

using Poco::DeflatingStreamBuf;

constexpr const char* ioError = "Error processing response stream: I/O error";
constexpr const char* seriousError = "Error processing response stream: Serious I/O error";

std::string coded(const std::string& text, DeflatingStreamBuf::StreamType type) {
  std::ostringstream out;
  Poco::DeflatingOutputStream deflating(out, type);
  // Without a byte written the stream would not write its frame either.
  deflating.write(text.data(), static_cast<std::streamsize>(text.size()));
  deflating.close();
  return out.str();
}
std::string gzip(const std::string& text) { return coded(text, DeflatingStreamBuf::STREAM_GZIP); }
std::string zlib(const std::string& text) { return coded(text, DeflatingStreamBuf::STREAM_ZLIB); }

const std::string emptyGzip("\x1F\x8B\x08\x00\x00\x00\x00\x00\x00\x03\x03\x00\0\0\0\0\0\0\0\0", 20);
const std::string emptyZlib("\x78\x9C\x03\x00\x00\x00\x00\x01", 8);

std::string noise(std::size_t count) {
  std::mt19937 generator(17);
  std::string text(count, '\0');
  for (char& c : text) c = static_cast<char>(generator());
  return text;
}

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

// One response on its way through readResponse.
class Exchange {
 public:
  // A body of announced length, all of which arrives.
  explicit Exchange(const std::string& bytes)
      : Exchange(bytes, Framing::Length, static_cast<std::int64_t>(bytes.size())) {}
  Exchange(const std::string& bytes, Framing framing, std::int64_t length = 0,
           Peer::End end = Peer::End::Closes)
      : _peer(bytes, end), _body(_input) {
    _input.attach(&_peer);
    _body.begin(framing, length);
  }

  Exchange& coding(const std::string& name) { return header("Content-Encoding", name); }
  Exchange& header(const std::string& name, const std::string& value) {
    _response.set(name, value);
    return *this;
  }
  Exchange& limit(long long kilobytes, const std::string& policy) {
    _kilobytes = kilobytes;
    _policy = policy;
    return *this;
  }

  std::string deliver() {
    const unsigned int count =
        readResponse(_response, _body, _buffer, _kilobytes, _policy,
                     [this](const std::string& line) { _lines.push_back(line); });
    return {_buffer.data(), count};
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
  std::vector<char>& buffer() { return _buffer; }

 private:
  Poco::Net::HTTPResponse _response;
  Peer _peer;
  InputBuffer _input;
  ResponseBody _body;
  std::vector<char> _buffer;
  std::vector<std::string> _lines;
  long long _kilobytes = -1;
  std::string _policy = "REJECT";
};

// --- the character set --------------------------------------------------------------------------

TEST(ResponseReading, CharsetSwitchesTheTrimmingOfCutCharacters) {
  const std::string text = std::string(998, 'x') + "\xC3\xA4" + "more";
  const auto deliver = [&](const std::string& contentType) {
    return Exchange(text).header("Content-Type", contentType).limit(1, "TRUNCATE_END").deliver();
  };
  EXPECT_EQ(deliver("text/plain; charset=utf-8"), text.substr(0, 998) + "[TRUNCATED]");
  EXPECT_EQ(deliver("text/plain; charset=utf8"), text.substr(0, 1000) + "[TRUNCATED]");
  EXPECT_EQ(deliver("application/json"), text.substr(0, 1000) + "[TRUNCATED]");
  EXPECT_EQ(Exchange(text).limit(1, "TRUNCATE_END").deliver(), text.substr(0, 998) + "[TRUNCATED]");
}

// --- codings ------------------------------------------------------------------------------------

TEST(ResponseReading, BodyWithoutCodingIsDeliveredAsItIs) {
  const std::string text = noise(250000);
  EXPECT_EQ(Exchange(text).deliver(), text);
  EXPECT_EQ(Exchange(text).coding("identity").deliver(), text);
  EXPECT_EQ(Exchange(text).coding("empty").deliver(), text);
  EXPECT_EQ(Exchange(chunked(text), Framing::Chunked).deliver(), text);
  EXPECT_EQ(Exchange(text, Framing::UntilClose).deliver(), text);
}

TEST(ResponseReading, CodedBodyIsDecoded) {
  for (const std::size_t size : {1U, 17U, 102400U, 102401U, 1000000U}) {
    const std::string text = noise(size);
    EXPECT_EQ(Exchange(gzip(text)).coding("gzip").deliver(), text) << size;
    EXPECT_EQ(Exchange(zlib(text)).coding("deflate").deliver(), text) << size;
    EXPECT_EQ(Exchange(chunked(gzip(text)), Framing::Chunked).coding("gzip").deliver(), text);
    EXPECT_EQ(Exchange(gzip(text), Framing::UntilClose).coding("gzip").deliver(), text);
  }
}

TEST(ResponseReading, GzipOfSeveralMembersIsDecodedWhole) {
  const std::string first = noise(100000);
  EXPECT_EQ(Exchange(gzip(first) + gzip("second") + emptyGzip).coding("gzip").deliver(),
            first + "second");
  EXPECT_EQ(Exchange(gzip("first") + gzip("second").substr(0, 15)).coding("gzip").failure(),
            ioError);
}

TEST(ResponseReading, LimitCountsDecodedBytes) {
  const std::string text(5000, 'x');
  EXPECT_EQ(Exchange(gzip(text)).coding("gzip").limit(1, "TRUNCATE_END").deliver(),
            text.substr(0, 1000) + "[TRUNCATED]");
  EXPECT_THROW(Exchange(gzip(text)).coding("gzip").limit(1, "REJECT").deliver(),
               ResponseLimitExceeded);
}

TEST(ResponseReading, CodedBodyOfNothingIsEmpty) {
  EXPECT_EQ(Exchange(emptyGzip).coding("gzip").deliver(), "");
  EXPECT_EQ(Exchange(emptyZlib).coding("deflate").deliver(), "");
  EXPECT_EQ(Exchange(emptyGzip).coding("gzip").limit(0, "REJECT").deliver(), "");
}

TEST(ResponseReading, BodyThatIsAnnouncedEmptyIsNotDecoded) {
  for (const char* coding : {"gzip", "deflate"}) {
    Exchange headOnly("", Framing::None);
    EXPECT_EQ(headOnly.coding(coding).deliver(), "");
    EXPECT_EQ(Exchange("").coding(coding).deliver(), "");
  }
}

TEST(ResponseReading, BodyThatIsFoundEmptyIsNotDecoded) {
  Exchange chunks(chunked(""), Framing::Chunked);
  EXPECT_EQ(chunks.coding("gzip").deliver(), "");
  EXPECT_TRUE(chunks.body().complete());
  EXPECT_EQ(Exchange("", Framing::UntilClose).coding("deflate").deliver(), "");
}

TEST(ResponseReading, UnsupportedCodingIsDeliveredAsItsTextAndReported) {
  Exchange brotli(noise(1000));
  EXPECT_EQ(brotli.coding("br").deliver(), "Unsupported Media Type: br");
  EXPECT_EQ(brotli.lines(), std::vector<std::string>{"Unsupported Media Type: br"});
  EXPECT_FALSE(brotli.body().complete()) << "the session must not use the connection again";
}

TEST(ResponseReading, CodingInUpperCaseIsUnsupported) {
  EXPECT_EQ(Exchange(gzip("text")).coding("GZIP").deliver(), "Unsupported Media Type: GZIP");
  EXPECT_EQ(Exchange("text").coding("").deliver(), "Unsupported Media Type: ");
  EXPECT_EQ(Exchange("text").coding("gzip, gzip").deliver(), "Unsupported Media Type: gzip, gzip");
}

TEST(ResponseReading, TextOfAnUnsupportedCodingIsHeldToTheLimitToo) {
  EXPECT_EQ(Exchange("x").coding("br").limit(0, "TRUNCATE_END").deliver(), "[TRUNCATED]");
  EXPECT_THROW(Exchange("x").coding("br").limit(0, "REJECT").deliver(), ResponseLimitExceeded);
}

// --- bodies that break off ----------------------------------------------------------------------

TEST(ResponseReading, BodyShorterThanAnnouncedIsAFailureUnderEveryPolicy) {
  for (const char* policy : {"REJECT", "TRUNCATE_END", "TRUNCATE_START"}) {
    for (const std::size_t arrived : {0U, 500U, 1500U, 150000U}) {
      for (const long long kilobytes : {-1, 1, 500}) {
        Exchange exchange(noise(arrived), Framing::Length, 200000);
        exchange.limit(kilobytes, policy);
        if (std::string(policy) == "REJECT" && kilobytes == 1 && arrived >= 1000) {
          EXPECT_THROW(exchange.deliver(), ResponseLimitExceeded);
        } else {
          EXPECT_EQ(exchange.failure(), ioError) << policy << " " << arrived << " " << kilobytes;
        }
      }
    }
  }
}

TEST(ResponseReading, BodyWithoutItsLastChunkIsAFailure) {
  EXPECT_EQ(Exchange(chunked("text", ""), Framing::Chunked).failure(), ioError);
  EXPECT_EQ(Exchange(chunked(gzip("text"), ""), Framing::Chunked).coding("gzip").failure(),
            ioError);
}

TEST(ResponseReading, MalformedChunkIsAFailure) {
  EXPECT_EQ(Exchange("zz\r\ntext", Framing::Chunked).failure(), ioError);
}

TEST(ResponseReading, ConnectionThatFailsIsASeriousFailure) {
  for (const char* coding : {"identity", "gzip"}) {
    for (const std::size_t arrived : {0U, 5U, 15U, 50000U}) {
      Exchange exchange(gzip(noise(100000)).substr(0, arrived), Framing::Length, 100000,
                        Peer::End::Resets);
      EXPECT_EQ(exchange.coding(coding).failure(), seriousError) << coding << " " << arrived;
    }
  }
}

TEST(ResponseReading, CorruptCodingIsASeriousFailure) {
  std::string damaged = gzip(noise(5000));
  damaged[2500] = static_cast<char>(~damaged[2500]);
  EXPECT_EQ(Exchange(damaged).coding("gzip").failure(), seriousError);
  EXPECT_EQ(Exchange("this is plain text").coding("gzip").failure(), seriousError);
  EXPECT_EQ(Exchange(gzip("text")).coding("deflate").failure(), seriousError);
}

// Some servers send deflate's bytes without the zlib format around them.
TEST(ResponseReading, DeflateWithoutItsFrameIsASeriousFailure) {
  const std::string framed = zlib(std::string(500, 'x'));
  constexpr std::size_t header = 2;
  constexpr std::size_t checksum = 4;
  const std::string raw = framed.substr(header, framed.size() - header - checksum);
  EXPECT_EQ(Exchange(raw).coding("deflate").failure(), seriousError);
}

TEST(ResponseReading, CodingThatBreaksOffAnywhereIsAFailure) {
  for (const std::string& text : {std::string("some text"), std::string(), noise(2000)}) {
    for (const char* coding : {"gzip", "deflate"}) {
      std::string whole = coding[0] == 'g' ? gzip(text) : zlib(text);
      if (text.empty()) whole = coding[0] == 'g' ? emptyGzip : emptyZlib;
      for (std::size_t cut = 1; cut < whole.size(); ++cut) {
        EXPECT_EQ(Exchange(whole.substr(0, cut)).coding(coding).failure(), ioError)
            << coding << " of " << text.size() << " bytes cut at " << cut;
      }
    }
  }
}

// --- what is left of a message ------------------------------------------------------------------

// The decoder never sees the end of such a body by itself.
TEST(ResponseReading, LastChunkBehindACodedBodyIsConsumed) {
  std::string whole;
  for (std::size_t size = 32600; whole.size() != 32768 && size < 32768; ++size) {
    whole = gzip(noise(size));
  }
  ASSERT_EQ(whole.size(), 32768U);
  Exchange exchange(chunked(whole, "0\r\nX-Trailer: x\r\n\r\n"), Framing::Chunked);
  EXPECT_GT(exchange.coding("gzip").deliver().size(), 32000U);
  EXPECT_TRUE(exchange.body().complete());
}

TEST(ResponseReading, FewBytesBehindACodedBodyAreConsumed) {
  Exchange exchange(gzip("text") + "trailing bytes");
  EXPECT_EQ(exchange.coding("gzip").deliver(), "text");
  EXPECT_TRUE(exchange.body().complete());
}

TEST(ResponseReading, ManyBytesBehindACodedBodyAreLeftToTheSession) {
  Exchange exchange(gzip("text") + noise(200000));
  EXPECT_EQ(exchange.coding("gzip").deliver(), "text");
  EXPECT_FALSE(exchange.body().complete());
}

TEST(ResponseReading, RejectedBodyIsConsumedWhateverItsCoding) {
  const std::string text(300000, 'x');
  Exchange plain(text);
  EXPECT_THROW(plain.limit(1, "REJECT").deliver(), ResponseLimitExceeded);
  EXPECT_TRUE(plain.body().complete());
  Exchange coded(chunked(gzip(text)), Framing::Chunked);
  EXPECT_THROW(coded.coding("gzip").limit(1, "REJECT").deliver(), ResponseLimitExceeded);
  EXPECT_TRUE(coded.body().complete());
}

TEST(ResponseReading, TruncatedBodyIsConsumedWhateverItsFraming) {
  const std::string text(300000, 'x');
  for (const char* policy : {"TRUNCATE_END", "TRUNCATE_START"}) {
    Exchange announced(text);
    announced.limit(1, policy).deliver();
    EXPECT_TRUE(announced.body().complete()) << policy;
    Exchange chunks(chunked(text), Framing::Chunked);
    chunks.limit(1, policy).deliver();
    EXPECT_TRUE(chunks.body().complete()) << policy;
  }
}

// --- the buffer ---------------------------------------------------------------------------------

TEST(ResponseReading, BufferOfAVeryLargeResponseIsGivenBack) {
  Exchange exchange("small");
  exchange.buffer().resize(64U << 20U);
  EXPECT_EQ(exchange.deliver(), "small");
  EXPECT_LT(exchange.buffer().capacity(), 1U << 20U);
}

}  // namespace
}  // namespace connectivity::plugins
