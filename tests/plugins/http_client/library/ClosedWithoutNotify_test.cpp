// A TLS connection that ends without saying so (no close_notify): well behind a body whose end was
// announced, an error where nothing but the end of the connection ends the body, since nobody could
// tell it from an attack.
#include <ostream>
#include <string>

#include <gtest/gtest.h>

#include "tests/plugins/http_client/Answering.hpp"
#include "tests/plugins/http_client/PlainOrTls.hpp"
#include "tests/support/Certificates.hpp"

namespace test_support {
namespace {

// What a server sends before it goes without a word.
struct Sent {
  const char* name;
  std::string bytes;
  std::string body;        // of the answer, where it is the server's
  const char* error = "";  // else the error's text
  const char* method = "GET";
};

void PrintTo(const Sent& sent, std::ostream* out) { *out << sent.name; }
std::string nameOf(const ::testing::TestParamInfo<Sent>& info) { return info.param.name; }

class ClosedWithoutNotify : public ::testing::TestWithParam<Sent> {
 protected:
  static void expectAnswer() {
    for (const TlsVersion version : {TlsVersion::Only12, TlsVersion::Only13}) expectAnswer(version);
  }

 private:
  static void expectAnswer(TlsVersion version) {
    const Sent& sent = GetParam();
    CertificateAuthority authority;
    TlsOptions options{authority.issue()};
    options.version = version;
    ScriptedServer server({[&](Connection& connection) {
                             connection.readRequest();
                             connection.send(sent.bytes);
                             connection.closeWithoutNotify();
                           },
                           answerWithTarget},
                          options);
    PluginUnderTest plugin(oneClient(server.port()).tls(authority.caFile()));
    const Answer answer = plugin.request(Request(sent.method, "/x"));
    EXPECT_EQ(answer.isError(), *sent.error != '\0') << answer.reason();
    EXPECT_EQ(answer.body(), *sent.error != '\0' ? sent.error : sent.body);
    EXPECT_EQ(plugin.statusItem(".status"), *sent.error != '\0' ? "FAILED" : "ONLINE");
    EXPECT_EQ(server.requestCount(), 1U);
    server.waitForEndedConnections(1);
    expectInStep(plugin, server, 2);
  }
};

class EndThatWasAnnounced : public ClosedWithoutNotify {};
class EndThatWasNotAnnounced : public ClosedWithoutNotify {};
class EndThatCameTooEarly : public ClosedWithoutNotify {};

TEST_P(EndThatWasAnnounced, IsTheAnswers) { expectAnswer(); }
TEST_P(EndThatWasNotAnnounced, IsASeriousError) { expectAnswer(); }
TEST_P(EndThatCameTooEarly, IsAnError) { expectAnswer(); }

std::string ok(const std::string& fields, const std::string& body = "") {
  return "HTTP/1.1 200 OK\r\n" + fields + "\r\n" + body;
}
std::string ofLength(const std::string& body, const std::string& fields = "") {
  return ok(fields + "Content-Length: " + std::to_string(body.size()) + "\r\n", body);
}
std::string coded(const char* coding) {
  return std::string("Content-Encoding: ") + coding + "\r\n";
}
INSTANTIATE_TEST_SUITE_P(
    Of, EndThatWasAnnounced,
    ::testing::Values(Sent{"ALength", ofLength("whole"), "whole"},
                      Sent{"ALengthOfNought", ofLength(""), ""},
                      Sent{"Chunks", chunked(chunk("who") + chunk("le") + "0\r\n\r\n"), "whole"},
                      Sent{"ChunksWithTrailers", chunked(chunk("whole") + "0\r\nT: v\r\n\r\n"),
                           "whole"},
                      Sent{"NoContent", "HTTP/1.1 204 No Content\r\n\r\n", ""},
                      Sent{"NotModified", "HTTP/1.1 304 X\r\nContent-Length: 9\r\n\r\n", ""},
                      Sent{"AnAnswerToHead", ok("Content-Length: 9\r\n"), "", "", "HEAD"},
                      Sent{"GzipOfALength", ofLength(gzip("whole"), coded("gzip")), "whole"},
                      Sent{"DeflateInChunks",
                           ok(coded("deflate") + "Transfer-Encoding: chunked\r\n",
                              chunk(zlib("whole")) + "0\r\n\r\n"),
                           "whole"}),
    nameOf);

INSTANTIATE_TEST_SUITE_P(
    Of, EndThatWasNotAnnounced,
    ::testing::Values(Sent{"SomeBytes", ok("", "whole"), "", broken},
                      Sent{"NoBytes", ok(""), "", broken},
                      Sent{"ManyBytes", ok("", noise(300'000)), "", broken},
                      Sent{"Identity", ok("Transfer-Encoding: identity\r\n", "whole"), "", broken},
                      Sent{"AnOldVersion", "HTTP/1.0 200 OK\r\n\r\nwhole", "", broken},
                      Sent{"Gzip", ok(coded("gzip"), gzip("whole")), "", broken},
                      Sent{"Deflate", ok(coded("deflate"), zlib("whole")), "", broken},
                      Sent{"DeflateWithBytesBehindIt", ok(coded("deflate"), zlib("whole") + "more"),
                           "", broken}),
    nameOf);

INSTANTIATE_TEST_SUITE_P(
    Within, EndThatCameTooEarly,
    ::testing::Values(Sent{"ALength", ok("Content-Length: 9\r\n", "short"), "", cutShort},
                      Sent{"ALengthOfWhichNothingCame", ok("Content-Length: 9\r\n"), "", cutShort},
                      Sent{"AChunk", chunked("9\r\nshort"), "", cutShort},
                      Sent{"Chunks", chunked(chunk("short")), "", cutShort},
                      Sent{"TheLastChunk", chunked(chunk("short") + "0\r\n"), "", cutShort},
                      Sent{"TheHead", "HTTP/1.1 200 OK\r\nContent-Le", "",
                           "SSL connection unexpectedly closed: The server closed the connection "
                           "without ending TLS"}),
    nameOf);

// --- Beside them --------------------------------------------------------------------------------

// A body that is cut at its limit has its end there.
TEST(ClosedWithoutNotifyBehindALimit, IsNoError) {
  CertificateAuthority authority;
  const std::string body = noise(300'000);
  ScriptedServer server(
      [&](Connection& connection) {
        connection.readRequest();
        connection.send(ok("", body));
        connection.closeWithoutNotify();
      },
      TlsOptions{authority.issue()});
  PluginUnderTest plugin(oneClient(server.port()).tls(authority.caFile()), terse());
  Request request("GET", "/x");
  request.limit(1).policy("TRUNCATE_END");
  EXPECT_EQ(plugin.request(request).body(), body.substr(0, 1000) + "[TRUNCATED]");
}

TEST(ClosedWithNotify, EndsABodyOfUnknownLength) {
  CertificateAuthority authority;
  for (const std::string& response :
       {ok("", "whole"), ok(coded("gzip"), gzip("whole")), ok(coded("deflate"), zlib("whole"))}) {
    ScriptedServer server({once(response), answerWithTarget}, TlsOptions{authority.issue()});
    PluginUnderTest plugin(oneClient(server.port()).tls(authority.caFile()));
    const Answer answer = plugin.request(Request("GET", "/x"));
    EXPECT_EQ(answer.status(), 200);
    EXPECT_EQ(answer.body(), "whole");
    expectInStep(plugin, server, 2);
  }
}

TEST(ClosedWithNotify, WithinAnAnnouncedBodyIsAnError) {
  CertificateAuthority authority;
  ScriptedServer server({once(ok("Content-Length: 9\r\n", "short")), answerWithTarget},
                        TlsOptions{authority.issue()});
  PluginUnderTest plugin(oneClient(server.port()).tls(authority.caFile()));
  EXPECT_EQ(plugin.request(Request("GET", "/x")).reason(), cutShort);
  expectInStep(plugin, server, 2);
}

}  // namespace
}  // namespace test_support
