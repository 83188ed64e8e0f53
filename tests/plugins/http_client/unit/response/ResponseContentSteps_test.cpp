// TRUNCATE_START, to the last byte, and every policy against its plain steps.
#include <algorithm>
#include <cstdint>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "plugins/http_client/response/ResponseContent.hpp"
#include "tests/plugins/http_client/unit/response/Delivering.hpp"

namespace connectivity::plugins {
namespace {

// --- TRUNCATE_START, where one read reaches both the limit and the end --------------------------
// The count is that of the dropped bytes, or follows from the length of the buffer, and zero bytes
// pad the payload up to it: the arithmetic is fixed, so these are its results.

TEST(TruncateStart, DeliversAsManyBytesAsItDropped) {
  const std::string text = lineOf(5000);
  EXPECT_EQ(deliver(text, 1, "TRUNCATE_START"), marker + text.substr(4000) + zeros(3000));
}

TEST(TruncateStart, DeliversLessThanItKeptWhereItDroppedLittle) {
  const std::string text = lineOf(1300);
  EXPECT_EQ(deliver(text, 1, "TRUNCATE_START"), marker + text.substr(300, 300));
}

TEST(TruncateStart, BeginsAtTheFirstLineFeedAndIsOneByteShortOfItsBuffer) {
  const std::string text = lineOf(4500) + "\n" + lineOf(499);
  const std::size_t bufferLength = 102400 - 4000;
  const std::size_t count = bufferLength - 500 - 1;
  EXPECT_EQ(deliver(text, 1, "TRUNCATE_START"), marker + "\n" + lineOf(499) + zeros(count - 500));
}

TEST(TruncateStart, KeepsALineFeedAtTheVeryFront) {
  const std::string text = lineOf(4000) + "\n" + lineOf(999);
  EXPECT_EQ(deliver(text, 1, "TRUNCATE_START"),
            marker + "\n" + lineOf(999) + zeros(102400 - 4000 - 1 - 1000));
}

// A body that ends exactly with a full read counts as ended there.
TEST(TruncateStart, OfOneFullReadHasABufferOfTheLimitAlone) {
  const std::string text = lineOf(responseChunkBytes);
  EXPECT_EQ(deliver(text, 1, "TRUNCATE_START"),
            marker + text.substr(responseChunkBytes - 1000) + zeros(101400 - 1000));
}

TEST(TruncateStart, OfOneFullReadLosesTheLastCharacterBehindALineFeed) {
  std::string text = lineOf(responseChunkBytes);
  text[responseChunkBytes - 600] = '\n';
  EXPECT_EQ(deliver(text, 1, "TRUNCATE_START"),
            marker + text.substr(responseChunkBytes - 600, 599));
}

TEST(TruncateStart, IgnoresALineFeedThatEndsTheBuffer) {
  std::string text = lineOf(responseChunkBytes);
  text.back() = '\n';
  EXPECT_EQ(deliver(text, 1, "TRUNCATE_START"),
            marker + text.substr(responseChunkBytes - 1000) + zeros(101400 - 1000));
}

TEST(TruncateStart, CountsOneMoreForEachContinuationByteThatItDrops) {
  const std::string text = lineOf(3999) + threeByteCharacter + lineOf(998);
  // 4000 bytes dropped, then the two continuation bytes at the front.
  EXPECT_EQ(deliver(text, 1, "TRUNCATE_START"), marker + lineOf(998) + zeros(4002 - 998));
  EXPECT_EQ(deliver(text, 1, "TRUNCATE_START", "iso-8859-1"),
            marker + text.substr(4000) + zeros(4000 - 1000));
}

TEST(TruncateStart, OfNothingButContinuationBytesIsAllZeros) {
  const std::string text(responseChunkBytes, '\x80');
  EXPECT_EQ(deliver(text, 1, "TRUNCATE_START"), marker + zeros(101400 + 1000));
}

TEST(TruncateStart, UnderZeroLimitIsAllZeros) {
  EXPECT_EQ(deliver("hello", 0, "TRUNCATE_START"), marker + zeros(5));
}

TEST(TruncateStart, LeavesABodyOfExactlyItsLimit) {
  EXPECT_EQ(deliver(lineOf(1000), 1, "TRUNCATE_START"), lineOf(1000));
}

TEST(TruncateStart, PassesALimitInItsSecondReadToo) {
  const std::string text = lineOf(150000 + 700);
  // 700 bytes dropped: 700 of those kept are delivered.
  EXPECT_EQ(deliver(text, 150, "TRUNCATE_START"), marker + text.substr(700, 700));
}

// --- TRUNCATE_START, where the body goes on -----------------------------------------------------

TEST(TruncateStart, KeepsTheWholeTailOfALongBody) {
  for (const std::size_t size : {102401U, 150000U, 204800U, 204801U, 1000000U}) {
    const std::string text = lineOf(size);
    EXPECT_EQ(deliver(text, 1, "TRUNCATE_START"), marker + text.substr(size - 1000)) << size;
    EXPECT_EQ(deliver(text, 100, "TRUNCATE_START"), marker + text.substr(size - 100000)) << size;
  }
}

TEST(TruncateStart, KeepsATailLongerThanOneRead) {
  for (const std::size_t size : {500000U, 512000U, 999999U, 1024000U}) {
    const std::string text = lineOf(size);
    EXPECT_EQ(deliver(text, 250, "TRUNCATE_START"), marker + text.substr(size - 250000)) << size;
  }
}

TEST(TruncateStart, OfALongBodyBeginsAtTheTailsFirstLineFeed) {
  const std::string text = linesOf(1000000, 301);
  const std::string tail = text.substr(text.size() - 1000);
  EXPECT_EQ(deliver(text, 1, "TRUNCATE_START"), marker + tail.substr(tail.find('\n')));
}

TEST(TruncateStart, OfALongBodyIgnoresALineFeedThatEndsIt) {
  const std::string text = lineOf(999999) + "\n";
  EXPECT_EQ(deliver(text, 1, "TRUNCATE_START"), marker + text.substr(text.size() - 1000));
}

TEST(TruncateStart, OfALongBodyNeverBeginsWithAPartOfACharacter) {
  const std::string text = lineOf(200000) + threeByteCharacter + lineOf(998);
  EXPECT_EQ(deliver(text, 1, "TRUNCATE_START"), marker + lineOf(998));
  EXPECT_EQ(deliver(text, 1, "TRUNCATE_START", "iso-8859-1"),
            marker + text.substr(text.size() - 1000));
  EXPECT_EQ(deliver(std::string(200000, '\x80'), 1, "TRUNCATE_START"), marker);
}

TEST(TruncateStart, HoldsNoMoreThanTheLimitAndOneRead) {
  WatchedBuffer source(5000000);
  std::istream body(&source);
  std::vector<char> buffer;
  deliver(body, buffer, 200, "TRUNCATE_START", "utf-8");
  EXPECT_LE(buffer.size(), 200000 + responseChunkBytes);
}

// --- every policy, step by step ------------------------------------------------------------------

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

TEST(ResponseContentSteps, EveryPolicyFollowsItsStepsWhateverTheBufferHeldBefore) {
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

}  // namespace
}  // namespace connectivity::plugins
