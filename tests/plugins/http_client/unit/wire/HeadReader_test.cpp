// What a response head is and what it is not. Every head here is read whole, byte by byte, and cut
// in two at each of its bytes: what comes of it must not depend on that.
#include "plugins/http_client/wire/HeadReader.hpp"

#include <algorithm>
#include <array>
#include <cstddef>
#include <string>
#include <string_view>
#include <utility>

#include <Poco/Net/NetException.h>
#include <gtest/gtest.h>

namespace connectivity::plugins {
namespace {

using std::string_literals::operator""s;

constexpr std::size_t limit = 262144;
const std::string tooLarge = "The response head is too large";
const std::string notHttp = "The response is not HTTP";
const std::string statusLine = "HTTP/1.1 200 OK\r\n";

std::string badStatus(const std::string& line) {
  return "Malformed status line in the response: " + line;
}
std::string badLine(int number, const std::string& reason) {
  return "Malformed header line " + std::to_string(number) + " in the response: " + reason;
}

// `1.1 200 "OK" A="b" C="d"`
std::string described(const ResponseHead& head) {
  std::string text = "1." + std::to_string(head.minorVersion()) + " " +
                     std::to_string(head.status()) + " \"" + std::string(head.reason()) + "\"";
  for (const ResponseHead::Field field : head) {
    text.append(" ").append(field.name).append("=\"").append(field.value).append("\"");
  }
  return text;
}

// Gives a reader more and more of the bytes, up to each of the ends in turn.
class Feeding {
 public:
  explicit Feeding(std::string_view bytes) : _bytes(bytes) {}

  void upTo(std::size_t end) {
    _end = end;
    _used += _reader.read(_bytes.substr(_used, _end - _used));
  }
  const HeadReader& reader() const { return _reader; }
  const ResponseHead& head() const { return _head; }
  std::size_t used() const { return _used; }

