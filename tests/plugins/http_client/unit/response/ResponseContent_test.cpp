// The size policies, to the last byte; TRUNCATE_START stands beside this.
#include "plugins/http_client/response/ResponseContent.hpp"

#include <limits>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "orrery/Exception.hpp"
#include "tests/plugins/http_client/unit/response/Delivering.hpp"

namespace connectivity::plugins {
namespace {

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

// The session reads past it, or closes.
TEST(ResponseContent, WhatIsBehindTheLimitStaysInTheStream) {
  for (const char* policy : {"REJECT", "TRUNCATE_END"}) {
    std::istringstream body(lineOf(500000));
    std::vector<char> buffer;
    try {
      deliver(body, buffer, 1, policy, "utf-8");
    } catch (const ResponseLimitExceeded&) {
      EXPECT_STREQ(policy, "REJECT");
    }
    EXPECT_TRUE(body.good()) << policy;
    EXPECT_EQ(body.tellg(), 1000) << policy;
  }
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
    EXPECT_EQ(source.left(), 850000U) << policy;
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

// Nobody reads there under TRUNCATE_END and REJECT; TRUNCATE_START wants the end of the body.
TEST(ResponseContent, StreamThatTurnsBadBehindALimitMattersWhereItsEndIsWanted) {
  for (const std::size_t size : {1000U, 102400U, 300000U}) {
    const auto breaking = [&](const char* policy) {
      BreakingBuffer source(lineOf(size));
      std::istream body(&source);
      return failureOf(body, 1, policy);
    };
    EXPECT_EQ(breaking("TRUNCATE_END"), "no failure");
    EXPECT_THROW(breaking("REJECT"), ResponseLimitExceeded);
    EXPECT_EQ(breaking("TRUNCATE_START"), "Error processing response stream: Serious I/O error");
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
