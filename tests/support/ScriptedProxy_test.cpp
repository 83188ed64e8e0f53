// The scripted proxy, seen from a bare socket.
#include "tests/support/ScriptedProxy.hpp"

#include <array>
#include <string>
#include <sys/socket.h>

#include <gtest/gtest.h>

namespace test_support {
namespace {

// Sends all of it and reads until the other side closes.
std::string exchange(int port, const std::string& bytes) {
  const auto socket = connectToLoopback(port);
  EXPECT_TRUE(writeAll(socket.get(), bytes));
  std::string all;
  std::array<char, 4096> piece{};
  for (;;) {
    const auto got = ::recv(socket.get(), piece.data(), piece.size(), 0);
    if (got <= 0) return all;
    all.append(piece.data(), static_cast<std::size_t>(got));
  }
}

TEST(ScriptedProxy, ForwardsAbsoluteFormInOriginForm) {
  ScriptedServer server;
  server.answer("/x", {200, {}, "through"});
  ScriptedProxy proxy;
  const auto address = "127.0.0.1:" + std::to_string(server.port());
  const auto answer =
      exchange(proxy.port(), "GET http://" + address + "/x?a=b HTTP/1.1\r\nHost: " + address +
                                 "\r\nProxy-Authorization: Basic eA==\r\n\r\n");
  EXPECT_TRUE(answer.ends_with("through")) << answer;
  EXPECT_EQ(server.request(0).target, "/x?a=b");
  EXPECT_EQ(server.request(0).header("proxy-authorization"), std::nullopt);
  EXPECT_EQ(proxy.request(0).header("proxy-authorization"), "Basic eA==");
}

TEST(ScriptedProxy, TunnelsToThePortItIsTold) {
  ScriptedServer server;
  server.answer("/x", {200, {}, "inside"});
  ScriptedProxy proxy({.targetPort = server.port(), .credentials = {}, .refuseConnect = {}});
  const auto answer = exchange(proxy.port(),
                               "CONNECT elsewhere.test:443 HTTP/1.1\r\n\r\n"
                               "GET /x HTTP/1.1\r\nConnection: close\r\n\r\n");
  EXPECT_TRUE(answer.starts_with("HTTP/1.1 200 Connection established\r\n\r\nHTTP/1.1 200 OK"));
  EXPECT_TRUE(answer.ends_with("inside"));
  EXPECT_EQ(proxy.tunnelCount(), 1U);
  EXPECT_EQ(proxy.request(0).target, "elsewhere.test:443");
}

TEST(ScriptedProxy, WantsItsCredentials) {
  ScriptedProxy proxy({.targetPort = {}, .credentials = "user:pass", .refuseConnect = 503});
  const auto answer = exchange(proxy.port(),
                               "CONNECT a:1 HTTP/1.1\r\n\r\n"
                               "CONNECT a:1 HTTP/1.1\r\nProxy-Authorization: Basic "
                               "dXNlcjpwYXNz\r\n\r\nGET / HTTP/1.1\r\n"
                               "Proxy-Authorization: Basic dXNlcjpwYXNz\r\n\r\n");
  EXPECT_TRUE(answer.starts_with("HTTP/1.1 407 ")) << answer;
  EXPECT_NE(answer.find("HTTP/1.1 503 "), std::string::npos) << answer;
  EXPECT_NE(answer.find("HTTP/1.1 400 "), std::string::npos) << answer;
}

TEST(Base64, MatchesTheVectorsOfRfc4648) {
  EXPECT_EQ(base64(""), "");
  EXPECT_EQ(base64("f"), "Zg==");
  EXPECT_EQ(base64("foobar"), "Zm9vYmFy");
}

}  // namespace
}  // namespace test_support
