// What a server sent, in the texts about it: valid UTF-8 in reasons and payloads, and without
// control characters in the log, where a terminal may show it.
#include <ostream>
#include <string>

#include <gtest/gtest.h>

#include "tests/plugins/http_client/Answering.hpp"
#include "tests/support/Certificates.hpp"
#include "tests/support/ScriptedProxy.hpp"

namespace test_support {
namespace {

using std::string_literals::operator""s;

// Bytes that are no UTF-8, what a terminal obeys (ESC, BEL, DEL, and CSI as one byte), and how they
// read as ISO-8859-1.
const std::string nasty =
    "\xE9\xFF\x80\x1B[31m\x07\x7F\x9B"
    "2J";
const std::string nastyAsText =
    "\u00e9\u00ff\u0080\x1B[31m\x07\x7F\u009b"
    "2J";
// The same in the log.
const std::string nastyInTheLog =
    "\u00e9\u00ff\\u0080\\x1b[31m\\x07\\x7f\\u009b"
    "2J";

// No line of the log can move a cursor.
void expectCleanLog(const LogDouble& log) {
  for (const LogLine& line : log.lines()) {
    EXPECT_TRUE(isUtf8(line.text)) << line.text;
    EXPECT_FALSE(holdsControlCharacters(line.text)) << line.text;
  }
}

struct Peer {
  const char* name;
  std::string bytes;
  std::string text;  // of the answer's payload
};

void PrintTo(const Peer& peer, std::ostream* out) { *out << peer.name; }
std::string nameOf(const ::testing::TestParamInfo<Peer>& info) { return info.param.name; }

// --- Errors -------------------------------------------------------------------------------------

class ErrorAboutAPeer : public ::testing::TestWithParam<Peer> {};

TEST_P(ErrorAboutAPeer, IsUtf8AndEscapedInTheLog) {
  ScriptedServer server(once(GetParam().bytes));
  PluginUnderTest plugin(oneClient(server.port()));
  const Answer answer = plugin.request(Request("GET", "/x"));
  expectError(answer, malformed);
  EXPECT_EQ(answer.reason(), malformed + GetParam().text);
  EXPECT_EQ(answer.text("http/charset"), "utf-8");
  expectCleanLog(plugin.log());
  EXPECT_TRUE(plugin.log().contains("Caught exception processing a request: Malformed message ("));
}

std::string field(const std::string& line) { return "HTTP/1.1 200 OK\r\n" + line + "\r\n\r\n"; }

INSTANTIATE_TEST_SUITE_P(
    Of, ErrorAboutAPeer,
    ::testing::Values(Peer{"AStatusLine", "HTTP/1.1 20" + nasty + "\r\n\r\n",
                           "Malformed status line in the response: HTTP/1.1 20" + nastyAsText},
                      Peer{"AStatusLineWithANul", "HTTP/1.1 20\0x\r\n\r\n"s,
                           "Malformed status line in the response: HTTP/1.1 20\\x00x"},
                      Peer{"ALongStatusLine", "HTTP/1.1 " + std::string(300, '\xE9') + "\r\n\r\n",
                           "Malformed status line in the response: HTTP/1.1 " +
                               [] {
                                 std::string text;
                                 for (int i = 0; i < 91; ++i) text += "\u00e9";
                                 return text;
                               }()},
                      Peer{"ALength", field("Content-Length: 5" + nasty),
                           "Malformed Content-Length in the response: 5" + nastyAsText},
                      Peer{"LengthsThatDiffer",
                           field("Content-Length: 1\r\nContent-Length: 2\r\nX: " + nasty),
                           "Contradictory Content-Length in the response: 1, 2"},
                      Peer{"ATransferCoding", field("Transfer-Encoding: " + nasty),
                           "Unsupported Transfer-Encoding in the response: " + nastyAsText},
                      Peer{"AName", field("X" + nasty + ": a"),
                           "Malformed header line 1 in the response: no field name"},
                      Peer{"AnotherProtocol", nasty + "\r\n\r\n", "The response is not HTTP"}),
    nameOf);

TEST(ErrorAboutAPeer, IsInTheLogWithItsControlCharactersEscaped) {
  ScriptedServer server(once("HTTP/1.1 20" + nasty + "\r\n\r\n"));
  PluginUnderTest plugin(oneClient(server.port()));
  plugin.request(Request("GET", "/x"));
  const auto line = plugin.log().find("Caught exception processing a request");
  ASSERT_TRUE(line.has_value());
  EXPECT_TRUE(line->text.ends_with(
      "Caught exception processing a request: Malformed message (Malformed status line in the "
      "response: HTTP/1.1 20" +
      nastyInTheLog + ")"))
      << line->text;
  EXPECT_EQ(line->level, QOR_LOG_WARN);
}

// Every byte but those that end a line.
TEST(ErrorAboutAPeer, TakesEveryByteForALetterOfIso88591) {
  std::string bytes;
  std::string text;
  for (int code = 1; code < 256; ++code) {
    if (code == '\n' || code == '\r') continue;
    const auto byte = static_cast<char>(code);
    bytes = "HTTP/1.1 2"s + byte;
    text = code < 0x80 ? std::string(1, byte)
                       : std::string{static_cast<char>(0xC0 | (code >> 6)),
                                     static_cast<char>(0x80 | (code & 0x3F))};
    ScriptedServer server(once(bytes + "\r\n\r\n"));
    PluginUnderTest plugin(oneClient(server.port()));
    EXPECT_EQ(plugin.request(Request("GET", "/x")).reason(),
              malformed + ("Malformed status line in the response: HTTP/1.1 2" + text))
        << code;
    expectCleanLog(plugin.log());
    if (::testing::Test::HasFailure()) return;
  }
}

// --- Answers ------------------------------------------------------------------------------------

TEST(PeerTextOfAnAnswer, IsUtf8AndEscapedInTheLog) {
  ScriptedServer server(firstGets("HTTP/1.1 299 " + nasty + "\r\nX-A: " + nasty +
                                  "\r\nX-A: again\r\nContent-Length: 2\r\n\r\nok"));
  PluginUnderTest plugin(oneClient(server.port()));
  const Answer answer = plugin.request(Request("GET", "/x"));
  EXPECT_EQ(answer.status(), 299);
  EXPECT_EQ(answer.reason(), nastyAsText);
  EXPECT_EQ(answer.header("x-a"), nastyAsText);
  expectCleanLog(plugin.log());
  EXPECT_TRUE(plugin.log().contains("response header x-a = " + nastyInTheLog));
}

TEST(PeerTextOfAnAnswer, AboutItsCodingIsUtf8AndEscapedInTheLog) {
  ScriptedServer server(
      firstGets("HTTP/1.1 200 OK\r\nContent-Encoding: " + nasty + "\r\nContent-Length: 0\r\n\r\n"));
  PluginUnderTest plugin(oneClient(server.port()));
  const Answer answer = plugin.request(Request("GET", "/x"));
  EXPECT_EQ(answer.status(), 200);
  EXPECT_EQ(answer.body(), "Unsupported Media Type: " + nastyAsText);
  expectCleanLog(plugin.log());
  EXPECT_TRUE(plugin.log().contains("Unsupported Media Type: " + nastyInTheLog));
}

TEST(PeerTextOfAnAnswer, OfItsTypeIsUtf8) {
  const Answer answer = answerTo("HTTP/1.1 200 OK\r\nContent-Type: a/b; charset=" + nasty +
                                 "\r\nContent-Length: 0\r\n\r\n");
  EXPECT_EQ(answer.status(), 200);
  EXPECT_TRUE(isUtf8(answer.text("charset").value_or("\xFF")));
}

// A body is the host's, byte for byte; only what is logged of it is escaped.
TEST(PeerTextOfAnAnswer, LeavesItsBodyAlone) {
  ScriptedServer server(firstGets(
      "HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string(nasty.size()) + "\r\n\r\n" + nasty));
  PluginUnderTest plugin(oneClient(server.port()));
  EXPECT_EQ(plugin.request(Request("GET", "/x")).body(), nasty);
  expectCleanLog(plugin.log());
}

TEST(PeerTextOfAnAnswer, AboutItsCookiesIsEscapedInTheLog) {
  ScriptedServer server(firstGets("HTTP/1.1 200 OK\r\nSet-Cookie: a=" + nasty +
                                  "\r\nSet-Cookie: " + nasty + "=b\r\nSet-Cookie: =" + nasty +
                                  "\r\nSet-Cookie: good=yes\r\nContent-Length: 2\r\n\r\nok"));
  PluginUnderTest plugin(oneClient(server.port()).set("cookieJar", true));
  const Answer answer = plugin.request(Request("GET", "/x"));
  EXPECT_EQ(answer.body(), "ok");
  EXPECT_EQ(answer.cookie("good"), "yes");
  expectCleanLog(plugin.log());
}

// --- Redirects ----------------------------------------------------------------------------------

TEST(PeerTextOfARedirect, IsUtf8AndEscapedInTheLog) {
  const std::string locations[] = {"/" + nasty,
                                   "http://" + nasty + "/",
                                   "https://x/" + nasty,
                                   "ftp://" + nasty,
                                   "http://127.0.0.1:" + nasty,
                                   "http://[" + nasty + "]/",
                                   "//" + nasty,
                                   "%zz" + nasty};
  for (const std::string& location : locations) {
    ScriptedServer server(firstGets("HTTP/1.1 302 " + nasty + "\r\nLocation: " + location +
                                    "\r\nContent-Length: 0\r\n\r\n"));
    PluginUnderTest plugin(oneClient(server.port()));
    const Answer answer = plugin.request(Request("GET", "/x"));
    EXPECT_TRUE(isUtf8(answer.reason())) << location;
    EXPECT_TRUE(!answer.isError() || isUtf8(answer.body())) << location;
    expectCleanLog(plugin.log());
  }
}

// --- Proxies ------------------------------------------------------------------------------------

TEST(PeerTextOfAProxy, IsUtf8AndEscapedInTheLog) {
  CertificateAuthority authority;
  ScriptedServer proxy([](Connection& connection) {
    connection.readRequest();
    connection.send("HTTP/1.1 403 " + nasty + "\r\nContent-Length: 0\r\n\r\n");
  });
  PluginUnderTest plugin(oneClient(443).tls(authority.caFile()).proxy(proxy.port()));
  const Answer answer = plugin.request(Request("GET", "/x"));
  expectError(answer, "");
  EXPECT_TRUE(answer.reason().ends_with("403 " + nastyAsText)) << answer.reason();
  expectCleanLog(plugin.log());
  EXPECT_TRUE(plugin.log().contains("403 " + nastyInTheLog));
}

}  // namespace
}  // namespace test_support
