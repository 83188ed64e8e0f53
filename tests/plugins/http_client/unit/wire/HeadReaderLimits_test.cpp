// How large a response head may be, and what reading one costs.
#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <sys/mman.h>
#include <unistd.h>

#include <Poco/Net/NetException.h>
#include <gtest/gtest.h>

#include "plugins/http_client/wire/HeadReader.hpp"

namespace connectivity::plugins {
namespace {

using std::string_literals::operator""s;

constexpr std::size_t limit = 262144;
constexpr std::array<std::size_t, 4> steps{limit + 100, 16384, 1000, 61};
const std::string tooLarge = "The response head is too large";
const std::string statusLine = "HTTP/1.1 200 OK\r\n";

// How much of the bytes is the head, or the error's text, where they come in such steps.
std::string extent(std::string_view bytes, std::size_t step) {
  ResponseHead head;
  HeadReader reader(head);
  std::size_t used = 0;
  try {
    for (std::size_t given = 0; given < bytes.size();) {
      given = std::min(given + step, bytes.size());
      used += reader.read(bytes.substr(used, given - used));
    }
  } catch (const Poco::Net::MessageException& error) {
    return error.message();
  }
  return reader.complete() ? std::to_string(used) : "incomplete";
}

// A head that begins and ends like this and is made of `unit` in between, `size` bytes in all. The
// last unit is cut, its `filler` makes up for it.
std::string headOf(std::size_t size, const std::string& front, const std::string& unit,
                   const std::string& last, const std::string& end) {
  std::string head = front;
  while (head.size() + unit.size() + last.size() + end.size() <= size) head += unit;
  head += last;
  head.append(size - head.size() - end.size(), 'x');
  return head + end;
}

// One for each part of a head that could have a limit of its own.
std::array<std::string, 7> headsOf(std::size_t size) {
  return {headOf(size, "HTTP/1.1 200 ", "r", "", "\r\n\r\n"),
          headOf(size, statusLine, "A: b\r\n", "A: ", "\r\n\r\n"),
          headOf(size, statusLine, "a:\n", "A: ", "\n\n"),
          headOf(size, statusLine + "A: ", "v", "", "\r\n\r\n"),
          headOf(size, statusLine + "A: b\r\n", "n", "", ":\r\n\r\n"),
          headOf(size, statusLine + "A: b\r\n", " c\r\n", " ", "\r\n\r\n"),
          headOf(size, statusLine + "A:", " ", "", "\r\n\r\n")};
}

TEST(HeadReaderLimits, HeadOfExactlyTheLimitIsTaken) {
  for (const std::string& head : headsOf(limit)) {
    ASSERT_EQ(head.size(), limit);
    for (const std::size_t step : steps) {
      EXPECT_EQ(extent(head + "body", step), "262144") << head.substr(0, 30) << " by " << step;
    }
  }
}

TEST(HeadReaderLimits, HeadOfOneByteMoreIsRefused) {
  for (const std::string& head : headsOf(limit + 1)) {
    ASSERT_EQ(head.size(), limit + 1);
    for (const std::size_t step : steps) {
      EXPECT_EQ(extent(head, step), tooLarge) << head.substr(0, 30) << " by " << step;
    }
  }
}

TEST(HeadReaderLimits, LineThatDoesNotEndIsRefusedOneByteBehindTheLimit) {
  for (const std::string& front : {"HTTP/1.1 200 "s, statusLine + "A: b\r\nA: "}) {
    const std::string open = front + std::string(limit + 1 - front.size(), 'x');
    for (const std::size_t step : steps) {
      EXPECT_EQ(extent(std::string_view(open).substr(0, limit), step), "incomplete") << step;
      EXPECT_EQ(extent(open, step), tooLarge) << step;
    }
  }
}

TEST(HeadReaderLimits, EmptyLinesBeforeTheHeadDoNotCount) {
  std::string empty;
  for (int line = 0; line < 8; ++line) empty += "\r\n";
  for (const std::size_t step : steps) {
    for (const std::string& head : headsOf(limit)) {
      EXPECT_EQ(extent(empty + head, step), "262160") << head.substr(0, 30) << " by " << step;
    }
    for (const std::string& head : headsOf(limit + 1)) {
      EXPECT_EQ(extent(empty + head, step), tooLarge) << head.substr(0, 30) << " by " << step;
    }
  }
}

// --- Cost ---------------------------------------------------------------------------------------

// The bytes that were given before are changed, against the rule: it must not even notice.
TEST(HeadReaderCost, BytesOfAnUnfinishedLineAreNotSearchedAgain) {
  ResponseHead head;
  HeadReader reader(head);
  ASSERT_EQ(reader.read(statusLine + "A: " + std::string(100, 'x')), statusLine.size());
  std::string rest = "A: " + std::string(100, 'x') + "y";
  rest[50] = '\n';
  EXPECT_EQ(reader.read(rest), 0U);
  rest[103] = '\n';
  rest += "\r\n\r\n";
  EXPECT_EQ(reader.read(rest), rest.size());
}

TEST(HeadReaderCost, BytesOfAnUnfinishedStatusLineAreNotSearchedAgain) {
  ResponseHead head;
  HeadReader reader(head);
  ASSERT_EQ(reader.read("HTTP/1.1 200 xxxx"), 0U);
  EXPECT_EQ(reader.read("HTTP/1.1 200 x\nxxx"), 0U);
  EXPECT_EQ(reader.read("HTTP/1.1 200 x\nx\nx\n\n"), 20U);
}

char* nextPage(const char* data) {
  const auto size = static_cast<std::uintptr_t>(::sysconf(_SC_PAGESIZE));
  const auto address = reinterpret_cast<std::uintptr_t>(data);
  return reinterpret_cast<char*>((address + size - 1) / size * size);
}

// Ends the process: 0 where a head could be read to its end although the text of the fields in its
// first half could not.
[[noreturn]] void readBeyondFieldsOutOfReach() {
  const std::string half = headOf(100000, "", "Name: value\r\n", "Name: ", "\r\n");
  const std::string other = headOf(100000, "", "Eman: value\r\n", "Eman: ", "\r\n");
  const std::string bytes = statusLine + half + other + "\r\n";
  ResponseHead head;
  HeadReader(head).read(bytes);  // makes the head's store large enough
  HeadReader reader(head);
  const std::size_t used = reader.read(bytes.substr(0, statusLine.size() + half.size()));
  char* const begin = nextPage(head.field(1).name.data());
  char* const end = nextPage(head.field(head.fieldCount() - 1).name.data() - 8192);
  const auto size = static_cast<std::size_t>(end - begin);
  if (size < 40000 || ::mprotect(begin, size, PROT_NONE) != 0) ::_exit(2);
  reader.read(std::string_view(bytes).substr(used));
  ::_exit(reader.complete() ? 0 : 3);
}

TEST(HeadReaderCost, FieldIsReadWithoutALookAtThoseBeforeIt) {
  EXPECT_EXIT(readBeyondFieldsOutOfReach(), testing::ExitedWithCode(0), "");
}

// --- Lines --------------------------------------------------------------------------------------

using State = HeadLine::State;

void expectLine(std::string_view bytes, std::size_t searched, State state, std::string_view text,
                std::size_t size) {
  const HeadLine line = nextHeadLine(bytes, searched);
  EXPECT_EQ(line.state, state) << bytes;
  EXPECT_EQ(line.text, text) << bytes;
  EXPECT_EQ(line.size, size) << bytes;
}

TEST(NextHeadLine, EndsWithItsLineFeed) {
  expectLine("a\r\nb\r\n", 0, State::Whole, "a", 3);
  expectLine("a\nb\n", 0, State::Whole, "a", 2);
  expectLine("\r\n\r\n", 0, State::Whole, "", 2);
  expectLine("\n", 0, State::Whole, "", 1);
}

TEST(NextHeadLine, IsIncompleteWithoutIt) {
  for (const std::string_view bytes : {"", "a", "a\r", "\r", "a\rb"}) {
    expectLine(bytes, 0, State::Incomplete, "", 0);
    expectLine(bytes, bytes.size(), State::Incomplete, "", 0);
  }
}

TEST(NextHeadLine, IsMalformedWithANulOrABareCarriageReturn) {
  expectLine("a\rb\r\n", 0, State::Malformed, "a\rb", 5);
  expectLine("a\r\r\n", 0, State::Malformed, "a\r", 4);
  expectLine("\r\r\n", 0, State::Malformed, "\r", 3);
  expectLine("\ra\n", 0, State::Malformed, "\ra", 3);
  expectLine(std::string_view("\0\n", 2), 0, State::Malformed, std::string_view("\0", 1), 2);
  expectLine(std::string_view("a\0\r\n", 4), 0, State::Malformed, std::string_view("a\0", 2), 4);
}

TEST(NextHeadLine, BytesBehindTheLineAreOfNoConcern) {
  expectLine(std::string_view("a\r\n\0\r\r", 6), 0, State::Whole, "a", 3);
}

TEST(NextHeadLine, IsSearchedForBehindTheBytesThatAreKnown) {
  expectLine("a\nb\n", 2, State::Whole, "a\nb", 4);
  expectLine("ab\r\n", 3, State::Whole, "ab", 4);
  expectLine("a\rb\r\n", 4, State::Malformed, "a\rb", 5);
}

}  // namespace
}  // namespace connectivity::plugins
