// References, as RFC 3986 resolves them, and what is no reference.
#include "plugins/http_client/exchange/Location.hpp"

#include <map>
#include <stdexcept>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace connectivity::plugins {
namespace {

using testing::HasSubstr;
using testing::ThrowsMessage;

// A request for http://current.test:8080/a/b/c?q.
Location resolve(const std::string& location) {
  return resolveLocation({"http", "current.test", 8080, "/a/b/c?q"}, location);
}

TEST(ResolveLocation, TakesAnAbsoluteUri) {
  const Location next = resolve("https://Other.Test:444/x?y=z#f");
  EXPECT_EQ(next.scheme, "https");
  EXPECT_EQ(next.host, "other.test");
  EXPECT_EQ(next.port, 444);
  EXPECT_EQ(next.target, "/x?y=z");
}

TEST(ResolveLocation, FillsInTheSchemesPort) {
  EXPECT_EQ(resolve("http://h/").port, 80);
  EXPECT_EQ(resolve("https://h/").port, 443);
  EXPECT_EQ(resolve("HTTP://h:/").port, 80);
  EXPECT_EQ(resolve("//h/x").port, 80);
}

TEST(ResolveLocation, KeepsTheServerOfARelativeReference) {
  const Location next = resolve("/x");
  EXPECT_EQ(next.scheme, "http");
  EXPECT_EQ(next.host, "current.test");
  EXPECT_EQ(next.port, 8080);
  EXPECT_EQ(resolveLocation({"http", "Mixed.Case", 80, "/"}, "/x").host, "Mixed.Case");
}

// The examples of RFC 3986, 5.4, as far as they concern http.
TEST(ResolveLocation, ResolvesAsTheStandardsExamplesDo) {
  const Location base{"http", "a", 80, "/b/c/d;p?q"};
  const std::map<std::string, std::string> examples{{"g", "/b/c/g"},
                                                    {"./g", "/b/c/g"},
                                                    {"g/", "/b/c/g/"},
                                                    {"/g", "/g"},
                                                    {"?y", "/b/c/d;p?y"},
                                                    {"g?y", "/b/c/g?y"},
                                                    {"#s", "/b/c/d;p?q"},
                                                    {"g#s", "/b/c/g"},
                                                    {"g?y#s", "/b/c/g?y"},
                                                    {";x", "/b/c/;x"},
                                                    {"g;x", "/b/c/g;x"},
                                                    {"", "/b/c/d;p?q"},
                                                    {".", "/b/c/"},
                                                    {"./", "/b/c/"},
                                                    {"..", "/b/"},
                                                    {"../", "/b/"},
                                                    {"../g", "/b/g"},
                                                    {"../..", "/"},
                                                    {"../../g", "/g"},
                                                    {"../../../g", "/g"},
                                                    {"/./g", "/g"},
                                                    {"/../g", "/g"},
                                                    {"g.", "/b/c/g."},
                                                    {"..g", "/b/c/..g"},
                                                    {"./../g", "/b/g"},
                                                    {"./g/.", "/b/c/g/"},
                                                    {"g/./h", "/b/c/g/h"},
                                                    {"g/../h", "/b/c/h"},
                                                    {"g;x=1/./y", "/b/c/g;x=1/y"},
                                                    {"g;x=1/../y", "/b/c/y"},
                                                    {"g?y/./x", "/b/c/g?y/./x"},
                                                    {"g#s/../x", "/b/c/g"}};
  for (const auto& [reference, target] : examples) {
    EXPECT_EQ(resolveLocation(base, reference).target, target) << reference;
  }
  EXPECT_EQ(resolveLocation(base, "//g").host, "g");
  EXPECT_EQ(resolveLocation(base, "//g").target, "/");
}

TEST(ResolveLocation, GivesAServerWithoutPathTheRoot) {
  EXPECT_EQ(resolve("http://h").target, "/");
  EXPECT_EQ(resolve("http://h?x").target, "/?x");
}

TEST(ResolveLocation, TakesAnIPv6Address) {
  const Location next = resolve("http://[::1]:8081/x");
  EXPECT_EQ(next.host, "::1");
  EXPECT_EQ(next.port, 8081);
}

TEST(ResolveLocation, DropsUserInformation) {
  EXPECT_EQ(resolve("http://user:secret@h:81/x").host, "h");
  EXPECT_EQ(resolve("http://user@evil@h/x").host, "h");
}

TEST(ResolveLocation, WorksOnTheEncodedText) {
  EXPECT_EQ(resolve("/a%2Fb/%2e%2e/c d?e f").target, "/a%2Fb/%2e%2e/c%20d?e%20f");
  EXPECT_EQ(resolve("/caf\xE9").target, "/caf%E9");
}

TEST(ResolveLocation, TellsASchemeThatIsNotHttp) {
  EXPECT_EQ(resolve("ftp://h/x").scheme, "ftp");
  EXPECT_EQ(resolve("mailto:someone@h").scheme, "mailto");
  EXPECT_EQ(resolve("file:///etc/passwd").scheme, "file");
}

TEST(ResolveLocation, IgnoresSpaceAroundTheText) { EXPECT_EQ(resolve("  /x ").target, "/x"); }

TEST(ResolveLocation, RefusesWhatIsNoUri) {
  const auto refuses = [](const char* location, const char* reason) {
    EXPECT_THAT([&] { resolve(location); },
                ThrowsMessage<std::runtime_error>(std::string("Invalid Location header (") +
                                                  reason + "): " + location));
  };
  refuses("http://", "no host");
  refuses("http:///x", "no host");
  refuses("http:x", "no host");
  refuses("//", "no host");
  refuses("http://h:0/", "malformed port");
  refuses("http://h:65536/", "malformed port");
  refuses("http://h:8x/", "malformed port");
  refuses("http://[::1/x", "malformed host");
  refuses("http://[x]/", "malformed host");
  refuses("http://h x/", "malformed host");
  refuses("http://h%2Fx/", "malformed host");
  refuses("http://h\\x/", "malformed host");
  refuses("1:x", "malformed scheme");
  refuses(":x", "malformed scheme");
  refuses("/%zz", "broken percent-encoding");
  refuses("/?%z", "broken percent-encoding");
}

TEST(ResolveLocation, ShowsBytesThatAreNoUtf8AsLatin1) {
  EXPECT_THAT([] { resolve("http://caf\xE9\xFF/"); },
              ThrowsMessage<std::runtime_error>(
                  "Invalid Location header (malformed host): http://caf\u00e9\u00ff/"));
}

TEST(ResolveLocation, KeepsAnEncodedWordAsItWasSent) {
  EXPECT_EQ(resolve("/=?utf-8?q?a?=").target, "/=?utf-8?q?a?=");
}

TEST(ResolveLocation, TakesTheSchemeInAnyCaseAndTheHostInLowerCase) {
  const Location next = resolve("HTTPS://OTHER.Test/X");
  EXPECT_EQ(next.scheme, "https");
  EXPECT_EQ(next.host, "other.test");
  EXPECT_EQ(next.target, "/X");
}

TEST(ResolveLocation, NeverYieldsAControlCharacter) {
  EXPECT_EQ(resolve("/x\r\nA: b").target, "/x%0D%0AA:%20b");
  EXPECT_THAT([] { resolve("http://h\r\nx/"); },
              ThrowsMessage<std::runtime_error>(HasSubstr("malformed host")));
}

TEST(LocationText, ShowsThePortOnlyWhereItIsNotTheSchemesOwn) {
  EXPECT_EQ(toString({"http", "h", 80, "/x"}), "http://h/x");
  EXPECT_EQ(toString({"https", "h", 443, "/"}), "https://h/");
  EXPECT_EQ(toString({"http", "::1", 81, "/"}), "http://[::1]:81/");
}

}  // namespace
}  // namespace connectivity::plugins
