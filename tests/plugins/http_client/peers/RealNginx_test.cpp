// The transport against the distribution's nginx: what a server that nobody here wrote makes of it.
// Skipped where nginx is not installed.
#include <map>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/Certificates.hpp"
#include "tests/support/PluginUnderTest.hpp"
#include "tests/support/RealServers.hpp"
#include "tests/support/ScriptedServer.hpp"
#include "tests/support/TemporaryDirectory.hpp"

namespace test_support {
namespace {

constexpr const char* retryLine = "processing a request, will retry once: ";

// "/connection" is answered with the number of the connection that it came on.
const std::string tellsConnection = "location /connection { return 200 \"$connection\"; }\n";

// Text that compresses, but not to nothing.
std::string numbers(int count) {
  std::string text;
  for (int i = 0; i < count; ++i) text += std::to_string(i) + (i % 10 == 9 ? "\n" : " ");
  return text;
}

class BehindNginx : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!RealNginx::available()) GTEST_SKIP() << "nginx is not installed";
  }

  RealNginx& serve(const std::string& directives, const std::string& listenFlags = "") {
    _nginx = std::make_unique<RealNginx>(tellsConnection + directives, listenFlags);
    return *_nginx;
  }
  PluginUnderTest& connect(const Config& more = Config()) {
    PluginOptions options;
    options.logLevel = QOR_LOG_DEBUG;  // without the dumps of large bodies
    _plugin.reset();
    _plugin = std::make_unique<PluginUnderTest>(Config(more).host("127.0.0.1").port(_nginx->port()),
                                                options);
    return *_plugin;
  }
  std::string connectionNow() { return _plugin->request(Request("GET", "/connection")).body(); }

 private:
  std::unique_ptr<RealNginx> _nginx;
  std::unique_ptr<PluginUnderTest> _plugin;
};

// --- Connections --------------------------------------------------------------------------------

TEST_F(BehindNginx, NoRequestIsLostWhereEachConnectionCarriesAFewOnly) {
  serve("keepalive_requests 3;");
  PluginUnderTest& plugin = connect();
  std::map<std::string, int> requestsOn;
  for (int i = 0; i < 50; ++i) {
    const Request request = i % 2 == 0 ? Request("GET", "/connection")
                                       : Request("POST", "/connection").body("some body");
    const Answer answer = plugin.request(request);
    ASSERT_EQ(answer.status(), 200) << answer.reason();
    ++requestsOn[answer.body()];
  }
  EXPECT_EQ(requestsOn.size(), 17U);
  for (const auto& [connection, count] : requestsOn) EXPECT_LE(count, 3) << connection;
  EXPECT_FALSE(plugin.log().contains(retryLine)) << "nginx says beforehand that it closes";
}

TEST_F(BehindNginx, AKeptConnectionCarriesEveryRequest) {
  serve("");
  connect();
  const std::string first = connectionNow();
  for (int i = 0; i < 20; ++i) EXPECT_EQ(connectionNow(), first);
}

TEST_F(BehindNginx, WithoutKeepAliveEveryRequestHasItsConnection) {
  serve("keepalive_timeout 0;");
  PluginUnderTest& plugin = connect();
  std::set<std::string> connections;
  for (int i = 0; i < 10; ++i) connections.insert(connectionNow());
  EXPECT_EQ(connections.size(), 10U);
  EXPECT_FALSE(plugin.log().contains(retryLine));
}

TEST_F(BehindNginx, SeveralWorkersGetEachRequestItsOwnAnswer) {
  serve("keepalive_requests 7;\nlocation /n/ { return 200 \"$request_uri\"; }");
  PluginUnderTest& plugin = connect(Config().numClients(4));
  std::vector<Message> batch;
  batch.reserve(400);
  for (int i = 0; i < 400; ++i) {
    batch.push_back(Request("GET", ("/n/" + std::to_string(i)).c_str()).id(i).message());
  }
  ASSERT_EQ(plugin.send(std::move(batch)), 0);
  std::set<long long> ids;
  for (const Answer& answer : plugin.waitForAnswers(400)) {
    EXPECT_EQ(answer.body(), "/n/" + std::to_string(answer.id()));
    EXPECT_EQ(answer.status(), 200);
    ids.insert(answer.id());
  }
  EXPECT_EQ(ids.size(), 400U);
}

// --- Bodies -------------------------------------------------------------------------------------

