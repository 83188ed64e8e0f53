#include "plugins/http_client/wire/ResponseHead.hpp"

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

namespace connectivity::plugins {
namespace {

using Pairs = std::vector<std::pair<std::string, std::string>>;
using Views = std::vector<std::string_view>;

Pairs fieldsOf(const ResponseHead& head) {
  Pairs fields;
  for (const ResponseHead::Field field : head) fields.emplace_back(field.name, field.value);
  return fields;
}

ResponseHead sample() {
  ResponseHead head;
  head.setStatus(1, 200, "OK");
  head.addField("Set-Cookie", "a=1");
  head.addField("Content-Length", "5");
  head.addField("set-cookie", "");
  head.addField("SET-COOKIE", "b=2");
  return head;
}

TEST(ResponseHead, IsEmptyAtFirst) {
  const ResponseHead head;
  EXPECT_EQ(head.status(), 0);
  EXPECT_EQ(head.minorVersion(), 0);
  EXPECT_EQ(head.reason(), "");
  EXPECT_EQ(head.fieldCount(), 0U);
  EXPECT_EQ(fieldsOf(head), Pairs());
  EXPECT_EQ(head.find("A"), std::nullopt);
  EXPECT_EQ(head.find(""), std::nullopt);
  EXPECT_EQ(head.findAll("A"), Views());
}

TEST(ResponseHead, HoldsTheStatusLine) {
  ResponseHead head;
  head.setStatus(0, 999, " any\x01\xFF ");
  EXPECT_EQ(head.minorVersion(), 0);
  EXPECT_EQ(head.status(), 999);
  EXPECT_EQ(head.reason(), " any\x01\xFF ");
  head.setStatus(9, 100, "");
  EXPECT_EQ(head.minorVersion(), 9);
  EXPECT_EQ(head.status(), 100);
  EXPECT_EQ(head.reason(), "");
}

TEST(ResponseHead, HoldsItsFieldsInOrderAsTheyWereSent) {
  const ResponseHead head = sample();
  EXPECT_EQ(fieldsOf(head), (Pairs{{"Set-Cookie", "a=1"},
                                   {"Content-Length", "5"},
                                   {"set-cookie", ""},
                                   {"SET-COOKIE", "b=2"}}));
  ASSERT_EQ(head.fieldCount(), 4U);
  EXPECT_EQ(head.field(3).name, "SET-COOKIE");
  EXPECT_EQ(head.field(3).value, "b=2");
  EXPECT_EQ(head.reason(), "OK");
}

TEST(ResponseHead, FindsTheFirstFieldOfANameInWhateverCase) {
  const ResponseHead head = sample();
  EXPECT_EQ(head.find("SET-cookie"), "a=1");
  EXPECT_EQ(head.find("content-length"), "5");
}

TEST(ResponseHead, FindsAnEmptyValueToo) {
  ResponseHead head;
  head.addField("A", "");
  EXPECT_EQ(head.find("a"), "");
  EXPECT_EQ(head.findAll("a"), Views{""});
}

TEST(ResponseHead, FindsNoFieldWhoseNameOnlyBeginsOrEndsSo) {
  const ResponseHead head = sample();
  for (const char* name : {"", "Set", "Cookie", "Set-Cookie2", "Set_Cookie", "a=1"}) {
    EXPECT_EQ(head.find(name), std::nullopt) << name;
    EXPECT_EQ(head.findAll(name), Views()) << name;
  }
}

TEST(ResponseHead, FindsAllFieldsOfANameInTheirOrder) {
  const ResponseHead head = sample();
  EXPECT_EQ(head.findAll("set-cookie"), (Views{"a=1", "", "b=2"}));
  EXPECT_EQ(head.findAll("CONTENT-LENGTH"), (Views{"5"}));
}

TEST(ResponseHead, ContinuesTheLastFieldBehindOneBlank) {
  ResponseHead head = sample();
  head.continueField("c");
  head.continueField("d e");
  EXPECT_EQ(fieldsOf(head), (Pairs{{"Set-Cookie", "a=1"},
                                   {"Content-Length", "5"},
                                   {"set-cookie", ""},
                                   {"SET-COOKIE", "b=2 c d e"}}));
  head.addField("Next", "n");
  EXPECT_EQ(head.findAll("set-cookie").back(), "b=2 c d e");
  EXPECT_EQ(head.find("next"), "n");
}

TEST(ResponseHead, ContinuationOfNothingOrByNothingAddsNoBlank) {
  ResponseHead head;
  head.addField("A", "");
  head.continueField("");
  EXPECT_EQ(head.find("A"), "");
  head.continueField("b");
  EXPECT_EQ(head.find("A"), "b");
  head.continueField("");
  EXPECT_EQ(head.find("A"), "b");
  head.continueField("c");
  EXPECT_EQ(head.find("A"), "b c");
}

TEST(ResponseHead, BytesAreKeptWhateverTheyAre) {
  const std::string bytes("\0\x80\xFF\t=?utf-8?q?=41?=", 20);
  ResponseHead head;
  head.setStatus(1, 200, bytes);
  head.addField("A", bytes);
  EXPECT_EQ(head.reason(), bytes);
  EXPECT_EQ(head.find("A"), bytes);
}

TEST(ResponseHead, ForgetsEverythingWhenItIsCleared) {
  ResponseHead head = sample();
  head.clear();
  EXPECT_EQ(head.status(), 0);
  EXPECT_EQ(head.minorVersion(), 0);
  EXPECT_EQ(head.reason(), "");
  EXPECT_EQ(fieldsOf(head), Pairs());
  EXPECT_EQ(head.find("Set-Cookie"), std::nullopt);
  head.addField("B", "c");
  EXPECT_EQ(head.reason(), "");
  head.setStatus(0, 404, "Gone");
  EXPECT_EQ(head.reason(), "Gone");
  EXPECT_EQ(fieldsOf(head), (Pairs{{"B", "c"}}));
}

TEST(ResponseHead, HoldsManyFields) {
  ResponseHead head;
  for (std::size_t number = 0; number < 5000; ++number) {
    head.addField("X-" + std::to_string(number), std::string(number % 50, 'v'));
  }
  ASSERT_EQ(head.fieldCount(), 5000U);
  for (std::size_t number = 0; number < 5000; ++number) {
    const ResponseHead::Field field = head.field(number);
    ASSERT_EQ(field.name, "X-" + std::to_string(number));
    ASSERT_EQ(field.value, std::string(number % 50, 'v'));
  }
}

}  // namespace
}  // namespace connectivity::plugins
