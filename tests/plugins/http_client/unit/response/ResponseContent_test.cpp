// The size policies, to the last byte.
#include "plugins/http_client/response/ResponseContent.hpp"

#include <algorithm>
#include <cstdint>
#include <limits>
#include <sstream>
#include <stdexcept>
#include <streambuf>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "orrery/Exception.hpp"

namespace connectivity::plugins {
namespace {

const std::string marker = "[TRUNCATED]";
const std::string twoByteCharacter = "\xC3\xA4";
const std::string threeByteCharacter = "\xE2\x82\xAC";

std::string zeros(std::size_t count) { return std::string(count, '\0'); }

std::string deliver(std::istream& body, std::vector<char>& buffer, long long kilobytes,
                    const std::string& policy, const std::string& charset) {
  const unsigned int count = readResponseContent(body, buffer, charset, kilobytes, policy);
  return {buffer.data(), count};
}

std::string deliver(const std::string& text, long long kilobytes, const std::string& policy,
                    const std::string& charset = "utf-8") {
  std::istringstream body(text);
  std::vector<char> buffer;
  return deliver(body, buffer, kilobytes, policy, charset);
}

std::string failureOf(std::istream& body, long long kilobytes = -1,
                      const std::string& policy = "REJECT") {
  std::vector<char> buffer;
  try {
    deliver(body, buffer, kilobytes, policy, "utf-8");
  } catch (const orrery::StreamException& failure) {
    return failure.what();
  }
  return "no failure";
}

// Bytes that differ from their neighbours and hold no line feed.
std::string lineOf(std::size_t count) {
  std::string text(count, '\0');
  for (std::size_t i = 0; i < count; ++i) text[i] = static_cast<char>('a' + i * 7 % 23);
  return text;
}

// "....\n....\n", each line so long with its line feed.
std::string linesOf(std::size_t count, std::size_t lineLength) {
  std::string text = lineOf(count);
  for (std::size_t i = lineLength; i <= count; i += lineLength) text[i - 1] = '\n';
  return text;
}

// Hands out its bytes and then throws, as a connection does that is reset.
class BreakingBuffer final : public std::streambuf {
 public:
  explicit BreakingBuffer(std::string bytes) : _bytes(std::move(bytes)) {
    setg(_bytes.data(), _bytes.data(), _bytes.data() + _bytes.size());
  }

 protected:
  int_type underflow() override { throw std::runtime_error("reset"); }

 private:
  std::string _bytes;
};

// The same megabyte for ever.
class EndlessBuffer final : public std::streambuf {
 protected:
  int_type underflow() override {
    setg(_block.data(), _block.data(), _block.data() + _block.size());
    return traits_type::to_int_type(*gptr());
  }

 private:
  std::string _block = std::string(1U << 20U, 'x');
};

// Remembers how far its reader has read into memory, and how far it has skipped.
class WatchedBuffer final : public std::streambuf {
 public:
  explicit WatchedBuffer(std::size_t size) : _left(size) {}
  std::size_t readIntoMemory() const { return _read; }
  std::size_t left() const { return _left; }

 protected:
  std::streamsize xsgetn(char* into, std::streamsize count) override {
    const std::size_t got = std::min(_left, static_cast<std::size_t>(count));
    std::fill_n(into, got, 'x');
    _left -= got;
    _read += got;
    return static_cast<std::streamsize>(got);
  }
  int_type underflow() override { return _left == 0 ? traits_type::eof() : 'x'; }
  int_type uflow() override {
    if (_left == 0) return traits_type::eof();
    --_left;
    return 'x';
  }

