// Decoding, byte by byte and at once; what breaks off, and what is corrupt.
#include "plugins/http_client/response/Inflating.hpp"

#include <algorithm>
#include <istream>
#include <iterator>
#include <sstream>
#include <stdexcept>
#include <streambuf>
#include <string>

#include <gtest/gtest.h>

#include "tests/support/Coders.hpp"

namespace connectivity::plugins {
namespace {

using test_support::emptyGzip;
using test_support::emptyZlib;
using test_support::gzip;
using test_support::noise;
using test_support::rawDeflate;
using test_support::zlib;

using Coding = SupportedMediaType;

// What comes of coded bytes.
struct Decoded {
  std::string text;
  bool brokeOff = false;
  bool bad = false;
};

// `step`: bytes that are asked for at a time.
Decoded decode(const std::string& bytes, Coding coding, std::size_t step = 100000) {
  std::stringbuf source(bytes, std::ios::in);
  InflatingBuffer decoder(source, coding);
  std::istream stream(&decoder);
  Decoded decoded;
  std::string buffer(step, '\0');
  while (stream.good()) {
    stream.read(buffer.data(), static_cast<std::streamsize>(step));
    decoded.text.append(buffer, 0, static_cast<std::size_t>(stream.gcount()));
  }
  decoded.brokeOff = decoder.brokeOff();
  decoded.bad = stream.bad();
  return decoded;
}

void expectWhole(const Decoded& decoded, const std::string& text) {
  EXPECT_TRUE(decoded.text == text) << decoded.text.size() << " of " << text.size() << " bytes";
  EXPECT_FALSE(decoded.brokeOff);
  EXPECT_FALSE(decoded.bad);
}

TEST(Inflating, DecodesInWhateverStepsItIsRead) {
  const std::string text = noise(70000);
  for (const std::size_t step : {1U, 7U, 4096U, 65536U, 100000U}) {
    expectWhole(decode(gzip(text), Coding::gzip, step), text);
    expectWhole(decode(zlib(text), Coding::deflate, step), text);
    expectWhole(decode(rawDeflate(text), Coding::deflate, step), text);
  }
}

TEST(Inflating, DecodesSingleCharactersAndBlocksInTurn) {
  const std::string text = noise(20000);
  std::stringbuf source(gzip(text), std::ios::in);
  InflatingBuffer decoder(source, Coding::gzip);
  std::istream stream(&decoder);
  std::string read;
  std::string block(3000, '\0');
  while (stream.good()) {
    const int c = stream.get();
    if (c < 0) break;
    read.push_back(static_cast<char>(c));
    EXPECT_EQ(stream.peek() < 0, read.size() == text.size());
    stream.read(block.data(), static_cast<std::streamsize>(block.size()));
    read.append(block, 0, static_cast<std::size_t>(stream.gcount()));
  }
  EXPECT_TRUE(read == text);
}

TEST(Inflating, SkipsWhatIsIgnored) {
  const std::string text = noise(20000);
  std::stringbuf source(gzip(text), std::ios::in);
  InflatingBuffer decoder(source, Coding::gzip);
  std::istream stream(&decoder);
  stream.ignore(15000);
  EXPECT_TRUE(std::string(std::istreambuf_iterator<char>(stream), {}) == text.substr(15000));
}

TEST(Inflating, DecodesMuchFromLittle) {
  const std::string text(10'000'000, 'x');
  expectWhole(decode(gzip(text), Coding::gzip), text);
}

TEST(Inflating, DecodesEveryMemberOfAGzip) {
  const std::string text = noise(40000);
  expectWhole(decode(gzip(text) + emptyGzip + gzip("second"), Coding::gzip), text + "second");
}

TEST(Inflating, IgnoresBytesBehindTheContent) {
  expectWhole(decode(gzip("text") + "more", Coding::gzip), "text");
  expectWhole(decode(gzip("text") + std::string(100000, '\0'), Coding::gzip), "text");
  expectWhole(decode(zlib("text") + zlib("second"), Coding::deflate), "text");
  expectWhole(decode(rawDeflate("text") + "more", Coding::deflate), "text");
}

TEST(Inflating, DecodesContentOfNothing) {
  expectWhole(decode(emptyGzip, Coding::gzip), "");
  expectWhole(decode(emptyZlib, Coding::deflate), "");
}

TEST(Inflating, TellsThatContentBreaksOffWhereverItDoes) {
  const std::string text = noise(500);
  for (const Coding coding : {Coding::gzip, Coding::deflate}) {
    const std::string whole = coding == Coding::gzip ? gzip(text) : zlib(text);
    for (std::size_t cut = 0; cut < whole.size(); ++cut) {
      const Decoded decoded = decode(whole.substr(0, cut), coding);
      EXPECT_TRUE(decoded.brokeOff) << cut;
      EXPECT_FALSE(decoded.bad) << cut;
      EXPECT_TRUE(text.starts_with(decoded.text)) << cut;
    }
  }
}

// The header of zlib's format is told by its method and its check (RFC 1950, 2.2).
TEST(Inflating, TakesForZlibWhatHasItsHeaderAlone) {
  const std::string raw = rawDeflate(std::string(100, 'a'));
  expectWhole(decode(raw, Coding::deflate), std::string(100, 'a'));
  for (const int level : {1, 6, 9}) {
    std::ostringstream out;
    Poco::DeflatingOutputStream deflating(out, Poco::DeflatingStreamBuf::STREAM_ZLIB, level);
    deflating << "text";
    deflating.close();
    expectWhole(decode(out.str(), Coding::deflate), "text");
  }
}

TEST(Inflating, TurnsTheStreamBadWhereTheContentIsCorrupt) {
  EXPECT_TRUE(decode("this is plain text", Coding::gzip).bad);
  EXPECT_TRUE(decode("this is plain text", Coding::deflate).bad);
  std::string damaged = gzip(noise(5000));
  damaged[damaged.size() - 6] = static_cast<char>(~damaged[damaged.size() - 6]);
  const Decoded decoded = decode(damaged, Coding::gzip);
  EXPECT_TRUE(decoded.bad) << "its checksum is wrong";
  EXPECT_FALSE(decoded.brokeOff);
}

class FailingBuffer final : public std::streambuf {
 protected:
  int_type underflow() override { throw std::runtime_error("reset"); }
};

TEST(Inflating, TurnsTheStreamBadWhereItsSourceFails) {
  FailingBuffer source;
  InflatingBuffer decoder(source, Coding::gzip);
  std::istream stream(&decoder);
  EXPECT_EQ(stream.get(), std::char_traits<char>::eof());
  EXPECT_TRUE(stream.bad());
  EXPECT_FALSE(decoder.brokeOff());
}

}  // namespace
}  // namespace connectivity::plugins
