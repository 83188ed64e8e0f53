#include "plugins/http_client/request/RequestTarget.hpp"

#include <stdexcept>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "plugins/http_client/request/Refusal.hpp"

namespace connectivity::plugins {
namespace {

using testing::ThrowsMessage;

std::string targetOf(const std::string& path) { return requestTarget("", path, {}); }

TEST(RequestTarget, JoinsBasePathAndPathAsTheyStand) {
  EXPECT_EQ(requestTarget("/api", "/x", {}), "/api/x");
  EXPECT_EQ(requestTarget("/api/", "/x", {}), "/api//x");
  EXPECT_EQ(requestTarget("/api", "x", {}), "/apix");
  EXPECT_EQ(requestTarget("", "", {}), "/");
}

TEST(RequestTarget, AddsTheLeadingSlashThatIsMissing) {
  EXPECT_EQ(targetOf("x/y"), "/x/y");
  EXPECT_EQ(targetOf("?a=b"), "/?a=b");
}

TEST(RequestTarget, IsAPathAlsoWhereItLooksLikeAServer) {
  EXPECT_EQ(targetOf("//host/x"), "//host/x");
  EXPECT_EQ(targetOf("http://host/x"), "/http://host/x");
}

TEST(RequestTarget, KeepsTheQueryOfThePathAndAppendsTheParameters) {
  EXPECT_EQ(requestTarget("/b", "/x?a=1&b", {{"c", "2"}, {"d", "3"}}), "/b/x?a=1&b&c=2&d=3");
  EXPECT_EQ(requestTarget("", "/x?", {{"c", "2"}}), "/x?c=2");
  EXPECT_EQ(requestTarget("", "/x", {{"c", "2"}}), "/x?c=2");
  EXPECT_EQ(targetOf("/x?"), "/x?");
  EXPECT_EQ(targetOf("/x?a=?/b"), "/x?a=?/b");
}

TEST(RequestTarget, DropsTheFragment) {
  EXPECT_EQ(targetOf("/x#top"), "/x");
  EXPECT_EQ(targetOf("/x?a=b#top?c"), "/x?a=b");
  EXPECT_EQ(requestTarget("", "/x#top", {{"c", "2"}}), "/x?c=2");
}

TEST(RequestTarget, LeavesEncodedOctetsAsTheyWereGiven) {
  EXPECT_EQ(targetOf("/a%2Fb%2fc%41?q=%26%7e"), "/a%2Fb%2fc%41?q=%26%7e");
}

TEST(RequestTarget, LeavesDotSegmentsAsTheyWereGiven) {
  EXPECT_EQ(targetOf("/a/../b/./c"), "/a/../b/./c");
}

TEST(RequestTarget, EncodesWhatAPathMayNotHold) {
  EXPECT_EQ(targetOf("/a b"), "/a%20b");
  EXPECT_EQ(targetOf("/caf\xC3\xA9"), "/caf%C3%A9");
  EXPECT_EQ(targetOf("/\"<>\\^`{|}[]"), "/%22%3C%3E%5C%5E%60%7B%7C%7D%5B%5D");
  EXPECT_EQ(targetOf("/-._~!$&'()*+,;=:@"), "/-._~!$&'()*+,;=:@");
}

TEST(RequestTarget, EncodesWhatAQueryMayNotHold) {
  EXPECT_EQ(targetOf("/?a b|\xC3\xA9"), "/?a%20b%7C%C3%A9");
}

TEST(RequestTarget, NeverHoldsAControlCharacter) {
  EXPECT_EQ(targetOf("/x HTTP/1.1\r\nA: b"), "/x%20HTTP/1.1%0D%0AA:%20b");
  EXPECT_EQ(targetOf(std::string("/a\0b?c\0d", 8)), "/a%00b?c%00d");
}

TEST(RequestTarget, EncodesQueryParameters) {
  EXPECT_EQ(requestTarget("", "/", {{"a&b", "c=d e+f%"}, {"\xC3\xA9", "#?"}}),
            "/?a%26b=c%3Dd%20e%2Bf%25&%C3%A9=%23%3F");
}

TEST(RequestTarget, NeverLetsAQueryParameterEndTheTarget) {
  EXPECT_EQ(requestTarget("", "/", {{"a", "b\r\nc"}}), "/?a=b%0D%0Ac");
}

TEST(RequestTarget, RefusesBrokenEscapesAndShowsThem) {
  const auto message = [](const char* text) { return ThrowsMessage<std::runtime_error>(text); };
  EXPECT_THAT([] { targetOf("/%zz"); }, message("Invalid percent-encoding in http.path: /%zz"));
  EXPECT_THAT([] { targetOf("/%4"); }, message("Invalid percent-encoding in http.path: /%4"));
  EXPECT_THAT([] { targetOf("/x%"); }, message("Invalid percent-encoding in http.path: /x%"));
  EXPECT_THAT([] { targetOf("/x?a=%g1"); },
              message("Invalid percent-encoding in the query of http.path: a=%g1"));
}

TEST(RequestTarget, RefusesWhatItCannotSend) {
  EXPECT_THROW(targetOf("/%zz"), RefusedRequest);
  EXPECT_THROW(targetOf("/?%zz"), RefusedRequest);
}

// --- a query behind a target --------------------------------------------------------------------

TEST(TargetWithQuery, PutsItBehindTheQueryThatIsThere) {
  EXPECT_EQ(withQuery("/x", "a=1"), "/x?a=1");
  EXPECT_EQ(withQuery("/x?", "a=1"), "/x?a=1");
  EXPECT_EQ(withQuery("/x?b", "a=1"), "/x?b&a=1");
  EXPECT_EQ(withQuery("/x?b=?", "a=1"), "/x?b=?&a=1");
}

TEST(TargetWithQuery, LeavesTheTargetWithoutOne) {
  EXPECT_EQ(withQuery("/x", ""), "/x");
  EXPECT_EQ(withQuery("/x?", ""), "/x?");
}

}  // namespace
}  // namespace connectivity::plugins