 private:
  std::size_t _left;
  std::size_t _read = 0;
};

// --- no limit -----------------------------------------------------------------------------------

TEST(ResponseContent, NegativeLimitReadsEverythingUnderEveryPolicy) {
  const std::string text = linesOf(250000, 80);
  for (const char* policy : {"REJECT", "TRUNCATE_END", "TRUNCATE_START", ""}) {
    EXPECT_EQ(deliver(text, -1, policy), text) << policy;
  }
}

TEST(ResponseContent, EmptyPolicyReadsEverythingWhateverTheLimit) {
  EXPECT_EQ(deliver(lineOf(5000), 1, ""), lineOf(5000));
  EXPECT_EQ(deliver(lineOf(5000), 0, ""), lineOf(5000));
}

TEST(ResponseContent, BodyWithinItsLimitIsUntouchedUnderEveryPolicy) {
  const std::string text = linesOf(999, 80);
  for (const char* policy : {"REJECT", "TRUNCATE_END", "TRUNCATE_START"}) {
    EXPECT_EQ(deliver(text, 1, policy), text) << policy;
    EXPECT_EQ(deliver("", 1, policy), "") << policy;
  }
}

TEST(ResponseContent, HugeLimitSaturatesRatherThanOverflows) {
  const std::string text = lineOf(150000);
  for (const char* policy : {"REJECT", "TRUNCATE_END", "TRUNCATE_START"}) {
    EXPECT_EQ(deliver(text, std::numeric_limits<long long>::max(), policy), text) << policy;
    EXPECT_EQ(deliver(text, std::numeric_limits<long long>::max() / 1000 + 1, policy), text);
  }
}

TEST(ResponseContent, KilobyteIsAThousandBytes) {
  EXPECT_EQ(deliver(lineOf(1999), 2, "REJECT").size(), 1999U);
  EXPECT_THROW(deliver(lineOf(2000), 2, "REJECT"), ResponseLimitExceeded);
}

// --- REJECT -------------------------------------------------------------------------------------

TEST(ResponseContent, RejectThrowsItsText) {
  try {
    deliver(lineOf(5000), 1, "REJECT");
    FAIL() << "not rejected";
  } catch (const ResponseLimitExceeded& exceeded) {
    EXPECT_STREQ(exceeded.what(),
                 "Response exceeded maxResponseKB, with maxResponsePolicy set to REJECT");
  }
}

TEST(ResponseContent, RejectDrainsTheBodyFirst) {
  std::istringstream body(lineOf(500000));
  std::vector<char> buffer;
  EXPECT_THROW(deliver(body, buffer, 1, "REJECT", "utf-8"), ResponseLimitExceeded);
  EXPECT_TRUE(body.eof());
}

// The last read is satisfied before the end of the body is seen.
TEST(ResponseContent, BodyOfExactlyTheLimitCountsAsExceeded) {
  EXPECT_THROW(deliver(lineOf(1000), 1, "REJECT"), ResponseLimitExceeded);
  EXPECT_EQ(deliver(lineOf(1000), 1, "TRUNCATE_END"), lineOf(1000) + marker);
}

TEST(ResponseContent, BodyOfExactlyALimitBeyondOneReadCountsAsExceeded) {
  for (const long long kilobytes : {103, 512, 205}) {  // 512,000 bytes are five reads
    const auto size = static_cast<std::size_t>(kilobytes) * 1000;
    EXPECT_THROW(deliver(lineOf(size), kilobytes, "REJECT"), ResponseLimitExceeded) << kilobytes;
    EXPECT_EQ(deliver(lineOf(size - 1), kilobytes, "REJECT"), lineOf(size - 1)) << kilobytes;
    EXPECT_EQ(deliver(lineOf(size + 1), kilobytes, "TRUNCATE_END"), lineOf(size) + marker);
  }
}

TEST(ResponseContent, NothingBeyondTheLimitIsReadIntoMemory) {
  for (const char* policy : {"REJECT", "TRUNCATE_END"}) {
    WatchedBuffer source(1000000);
    std::istream body(&source);
    std::vector<char> buffer;
    try {
      deliver(body, buffer, 150, policy, "utf-8");
    } catch (const ResponseLimitExceeded&) {
      EXPECT_STREQ(policy, "REJECT");
    }
    EXPECT_EQ(source.readIntoMemory(), 150000U) << policy;
    EXPECT_EQ(source.left(), 0U) << policy;
  }
}

// --- a limit of zero ----------------------------------------------------------------------------

TEST(ResponseContent, ZeroLimitTakesAnEmptyBody) {
  for (const char* policy : {"REJECT", "TRUNCATE_END", "TRUNCATE_START"}) {
    EXPECT_EQ(deliver("", 0, policy), "") << policy;
  }
}

TEST(ResponseContent, ZeroLimitRejectsOrReplacesAnyOtherBody) {
  EXPECT_THROW(deliver("x", 0, "REJECT"), ResponseLimitExceeded);
  EXPECT_EQ(deliver("x", 0, "TRUNCATE_END"), marker);
  EXPECT_EQ(deliver(lineOf(200000), 0, "TRUNCATE_END"), marker);
}

// --- TRUNCATE_END -------------------------------------------------------------------------------

TEST(ResponseContent, TruncateEndKeepsTheLimitOfOneLongLine) {
  const std::string delivered = deliver(lineOf(5000), 1, "TRUNCATE_END");
  EXPECT_EQ(delivered.size(), 1011U);
  EXPECT_EQ(delivered, lineOf(1000) + marker);
}

TEST(ResponseContent, TruncateEndCutsBeforeTheLastLineFeedWithinTheLimit) {
  EXPECT_EQ(deliver(linesOf(5000, 300), 1, "TRUNCATE_END"),
            linesOf(5000, 300).substr(0, 899) + marker);
}

TEST(ResponseContent, TruncateEndLeavesATextThatEndsWithALineFeed) {
  EXPECT_EQ(deliver(linesOf(5000, 100), 1, "TRUNCATE_END"), linesOf(1000, 100) + marker);
}

TEST(ResponseContent, TruncateEndLosesTheLastCharacterEvenWhereItIsComplete) {
  const std::string text = lineOf(998) + twoByteCharacter + "more";
  EXPECT_EQ(deliver(text, 1, "TRUNCATE_END"), lineOf(998) + marker);
}

TEST(ResponseContent, TruncateEndNeverLeavesAPartOfACharacter) {
  for (std::size_t within : {1U, 2U, 3U}) {
    const std::string text = lineOf(1000 - within) + threeByteCharacter + "more";
    EXPECT_EQ(deliver(text, 1, "TRUNCATE_END"), lineOf(1000 - within) + marker) << within;
  }
}

TEST(ResponseContent, TruncateEndKeepsEveryByteUnderAnotherCharset) {
  const std::string text = lineOf(999) + twoByteCharacter + "more";
  for (const char* charset : {"iso-8859-1", "ation/json", "UTF-8", "utf8", ""}) {
    EXPECT_EQ(deliver(text, 1, "TRUNCATE_END", charset), text.substr(0, 1000) + marker) << charset;
  }
}

TEST(ResponseContent, TruncateEndOfNothingButContinuationBytesLeavesTheMarker) {
  EXPECT_EQ(deliver(std::string(5000, '\x80'), 1, "TRUNCATE_END"), marker);
}

TEST(ResponseContent, TruncateEndMayCutAtTheVeryFirstByte) {
  EXPECT_EQ(deliver("\n" + lineOf(5000), 1, "TRUNCATE_END"), marker);
}

TEST(ResponseContent, TruncateEndCutsTheCharacterBeforeTheLineFeedToo) {
  const std::string text = lineOf(100) + twoByteCharacter + "\n" + lineOf(5000);
  EXPECT_EQ(deliver(text, 1, "TRUNCATE_END"), lineOf(100) + marker);
}

// What is left over then is the session's business.
TEST(ResponseContent, TruncateEndLeavesTheLoopThoughTheBodyHasNoEnd) {
  EndlessBuffer source;
  std::istream body(&source);
  std::vector<char> buffer;
  EXPECT_EQ(deliver(body, buffer, 1, "TRUNCATE_END", "utf-8"), std::string(1000, 'x') + marker);
  EXPECT_TRUE(body.good());
}

// --- TRUNCATE_START, where one read reaches both the limit and the end --------------------------
// The count is that of the dropped bytes, or follows from the length of the buffer, and zero bytes
// pad the payload up to it: the arithmetic is fixed, so these are its results.

TEST(ResponseContent, TruncateStartDeliversAsManyBytesAsItDropped) {
  const std::string text = lineOf(5000);
  EXPECT_EQ(deliver(text, 1, "TRUNCATE_START"), marker + text.substr(4000) + zeros(3000));
}

TEST(ResponseContent, TruncateStartDeliversLessThanItKeptWhereItDroppedLittle) {
  const std::string text = lineOf(1300);
  EXPECT_EQ(deliver(text, 1, "TRUNCATE_START"), marker + text.substr(300, 300));
}

TEST(ResponseContent, TruncateStartBeginsAtTheFirstLineFeedAndIsOneByteShortOfItsBuffer) {
  const std::string text = lineOf(4500) + "\n" + lineOf(499);
  const std::size_t bufferLength = 102400 - 4000;
  const std::size_t count = bufferLength - 500 - 1;
  EXPECT_EQ(deliver(text, 1, "TRUNCATE_START"), marker + "\n" + lineOf(499) + zeros(count - 500));
}

TEST(ResponseContent, TruncateStartKeepsALineFeedAtTheVeryFront) {
  const std::string text = lineOf(4000) + "\n" + lineOf(999);
  EXPECT_EQ(deliver(text, 1, "TRUNCATE_START"),
            marker + "\n" + lineOf(999) + zeros(102400 - 4000 - 1 - 1000));
}

// A body that ends exactly with a full read counts as ended there.
TEST(ResponseContent, TruncateStartOfOneFullReadHasABufferOfTheLimitAlone) {
  const std::string text = lineOf(responseChunkBytes);
  EXPECT_EQ(deliver(text, 1, "TRUNCATE_START"),
            marker + text.substr(responseChunkBytes - 1000) + zeros(101400 - 1000));
}

TEST(ResponseContent, TruncateStartOfOneFullReadLosesTheLastCharacterBehindALineFeed) {
  std::string text = lineOf(responseChunkBytes);
  text[responseChunkBytes - 600] = '\n';
  EXPECT_EQ(deliver(text, 1, "TRUNCATE_START"),
            marker + text.substr(responseChunkBytes - 600, 599));
}

TEST(ResponseContent, TruncateStartIgnoresALineFeedThatEndsTheBuffer) {
  std::string text = lineOf(responseChunkBytes);
  text.back() = '\n';
  EXPECT_EQ(deliver(text, 1, "TRUNCATE_START"),
            marker + text.substr(responseChunkBytes - 1000) + zeros(101400 - 1000));
}

TEST(ResponseContent, TruncateStartCountsOneMoreForEachContinuationByteThatItDrops) {
  const std::string text = lineOf(3999) + threeByteCharacter + lineOf(998);
  // 4000 bytes dropped, then the two continuation bytes at the front.
  EXPECT_EQ(deliver(text, 1, "TRUNCATE_START"), marker + lineOf(998) + zeros(4002 - 998));
  EXPECT_EQ(deliver(text, 1, "TRUNCATE_START", "iso-8859-1"),
            marker + text.substr(4000) + zeros(4000 - 1000));
}

TEST(ResponseContent, TruncateStartOfNothingButContinuationBytesIsAllZeros) {
  const std::string text(responseChunkBytes, '\x80');
  EXPECT_EQ(deliver(text, 1, "TRUNCATE_START"), marker + zeros(101400 + 1000));
}

TEST(ResponseContent, TruncateStartUnderZeroLimitIsAllZeros) {
  EXPECT_EQ(deliver("hello", 0, "TRUNCATE_START"), marker + zeros(5));
}

TEST(ResponseContent, TruncateStartLeavesABodyOfExactlyItsLimit) {
  EXPECT_EQ(deliver(lineOf(1000), 1, "TRUNCATE_START"), lineOf(1000));
}

TEST(ResponseContent, TruncateStartPassesALimitInItsSecondReadToo) {
  const std::string text = lineOf(150000 + 700);
  // 700 bytes dropped: 700 of those kept are delivered.
  EXPECT_EQ(deliver(text, 150, "TRUNCATE_START"), marker + text.substr(700, 700));
}

// --- TRUNCATE_START, where the body goes on -----------------------------------------------------

TEST(ResponseContent, TruncateStartKeepsTheWholeTailOfALongBody) {
  for (const std::size_t size : {102401U, 150000U, 204800U, 204801U, 1000000U}) {
    const std::string text = lineOf(size);
    EXPECT_EQ(deliver(text, 1, "TRUNCATE_START"), marker + text.substr(size - 1000)) << size;
    EXPECT_EQ(deliver(text, 100, "TRUNCATE_START"), marker + text.substr(size - 100000)) << size;
  }
}

TEST(ResponseContent, TruncateStartKeepsATailLongerThanOneRead) {
  for (const std::size_t size : {500000U, 512000U, 999999U, 1024000U}) {
    const std::string text = lineOf(size);
    EXPECT_EQ(deliver(text, 250, "TRUNCATE_START"), marker + text.substr(size - 250000)) << size;
  }
}

TEST(ResponseContent, TruncateStartOfALongBodyBeginsAtTheTailsFirstLineFeed) {
  const std::string text = linesOf(1000000, 301);
  const std::string tail = text.substr(text.size() - 1000);
  EXPECT_EQ(deliver(text, 1, "TRUNCATE_START"), marker + tail.substr(tail.find('\n')));
}

TEST(ResponseContent, TruncateStartOfALongBodyIgnoresALineFeedThatEndsIt) {
  const std::string text = lineOf(999999) + "\n";
  EXPECT_EQ(deliver(text, 1, "TRUNCATE_START"), marker + text.substr(text.size() - 1000));
}

TEST(ResponseContent, TruncateStartOfALongBodyNeverBeginsWithAPartOfACharacter) {
  const std::string text = lineOf(200000) + threeByteCharacter + lineOf(998);
  EXPECT_EQ(deliver(text, 1, "TRUNCATE_START"), marker + lineOf(998));
  EXPECT_EQ(deliver(text, 1, "TRUNCATE_START", "iso-8859-1"),
            marker + text.substr(text.size() - 1000));
  EXPECT_EQ(deliver(std::string(200000, '\x80'), 1, "TRUNCATE_START"), marker);
}

TEST(ResponseContent, TruncateStartHoldsNoMoreThanTheLimitAndOneRead) {
  WatchedBuffer source(5000000);
  std::istream body(&source);
  std::vector<char> buffer;
  deliver(body, buffer, 200, "TRUNCATE_START", "utf-8");
  EXPECT_LE(buffer.size(), 200000 + responseChunkBytes);
}

// --- every policy against the description's own steps --------------------------------------------

// The same, step by step on a buffer that is resized and erased as the steps have it.
class PlainReader {
 public:
  PlainReader(std::istream& body, long long kilobytes, std::string policy, bool utf8)
      : _body(body), _policy(std::move(policy)), _utf8(utf8) {
    _keepsTail = kilobytes >= 0 && _policy == "TRUNCATE_START";
    _capped = kilobytes >= 0 && !_policy.empty() && !_keepsTail;
    _limit = kilobytes < 0 ? 0 : static_cast<std::size_t>(kilobytes) * 1000;
    if (_capped) _chunk = std::min(_limit, _chunk);
  }