 private:
  const std::string_view _bytes;
  ResponseHead _head;
  HeadReader _reader{_head};
  std::size_t _used = 0;
  std::size_t _end = 0;
};

// What comes of the bytes where they come in such steps: the head, and what is left behind it, or
// the error's text.
template <typename NextEnd>
std::string outcome(std::string_view bytes, NextEnd nextEnd) {
  Feeding feeding(bytes);
  try {
    for (std::size_t end = 0; end < bytes.size();) {
      end = nextEnd(end);
      feeding.upTo(end);
    }
  } catch (const Poco::Net::MessageException& error) {
    return error.message();
  }
  if (!feeding.reader().complete()) return "incomplete";
  return described(feeding.head()) + " | " + std::string(bytes.substr(feeding.used()));
}

std::string outcomeInSteps(std::string_view bytes, std::size_t step) {
  return outcome(bytes, [&](std::size_t end) { return std::min(end + step, bytes.size()); });
}

std::string outcomeCutAt(std::string_view bytes, std::size_t cut) {
  return outcome(bytes, [&](std::size_t end) { return end < cut ? cut : bytes.size(); });
}

void expectOutcome(const std::string& bytes, const std::string& expected) {
  EXPECT_EQ(outcomeInSteps(bytes, bytes.size()), expected) << bytes;
  EXPECT_EQ(outcomeInSteps(bytes, 1), expected) << "byte by byte: " << bytes;
  for (std::size_t cut = 1; cut < bytes.size(); ++cut) {
    ASSERT_EQ(outcomeCutAt(bytes, cut), expected) << "cut at " << cut << ": " << bytes;
  }
}

// A head with these field lines.
void expectFields(const std::string& lines, const std::string& expected) {
  const std::string space = expected.empty() ? "" : " ";
  expectOutcome(statusLine + lines + "\r\nbody", "1.1 200 \"OK\"" + space + expected + " | body");
}

void expectBadField(const std::string& lines, const std::string& error) {
  expectOutcome(statusLine + lines + "\r\nbody", error);
}

// --- The status line ----------------------------------------------------------------------------

TEST(HeadReader, TakesEveryStatusLineOfItsForm) {
  const std::array<std::pair<std::string, std::string>, 12> lines{{
      {"HTTP/1.1 200 OK", "1.1 200 \"OK\""},
      {"HTTP/1.0 404 Not Found", "1.0 404 \"Not Found\""},
      {"HTTP/1.9 100 Continue", "1.9 100 \"Continue\""},
      {"HTTP/1.1 999 x", "1.1 999 \"x\""},
      {"HTTP/1.1 200", "1.1 200 \"\""},
      {"HTTP/1.1 200 ", "1.1 200 \"\""},
      {"HTTP/1.1 200  two blanks ", "1.1 200 \" two blanks \""},
      {"HTTP/1.1 200 200", "1.1 200 \"200\""},
      {"HTTP/1.1 200 a:b", "1.1 200 \"a:b\""},
      {"HTTP/1.1 200 \x80\xE9\xFF", "1.1 200 \"\x80\xE9\xFF\""},
      {"HTTP/1.1 200 \x01\t\x1B\x7F", "1.1 200 \"\x01\t\x1B\x7F\""},
      {"HTTP/1.1 200 =?utf-8?q?=41?=", "1.1 200 \"=?utf-8?q?=41?=\""},
  }};
  for (const auto& [line, expected] : lines) {
    expectOutcome(line + "\r\n\r\n", expected + " | ");
    expectOutcome(line + "\n\nHTTP/1.1 200 OK\r\n", expected + " | HTTP/1.1 200 OK\r\n");
  }
}

TEST(HeadReader, RefusesEveryOtherStatusLine) {
  for (const char* line :
       {"HTTP/1.1 20 OK",   "HTTP/1.1 -10",     "HTTP/1.1 -10 x",   "HTTP/1.1 +20 x",
        "HTTP/1.1 200OK",   "HTTP/1.1 099 x",   "HTTP/1.1 000 x",   "HTTP/1.1 1000",
        "HTTP/1.1 1000 x",  "HTTP/1.1 2000",    "HTTP/1.1  200 OK", "HTTP/1.1\t200 OK",
        "HTTP/1.1 200\tOK", "HTTP/1.1200 OK",   "HTTP/1.10 200 OK", "HTTP/1.x 200 OK",
        "HTTP/1. 200 OK",   "HTTP/1./ 200 OK",  "HTTP/1.: 200 OK",  "HTTP/1.1 2x0 OK",
        "HTTP/1.1 20x OK",  "HTTP/1.1 x00 OK",  "HTTP/1.1 :00 OK",  "HTTP/1.1 2/0 OK",
        "HTTP/1.1 20: OK",  "HTTP/1.1 OK",      "HTTP/1.1 2",       "HTTP/1.1 ",
        "HTTP/1.1",         "HTTP/1.",          "HTTP/1.1 0x1 OK",  "HTTP/1.1 200:OK",
        "HTTP/1.1 20 0 OK", "HTTP/1.1: 200 OK", "HTTP/1.1 200-OK",  "HTTP/1.1 2 00"}) {
    expectOutcome(line + "\r\n\r\n"s, badStatus(line));
    expectOutcome(line + "\nX: a\r\n\r\n"s, badStatus(line));
  }
}

TEST(HeadReader, ShowsTheFirst100BytesOfABadStatusLineInUtf8) {
  expectOutcome("HTTP/1.1 caf\xE9\x85\r\n", badStatus("HTTP/1.1 caf\xC3\xA9\xC2\x85"));
  const std::string line = "HTTP/1.1 x" + std::string(90, 'y');
  ASSERT_EQ(line.size(), 100U);
  expectOutcome(line + "\r\n", badStatus(line));
  expectOutcome(line + "z\r\n", badStatus(line));
}

TEST(HeadReader, RefusesANulOrABareCarriageReturnInTheStatusLine) {
  expectOutcome("HTTP/1.1 200 O\0K\r\n\r\n"s, badStatus("HTTP/1.1 200 O\\x00K"));
  expectOutcome("HTTP/1.1 200\0\r\n\r\n"s, badStatus("HTTP/1.1 200\\x00"));
  expectOutcome("HTTP/1.1 200 O\rK\r\n\r\n", badStatus("HTTP/1.1 200 O\rK"));
  expectOutcome("HTTP/1.1 200 OK\r\r\n\r\n", badStatus("HTTP/1.1 200 OK\r"));
  expectOutcome("HTTP/1.1 200 OK\rX: a\n\n", badStatus("HTTP/1.1 200 OK\rX: a"));
}

TEST(HeadReader, TellsAtTheFirstForeignByteThatThisIsNoHttp) {
  for (const std::string& bytes : {"X"s,
                                   "HTTP/2"s,
                                   "HTTP/2 200\r\n\r\n"s,
                                   "HTTP/2.0 200 OK\r\n"s,
                                   "HTTP/0.9 200 OK\r\n"s,
                                   "HTTP/1,"s,
                                   "http/1.1 200 OK\r\n\r\n"s,
                                   "HTTPS"s,
                                   "HTTP 200 OK\r\n"s,
                                   "ICY 200 OK\r\n\r\n"s,
                                   " HTTP/1.1 200 OK\r\n"s,
                                   "\tHTTP/1.1 200 OK\r\n"s,
                                   "<html>\n"s,
                                   "SSH-2.0"s,
                                   "\0"s,
                                   "\0HTTP/1.1 200 OK\r\n"s,
                                   "HT\0P"s,
                                   "\x15\x03\x01"s,
                                   "\xEF\xBB\xBFHTTP/1.1 200 OK\r\n"s,
                                   "\rHTTP/1.1 200 OK\r\n"s,
                                   "\r\r\n"s,
                                   "\r\r\nHTTP/1.1 200 OK\r\n\r\n"s,
                                   "H\r\r\n"s,
                                   "H\r\n"s,
                                   "HTTP\n"s,
                                   "HTTP/\r\n"s,
                                   "HTTP/1\n"s,
                                   "HTTP/1\r"s,
                                   "HTTP/1.1 200 OK\r\n\r\n"s.substr(1),
                                   std::string(limit + 1, 'x').substr(0, 300)}) {
    expectOutcome(bytes, notHttp);
  }
}

TEST(HeadReader, ForeignBytesAreToldBeforeTheirLineIsTooLong) {
  EXPECT_EQ(outcomeInSteps(std::string(limit + 1, 'x'), limit + 1), notHttp);
  EXPECT_EQ(outcomeInSteps(std::string(limit + 1, 'x') + "\r\n", limit + 3), notHttp);
}

// --- Empty lines before it ----------------------------------------------------------------------

std::string repeated(const std::string& text, int times) {
  std::string all;
  while (times-- > 0) all += text;
  return all;
}

TEST(HeadReader, PassesOver16BytesOfEmptyLines) {
  for (const std::string& empty : {"\n"s, "\r\n"s, repeated("\r\n", 8), repeated("\n", 16),
                                   repeated("\r\n", 7) + "\n\n", "\n\r\n\n"s}) {
    expectOutcome(empty + "HTTP/1.1 200 OK\r\nA: b\r\n\r\nbody", "1.1 200 \"OK\" A=\"b\" | body");
  }
}

TEST(HeadReader, RefusesOneByteMoreOfEmptyLines) {
  for (const std::string& empty :
       {repeated("\n", 17), repeated("\r\n", 8) + "\n", "\n" + repeated("\r\n", 8)}) {
    ASSERT_EQ(empty.size(), 17U);
    expectOutcome(empty, notHttp);
    expectOutcome(empty + "HTTP/1.1 200 OK\r\n\r\n", notHttp);
  }
  expectOutcome(repeated("\r\n", 9), notHttp);
}

// --- Field lines --------------------------------------------------------------------------------

TEST(HeadReader, TakesFieldsAsTheyWereSent) {
  expectFields("", "");
  expectFields("A: b\r\n", "A=\"b\"");
  expectFields("A: b\nC: d\n", "A=\"b\" C=\"d\"");
  expectFields("a: 1\r\nA: 2\r\nB: 3\r\na: 1\r\n", "a=\"1\" A=\"2\" B=\"3\" a=\"1\"");
  expectFields("!#$%&'*+-.^_`|~09azAZ: b\r\n", "!#$%&'*+-.^_`|~09azAZ=\"b\"");
}

TEST(HeadReader, ValueLosesTheBlanksAndTabsAroundItAndNothingElse) {
  expectFields("A:b\r\n", "A=\"b\"");
  expectFields("A: \t b \t c \t \r\n", "A=\"b \t c\"");
  for (const std::string value : {"", " ", "\t", " \t "}) {
    expectFields("A:" + value + "\r\n", "A=\"\"");
    expectFields("A:" + value + "\nB:\n", "A=\"\" B=\"\"");
  }
  expectFields("A: b:c: d\r\nC::\r\n", "A=\"b:c: d\" C=\":\"");
  expectFields("A: \v b \f\r\n", "A=\"\v b \f\"");
}

TEST(HeadReader, EveryByteButNulAndLineEndsIsDataInAValue) {
  for (int byte = 1; byte < 256; ++byte) {
    if (byte == '\r' || byte == '\n') continue;
    const std::string value = "a"s + static_cast<char>(byte) + "b";
    expectFields("X: " + value + "\r\n", "X=\"" + value + "\"");
  }
}

TEST(HeadReader, EncodedWordsAreNotDecoded) {
  for (const std::string word : {"=?utf-8?q?caf=C3=A9?=", "=?ISO-8859-1?B?Y2Fm6Q==?=", "=?a&r=?b",
                                 "=?utf-8?q?a?= =?utf-8?q?=0D=0AX:_1?="}) {
    expectFields("X: " + word + "\r\n", "X=\"" + word + "\"");
  }
}

TEST(HeadReader, RefusesALineWithoutColon) {
  expectBadField("no colon here\r\n", badLine(1, "no colon"));
  expectBadField("A: b\r\nX\r\n", badLine(2, "no colon"));
  expectBadField("A: b\r\n\"c\xE9\"\nD: e\r\n", badLine(2, "no colon"));
  expectBadField("HTTP/1.1 200 OK\r\n", badLine(1, "no colon"));
}

TEST(HeadReader, RefusesANameThatIsNoToken) {
  for (const std::string name :
       {"",      "A ",  "A\t", "A B", "A\x01", "\x7F", "caf\xE9", "(A)", "A/B",  "A,B",
        "\"A\"", "<A>", "[A]", "{A}", "A=B",   "A@B",  "A;B",     "A?",  "A\\B", "\x80"}) {
    expectBadField(name + ": secret\r\n", badLine(1, "no field name"));
    expectBadField("A: b\r\n" + name + ":\n", badLine(2, "no field name"));
  }
}

TEST(HeadReader, RefusesANulOrABareCarriageReturnInAFieldLine) {
  const std::string error = "a control character";
  for (const std::string& line :
       {"\0: b"s, "A\0: b"s, "A:\0b"s, "A: b\0"s, "\0"s, "\r: b"s, "A\r: b"s, "A: b\rc"s, "A: b\r"s,
        "\r"s, "no colon\0"s, "A: b\rC: d"s}) {
    expectBadField(line + "\r\n", badLine(1, error));
    expectBadField("A: b\r\n c\r\n" + line + "\r\n", badLine(3, error));
  }
  expectBadField("A: b\r\n c\rd\r\n", badLine(2, error));
  expectBadField("A: b\r\n \0\r\n"s, badLine(2, error));
}

// --- Continuations ------------------------------------------------------------------------------

TEST(HeadReader, JoinsAContinuationByOneBlank) {
  expectFields("A: b\r\n c\r\n", "A=\"b c\"");
  expectFields("A: b\n\tc\n", "A=\"b c\"");
  expectFields("A: b \t \r\n \t c \t\r\nD: e\r\n", "A=\"b c\" D=\"e\"");
  expectFields("A: b\r\n c\r\n\td  e\r\n f: g\r\n", "A=\"b c d  e f: g\"");
  expectFields("A: b\r\nC: d\r\n e\r\n", "A=\"b\" C=\"d e\"");
  expectFields("A: =?a?q?b?=\r\n =?a?q?c?=\r\n", "A=\"=?a?q?b?= =?a?q?c?=\"");
}

TEST(HeadReader, NothingJoinedToNothingLeavesNoBlank) {
  expectFields("A:\r\n b\r\n", "A=\"b\"");
  expectFields("A: b\r\n \t \r\n", "A=\"b\"");
  expectFields("A: b\r\n \r\n c\r\n", "A=\"b c\"");
  expectFields("A:\r\n \r\n\t\r\nB: c\r\n", "A=\"\" B=\"c\"");
}

TEST(HeadReader, RefusesAContinuationOfNothing) {
  for (const char* line : {" ", "\t", " A: b", "\tA: b", " \t "}) {
    expectBadField(line + "\r\n"s, badLine(1, "nothing to continue"));
    expectBadField(line + "\nA: b\r\n"s, badLine(1, "nothing to continue"));
  }
}

// --- In pieces ----------------------------------------------------------------------------------

TEST(HeadReader, IsIncompleteUntilTheEmptyLine) {
  const std::string bytes = "\r\nHTTP/1.1 200 OK\r\nA: b\r\n c\r\n\r\n";
  for (std::size_t size = 0; size < bytes.size(); ++size) {
    expectOutcome(bytes.substr(0, size), "incomplete");
  }
  expectOutcome(bytes, "1.1 200 \"OK\" A=\"b c\" | ");
}

TEST(HeadReader, TakesWholeLinesAndLeavesTheRest) {
  ResponseHead head;
  HeadReader reader(head);
  EXPECT_EQ(reader.read(""), 0U);
  EXPECT_EQ(reader.read("HTTP/1.1 200"), 0U);
  EXPECT_EQ(reader.read("HTTP/1.1 200 OK\r\nA: b\nC:"), 22U);
  EXPECT_EQ(reader.read("C: d\r\n\r\nrest"), 8U);
  EXPECT_TRUE(reader.complete());
  EXPECT_EQ(reader.read("rest\r\n"), 0U);
  EXPECT_EQ(described(head), "1.1 200 \"OK\" A=\"b\" C=\"d\"");
}

TEST(HeadReader, ForgetsWhatTheHeadHeldBefore) {
  ResponseHead head;
  HeadReader(head).read("HTTP/1.0 500 Old\r\nOld: 1\r\n\r\n");
  HeadReader reader(head);
  EXPECT_EQ(described(head), "1.0 0 \"\"");
  reader.read("HTTP/1.1 200\r\nA: b\r\n\r\n");
  EXPECT_EQ(described(head), "1.1 200 \"\" A=\"b\"");
}

}  // namespace
}  // namespace connectivity::plugins
