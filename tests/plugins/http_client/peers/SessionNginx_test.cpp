// The transport against the distribution's nginx; skipped where that is not installed.
#include <string>

#include <gtest/gtest.h>

#include "tests/support/Certificates.hpp"
#include "tests/support/PluginUnderTest.hpp"
#include "tests/support/RealServers.hpp"

namespace test_support {
namespace {

class Nginx : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!RealNginx::available()) GTEST_SKIP() << "nginx is not installed";
  }
};

TEST_F(Nginx, ServesFilesPlainCodedAndByRange) {
  const RealNginx nginx("gzip on; gzip_min_length 1; gzip_types text/plain;");
  const std::string text(200'000, 'x');
  nginx.write("a.txt", text);
  PluginUnderTest plugin{Config(nginx.port())};
  const Answer coded = plugin.request(Request("GET", "/a.txt"));
  EXPECT_EQ(coded.status(), 200);
  EXPECT_EQ(coded.header("content-encoding"), "gzip");
  EXPECT_EQ(coded.text("contentType"), "text/plain");
  EXPECT_TRUE(coded.body() == text);
  const Answer plain =
      plugin.request(Request("GET", "/a.txt").header("Accept-Encoding", "identity"));
  EXPECT_EQ(plain.header("content-encoding"), std::nullopt);
  EXPECT_TRUE(plain.body() == text);
  const Answer part = plugin.request(
      Request("GET", "/a.txt").header("Range", "bytes=0-9").header("Accept-Encoding", "identity"));
  EXPECT_EQ(part.status(), 206);
  EXPECT_EQ(part.body(), std::string(10, 'x'));
}

TEST_F(Nginx, AnswersRequestsWithoutBodies) {
  const RealNginx nginx("location /none { return 204; }");
  nginx.write("a.txt", "text");
  PluginUnderTest plugin{Config(nginx.port())};
  const Answer head = plugin.request(Request("HEAD", "/a.txt"));
  EXPECT_EQ(head.status(), 200);
  EXPECT_EQ(head.header("content-length"), "4");
  EXPECT_EQ(head.body(), "");
  EXPECT_EQ(plugin.request(Request("GET", "/none")).status(), 204);
  const auto tag = plugin.request(Request("GET", "/a.txt")).header("etag");
  ASSERT_TRUE(tag.has_value());
  EXPECT_EQ(plugin.request(Request("GET", "/a.txt").header("If-None-Match", *tag)).status(), 304);
  EXPECT_EQ(plugin.request(Request("GET", "/absent")).status(), 404);
}

TEST_F(Nginx, EndsConnectionsAndEveryRequestIsAnswered) {
  const RealNginx nginx("keepalive_requests 3;");
  nginx.write("a.txt", "text");
  PluginUnderTest plugin(Config(nginx.port()).numClients(3));
  for (long long id = 1; id <= 60; ++id) plugin.send(Request("GET", "/a.txt").id(id));
  for (const auto& answer : plugin.waitForAnswers(60)) {
    EXPECT_EQ(answer.status(), 200) << answer.reason();
    EXPECT_EQ(answer.body(), "text");
  }
  EXPECT_FALSE(plugin.log().contains("will retry once: "));
}

TEST_F(Nginx, SpeaksTls) {
  CertificateAuthority authority;
  const auto files = authority.issue();
  const RealNginx nginx("ssl_certificate " + files.certificate + "; ssl_certificate_key " +
                            files.key + "; keepalive_requests 3;",
                        "ssl");
  nginx.write("a.txt", std::string(300'000, 'x'));
  PluginUnderTest plugin(Config(nginx.port()).tls(authority.caFile()).numClients(2));
  for (long long id = 1; id <= 20; ++id) plugin.send(Request("GET", "/a.txt").id(id));
  for (const auto& answer : plugin.waitForAnswers(20)) {
    EXPECT_EQ(answer.status(), 200) << answer.reason();
    EXPECT_EQ(answer.body().size(), 300'000U);
  }
}

}  // namespace
}  // namespace test_support