  std::string read() {
    while (_body.good()) {
      step();
    }
    if (_dropped) trimStart();
    return (_buffer + zeros(_count)).substr(0, _count);
  }

 private:
  void step() {
    _buffer.resize(_count + _chunk);
    _body.read(_buffer.data() + _count, static_cast<std::streamsize>(_chunk));
    _count += static_cast<std::size_t>(_body.gcount());
    if (_capped && _count < _limit && _limit < _count + _chunk) _chunk = _limit - _count;
    if (_keepsTail && _count > _limit) dropSurplus();
    if (_capped && _limit == 0) _body.peek();
    if (!_capped || _count != _limit || !_body.good()) return;
    _body.ignore(2147483647);
    if (_policy == "REJECT") throw ResponseLimitExceeded("exceeded");
    trimEnd();
  }

  void dropSurplus() {
    const std::size_t surplus = _count - _limit;
    _buffer.erase(0, surplus);
    const bool more = _body.good() && _body.peek() != std::char_traits<char>::eof();
    _goesOn = _goesOn || more;
    _count = _goesOn ? _limit : surplus;
    if (_goesOn) _buffer.resize(_count);
    _dropped = true;
  }

  void trimEnd() {
    const std::size_t last = _buffer.rfind('\n');
    if (last != std::string::npos && last + 1 != _buffer.size()) _buffer.resize(last);
    if (_utf8) {
      while (!_buffer.empty() && (_buffer.back() & 0xC0) == 0x80) _buffer.pop_back();
      if (!_buffer.empty() && static_cast<unsigned char>(_buffer.back()) >= 0xC0) {
        _buffer.pop_back();
      }
    }
    _buffer += marker;
    _count = _buffer.size();
  }