TEST_F(BehindNginx, FilesArriveWholeWhateverTheirCoding) {
  const std::string text = numbers(50'000);
  serve("gzip on;\ngzip_min_length 1;\ngzip_types *;").write("text.txt", text);
  PluginUnderTest& plugin = connect();
  const std::string connection = connectionNow();

  const Answer coded = plugin.request(Request("GET", "/text.txt"));
  EXPECT_EQ(coded.header("content-encoding"), "gzip");
  EXPECT_EQ(coded.header("transfer-encoding"), "chunked");
  EXPECT_TRUE(coded.body() == text);

  const Answer plain =
      plugin.request(Request("GET", "/text.txt").header("Accept-Encoding", "identity"));
  EXPECT_FALSE(plain.header("content-encoding").has_value());
  EXPECT_EQ(plain.header("content-length"), std::to_string(text.size()));
  EXPECT_TRUE(plain.body() == text);
  EXPECT_EQ(connectionNow(), connection);
}

TEST_F(BehindNginx, AnswersWithoutABodyLeaveTheConnectionInStep) {
  const RealNginx& nginx = serve("gzip on;\ngzip_min_length 1;\nlocation /none { return 204; }");
  nginx.write("page.html", numbers(1000));
  PluginUnderTest& plugin = connect();
  const std::string connection = connectionNow();

  EXPECT_EQ(plugin.request(Request("GET", "/none")).status(), 204);
  const Answer head = plugin.request(Request("HEAD", "/page.html"));
  EXPECT_EQ(head.status(), 200);
  EXPECT_EQ(head.body(), "");
  const Answer page =
      plugin.request(Request("GET", "/page.html").header("Accept-Encoding", "identity"));
  const std::string tag = page.header("etag").value_or("");
  ASSERT_FALSE(tag.empty());
  const Answer same = plugin.request(Request("GET", "/page.html").header("If-None-Match", tag));
  EXPECT_EQ(same.status(), 304);
  EXPECT_EQ(same.body(), "");
  EXPECT_EQ(connectionNow(), connection);
}

TEST_F(BehindNginx, APartOfAFileIsDelivered) {
  serve("").write("text.txt", "0123456789");
  const Answer answer = connect().request(Request("GET", "/text.txt").header("Range", "bytes=2-4"));
  EXPECT_EQ(answer.status(), 206);
  EXPECT_EQ(answer.body(), "234");
  EXPECT_EQ(answer.header("content-range"), "bytes 2-4/10");
}

TEST_F(BehindNginx, ALargeFileArrivesWholeOrAsItsEnds) {
  const std::string text = numbers(2'000'000);
  serve("").write("large.bin", text);
  PluginUnderTest& plugin = connect();
  EXPECT_TRUE(plugin.request(Request("GET", "/large.bin")).body() == text);
  const Answer start =
      plugin.request(Request("GET", "/large.bin").limit(100).policy("TRUNCATE_END"));
  EXPECT_EQ(start.status(), 200);
  EXPECT_TRUE(start.body().starts_with(text.substr(0, 90'000)));
  EXPECT_LE(start.body().size(), 100'000U);
  const Answer refused = plugin.request(Request("GET", "/large.bin").limit(100).policy("REJECT"));
  EXPECT_EQ(refused.status(), 413);
  EXPECT_EQ(plugin.request(Request("GET", "/connection")).status(), 200);
}

TEST_F(BehindNginx, ALargeUploadArrivesWholeAndComesBack) {
  ScriptedServer behind([](Connection& connection) {
    while (const auto request = connection.readRequest()) {
      connection.sendResponse(200, {{"X-Method", request->method}}, request->body);
    }
  });
  serve("client_max_body_size 100m;\nlocation /echo { proxy_pass http://127.0.0.1:" +
        std::to_string(behind.port()) + "; }");
  PluginUnderTest& plugin = connect();
  const std::string text = numbers(1'000'000);
  for (const char* const method : {"POST", "PUT"}) {
    const Answer answer = plugin.request(Request(method, "/echo").body(text));
    EXPECT_EQ(answer.status(), 200) << answer.reason();
    EXPECT_EQ(answer.header("x-method"), method);
    EXPECT_TRUE(answer.body() == text);
  }
}

TEST_F(BehindNginx, ABodyThatIsTooLargeIsAnsweredWhileItIsSent) {
  serve("client_max_body_size 1k;");
  PluginUnderTest& plugin = connect();
  const Answer answer = plugin.request(Request("POST", "/x").body(std::string(3'000'000, 'x')));
  EXPECT_EQ(answer.status(), 413) << answer.reason();
  EXPECT_FALSE(answer.isError()) << "the answer is the server's";
  EXPECT_NE(answer.body().find("413 Request Entity Too Large"), std::string::npos);
  EXPECT_EQ(plugin.request(Request("POST", "/connection").body("fits")).status(), 200);
  EXPECT_EQ(plugin.answerCount(), 2U);
}

// --- Redirects and credentials ------------------------------------------------------------------

TEST_F(BehindNginx, RedirectsAreFollowed) {
  const RealNginx& nginx = serve(
      "location /from { return 302 /connection; }\n"
      "location /see { return 303 /connection; }\n"
      "location /moved { return 308 /connection?x=%2F; }\n"
      "location /loop { return 301 /loop; }");
  nginx.write("folder/index.html", "in the folder");
  PluginUnderTest& plugin = connect();
  const std::string connection = connectionNow();
  for (const char* const path : {"/from", "/see", "/moved"}) {
    const Answer answer = plugin.request(Request("POST", path).body("x"));
    EXPECT_EQ(answer.body(), connection) << path << ' ' << answer.reason();
    EXPECT_EQ(answer.text("http/path"), path);
  }
  EXPECT_EQ(plugin.request(Request("GET", "/folder")).body(), "in the folder");
  EXPECT_EQ(plugin.request(Request("GET", "/loop")).reason(), "Maximum redirects exceeded");
  EXPECT_EQ(connectionNow(), connection);
}

TEST_F(BehindNginx, BasicAuthenticationIsAccepted) {
  const TemporaryDirectory directory;
  const std::string users = directory.write("users", "user:{PLAIN}p@ss/word\n");
  serve("location /closed { auth_basic \"realm\";\nauth_basic_user_file " + users + ";\nroot " +
        directory.path().string() + "; }");
  directory.write("closed", "opened");
  EXPECT_EQ(connect(Config().basicAuthentication("user", "p@ss/word"))
                .request(Request("GET", "/closed"))
                .body(),
            "opened");
  EXPECT_EQ(connect(Config().basicAuthentication("user", "wrong"))
                .request(Request("GET", "/closed"))
                .status(),
            401);
}

// --- TLS ----------------------------------------------------------------------------------------

class BehindNginxTls : public BehindNginx, public ::testing::WithParamInterface<const char*> {
 protected:
  std::string secured(const CertificateFiles& files) const {
    return "ssl_certificate " + files.certificate + ";\nssl_certificate_key " + files.key +
           ";\nssl_protocols " + GetParam() +
           ";\nkeepalive_requests 3;\nlocation /protocol { return 200 \"$ssl_protocol\"; }";
  }
  CertificateAuthority _authority;
};

TEST_P(BehindNginxTls, IsSpokenOnEveryConnection) {
  const RealNginx& nginx = serve(secured(_authority.issue()), "ssl");
  const std::string text = numbers(300'000);
  nginx.write("large.txt", text);
  PluginUnderTest& plugin = connect(Config().tls(_authority.caFile()));
  for (int i = 0; i < 10; ++i) {
    const Answer answer = plugin.request(Request("GET", "/protocol"));
    EXPECT_EQ(answer.body(), GetParam()) << answer.reason();
  }
  EXPECT_TRUE(plugin.request(Request("GET", "/large.txt")).body() == text);
  EXPECT_FALSE(plugin.log().contains(retryLine));
}

TEST_P(BehindNginxTls, OfAnotherAuthorityIsRefused) {
  serve(secured(_authority.issue()), "ssl");
  const CertificateAuthority other("Another Authority");
  PluginUnderTest& plugin = connect(Config().tls(other.caFile()));
  const Answer answer = plugin.request(Request("GET", "/protocol"));
  EXPECT_EQ(answer.status(), 400);
  EXPECT_NE(answer.reason().find("certificate verify failed"), std::string::npos)
      << answer.reason();
}

INSTANTIATE_TEST_SUITE_P(Versions, BehindNginxTls, ::testing::Values("TLSv1.2", "TLSv1.3"));

TEST_F(BehindNginx, PlainHttpToATlsPortIsTheServersAnswer) {
  CertificateAuthority authority;
  const CertificateFiles files = authority.issue();
  serve("ssl_certificate " + files.certificate + ";\nssl_certificate_key " + files.key + ";",
        "ssl");
  EXPECT_EQ(connect().request(Request("GET", "/connection")).status(), 400);
}

}  // namespace
}  // namespace test_support
