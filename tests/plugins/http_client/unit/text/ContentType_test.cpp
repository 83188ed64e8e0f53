#include "plugins/http_client/text/ContentType.hpp"

#include <array>
#include <optional>
#include <string>
#include <string_view>

#include <gtest/gtest.h>

namespace connectivity::plugins {
namespace {

using namespace std::string_view_literals;

std::string typeOf(std::string_view value) { return readContentType(value).type; }
std::string charsetOf(std::string_view value) { return readContentType(value).charset; }

constexpr std::array malformedValues = {
    ""sv,
    " "sv,
    "text"sv,
    "/"sv,
    "text/"sv,
    "/plain"sv,
    "text/plain/x"sv,
    "te xt/plain"sv,
    "text/pl ain"sv,
    "text /plain"sv,
    "text/ plain"sv,
    "text/html charset=latin1"sv,
    "text/html, text/plain"sv,
    "\"text/html\""sv,
    "charset=latin1"sv,
    "; charset=latin1"sv,
    "text; charset=latin1/x"sv,
    "t\xE9xt/plain"sv,
    "text/pl\0in"sv,
};

// --- the label ----------------------------------------------------------------------------------

TEST(ContentType, IsTheMediaTypeAsSentWithoutItsParameters) {
  EXPECT_EQ(typeOf("application/json"), "application/json");
  EXPECT_EQ(typeOf("Text/HTML; charset=UTF-8; level=1"), "Text/HTML");
  EXPECT_EQ(typeOf("text/html;"), "text/html");
  EXPECT_EQ(typeOf(" text/html ; charset=x"), "text/html");
  EXPECT_EQ(typeOf("image/svg+xml;q=\"a;b\""), "image/svg+xml");
}

TEST(ContentType, CharsetIsItsParameterInLowerCase) {
  EXPECT_EQ(charsetOf("text/html; charset=ISO-8859-1"), "iso-8859-1");
  EXPECT_EQ(charsetOf("text/html;CharSet=Big5;level=1"), "big5");
  EXPECT_EQ(charsetOf("text/html; level=1 ; charset = latin1 "), "latin1");
  EXPECT_EQ(charsetOf("text/html; charset=caf\xE9"), "caf\xE9");
}

TEST(ContentType, CharsetIsReadOutOfItsQuotes) {
  EXPECT_EQ(charsetOf("text/html; charset=\"Latin1\""), "latin1");
  EXPECT_EQ(charsetOf("text/html; charset=\"a\\\"b;c\"; x=y"), "a\"b;c");
  EXPECT_EQ(charsetOf("text/html; charset=\"open"), "open");
  EXPECT_EQ(charsetOf("text/html; charset=end\\"), "end\\");
}

TEST(ContentType, CharsetInAnotherParametersValueIsNone) {
  EXPECT_EQ(charsetOf("text/html; note=\"; charset=latin1\""), "utf-8");
  EXPECT_EQ(charsetOf("text/html; note=charset=latin1"), "utf-8");
  EXPECT_EQ(charsetOf("text/html; xcharset=latin1"), "utf-8");
  EXPECT_EQ(charsetOf("text/html; charset; charset=latin1"), "latin1");
}

TEST(ContentType, OfSeveralCharsetsTheFirstCounts) {
  EXPECT_EQ(charsetOf("text/html; charset=a; charset=b"), "a");
}

TEST(ContentType, Utf8GetsItsHyphen) {
  EXPECT_EQ(charsetOf("text/html; charset=UTF8"), "utf-8");
  EXPECT_EQ(charsetOf("text/html; charset=UTF-8"), "utf-8");
  EXPECT_EQ(charsetOf("text/html; charset=utf8x"), "utf8x");
}

TEST(ContentType, WithoutACharsetIsUtf8) {
  for (const char* value : {"text/html", "text/html;", "text/html; charset",
                            "text/html; charset=", "text/html; charset=\"\"", "text/html;;;"}) {
    EXPECT_EQ(charsetOf(value), "utf-8") << value;
    EXPECT_EQ(typeOf(value), "text/html") << value;
  }
}

TEST(ContentType, ThatIsAbsentLabelsNothing) {
  const ContentType read = readContentType(std::nullopt);
  EXPECT_EQ(read.type, "");
  EXPECT_EQ(read.charset, "utf-8");
}

TEST(ContentType, ThatIsMalformedLabelsNothing) {
  for (const std::string_view value : malformedValues) {
    EXPECT_EQ(typeOf(value), "") << value;
    EXPECT_EQ(charsetOf(value), "utf-8") << value;
  }
}

// --- the character set that cut characters are trimmed by ---------------------------------------

TEST(TrimmingCharset, IsUtf8WithoutAContentType) {
  EXPECT_EQ(trimmingCharset(std::nullopt), "utf-8");
}

TEST(TrimmingCharset, IsTheLowerCasedRestBehindTheLastCharset) {
  EXPECT_EQ(trimmingCharset("text/plain; charset=UTF-8"), "utf-8");
  EXPECT_EQ(trimmingCharset("text/plain; CHARSET=ISO-8859-1"), "iso-8859-1");
  EXPECT_EQ(trimmingCharset("text/plain; charset=a; charset=b"), "b");
  EXPECT_EQ(trimmingCharset("text/plain; charset=utf-8; format=flowed"), "utf-8; format=flowed");
  EXPECT_EQ(trimmingCharset("text/plain; charset=\"utf-8\""), "\"utf-8\"");
  EXPECT_EQ(trimmingCharset("text/plain; charset="), "");
  EXPECT_EQ(trimmingCharset("text/plain; charset=utf-8\0"sv), "utf-8\0"sv);
}

// By definition: the offset of a charset that was not found.
TEST(TrimmingCharset, WithoutOneIsTheContentTypeFromItsEighthByte) {
  EXPECT_EQ(trimmingCharset("application/json"), "tion/json");
  EXPECT_EQ(trimmingCharset("Text/Plain"), "ain");
  EXPECT_EQ(trimmingCharset("a/bcdefg"), "g");
  EXPECT_EQ(trimmingCharset("a/bcdef"), "");
}

TEST(TrimmingCharset, OfAShortContentTypeIsEmpty) {
  for (const char* value : {"a/b", "text/x", "a/b;"})
    EXPECT_EQ(trimmingCharset(value), "") << value;
}

TEST(TrimmingCharset, OfAMalformedContentTypeIsUtf8) {
  for (const std::string_view value : malformedValues) {
    EXPECT_EQ(trimmingCharset(value), "utf-8") << value;
  }
}

}  // namespace
}  // namespace connectivity::plugins