  void trimStart() {
    const std::size_t first = _buffer.find('\n');
    if (first != std::string::npos && first + 1 != _buffer.size()) {
      _count = _buffer.size() - first - (_goesOn ? 0 : 1);
      _buffer.erase(0, first);
    }
    while (_utf8 && !_buffer.empty() && (_buffer.front() & 0xC0) == 0x80) {
      _buffer.erase(0, 1);
      _count += _goesOn ? static_cast<std::size_t>(-1) : 1;
    }
    _buffer.insert(0, marker);
    _count += marker.size();
  }

  std::istream& _body;
  const std::string _policy;
  const bool _utf8;
  bool _keepsTail = false;
  bool _capped = false;
  std::size_t _limit = 0;
  std::size_t _chunk = 102400;
  std::string _buffer;
  std::size_t _count = 0;
  bool _dropped = false;
  bool _goesOn = false;
};

struct SweptCase {
  const char* policy;
  const char* charset;
  long long kilobytes;
};

std::vector<SweptCase> sweptCases() {
  std::vector<SweptCase> cases;
  for (const char* policy : {"REJECT", "TRUNCATE_END", "TRUNCATE_START", ""}) {
    for (const char* charset : {"utf-8", "iso-8859-1"}) {
      for (const long long kilobytes : {-1, 0, 1, 102, 103, 205}) {
        cases.push_back({policy, charset, kilobytes});
      }
    }
  }
  return cases;
}

std::vector<std::string> sweptBodies() {
  std::vector<std::string> bodies;
  for (const std::size_t size :
       {0U, 1U, 999U, 1000U, 1001U, 2500U, 102000U, 102400U, 102401U, 204800U, 205001U, 307201U}) {
    bodies.push_back(lineOf(size));
    bodies.push_back(linesOf(size, 333));
    bodies.push_back(linesOf(size, 100));
    std::string text;
    while (text.size() < size) text += threeByteCharacter;
    bodies.push_back(text.substr(0, size));
    bodies.emplace_back(size, '\n');
  }
  return bodies;
}

TEST(ResponseContent, EveryPolicyFollowsItsStepsWhateverTheBufferHeldBefore) {
  std::vector<char> reused(800000, 'S');
  for (const std::string& text : sweptBodies()) {
    for (const SweptCase& swept : sweptCases()) {
      SCOPED_TRACE(std::string(swept.policy) + " " + swept.charset + " " +
                   std::to_string(swept.kilobytes) + " KB, " + std::to_string(text.size()) +
                   " bytes");
      std::istringstream body(text);
      std::istringstream again(text);
      PlainReader plain(again, swept.kilobytes, swept.policy,
                        std::string(swept.charset) == "utf-8");
      std::string expected = "rejected";
      std::string delivered = "rejected";
      try {
        expected = plain.read();
      } catch (const ResponseLimitExceeded&) {
      }
      try {
        delivered = deliver(body, reused, swept.kilobytes, swept.policy, swept.charset);
      } catch (const ResponseLimitExceeded&) {
      }
      // No text of a whole payload in the report: it would be megabytes.
      ASSERT_EQ(delivered.size(), expected.size());
      ASSERT_TRUE(delivered == expected);
    }
  }
}

// --- failures -----------------------------------------------------------------------------------

TEST(ResponseContent, StreamAtItsEndOnEntryIsAnEmptyBody) {
  std::istringstream body("text");
  body.setstate(std::ios::eofbit);
  EXPECT_EQ(failureOf(body), "no failure");
  std::vector<char> buffer;
  EXPECT_EQ(deliver(body, buffer, -1, "REJECT", "utf-8"), "");
}

TEST(ResponseContent, StreamThatHasFailedOnEntryIsAnError) {
  std::istringstream failed("text");
  failed.setstate(std::ios::failbit);
  EXPECT_EQ(failureOf(failed), "Error processing response stream: I/O error");
  std::istringstream bad("text");
  bad.setstate(std::ios::badbit);
  EXPECT_EQ(failureOf(bad), "Error processing response stream: Serious I/O error");
}

TEST(ResponseContent, StreamThatTurnsBadIsASeriousErrorUnderEveryPolicy) {
  for (const char* policy : {"REJECT", "TRUNCATE_END", "TRUNCATE_START"}) {
    for (const std::size_t size : {0U, 500U, 150000U, 300000U}) {
      for (const long long kilobytes : {-1, 400}) {
        BreakingBuffer source(lineOf(size));
        std::istream body(&source);
        EXPECT_EQ(failureOf(body, kilobytes, policy),
                  "Error processing response stream: Serious I/O error");
      }
    }
  }
}

TEST(ResponseContent, StreamThatTurnsBadBehindALimitIsASeriousError) {
  for (const char* policy : {"TRUNCATE_END", "TRUNCATE_START"}) {
    for (const std::size_t size : {1000U, 102400U, 300000U}) {
      BreakingBuffer source(lineOf(size));
      std::istream body(&source);
      EXPECT_EQ(failureOf(body, 1, policy), "Error processing response stream: Serious I/O error");
    }
  }
}

TEST(ResponseContent, CountBeyond32BitsIsAFailure) {
  EXPECT_EQ(deliveredCount(4294967295ULL), 4294967295U);
  try {
    deliveredCount(4294967296ULL);
    FAIL() << "wrapped";
  } catch (const orrery::StreamException& failure) {
    EXPECT_STREQ(failure.what(),
                 "Error processing response stream: the response exceeds 4294967295 bytes");
  }
}

// --- the buffer ---------------------------------------------------------------------------------

TEST(ResponseContent, BufferIsReusedFromResponseToResponse) {
  std::vector<char> buffer;
  std::istringstream first(lineOf(90000));
  deliver(first, buffer, 100, "REJECT", "utf-8");
  const char* const bytes = buffer.data();
  const std::size_t capacity = buffer.capacity();
  std::istringstream second("short");
  EXPECT_EQ(deliver(second, buffer, 100, "REJECT", "utf-8"), "short");
  EXPECT_EQ(buffer.data(), bytes);
  EXPECT_EQ(buffer.capacity(), capacity);
}

}  // namespace
}  // namespace connectivity::plugins
