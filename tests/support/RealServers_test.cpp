// The launchers of nginx and squid; skipped where those are not installed.
#include "tests/support/RealServers.hpp"

#include <array>
#include <string>
#include <sys/socket.h>

#include <gtest/gtest.h>

#include "tests/support/ScriptedProxy.hpp"
#include "tests/support/ScriptedServer.hpp"

namespace test_support {
namespace {

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

std::string get(const std::string& target, const std::string& more = "") {
  return "GET " + target + " HTTP/1.1\r\nHost: localhost\r\nConnection: close\r\n" + more + "\r\n";
}

TEST(RealNginx, ServesAFile) {
  if (!RealNginx::available()) GTEST_SKIP() << "nginx is not installed";
  const RealNginx nginx("location /said { return 200 spoken; }");
  nginx.write("a.txt", "written");
  EXPECT_TRUE(exchange(nginx.port(), get("/a.txt")).ends_with("written"));
  EXPECT_TRUE(exchange(nginx.port(), get("/said")).ends_with("spoken"));
}

TEST(RealSquid, ForwardsARequest) {
  if (!RealSquid::available()) GTEST_SKIP() << "squid is not installed";
  ScriptedServer server;
  server.answer("/x", {200, {}, "through squid"});
  const RealSquid squid;
  const auto target = "http://127.0.0.1:" + std::to_string(server.port()) + "/x";
  EXPECT_TRUE(exchange(squid.port(), get(target)).ends_with("through squid"));
}

TEST(RealSquid, WantsItsCredentials) {
  if (!RealSquid::available()) GTEST_SKIP() << "squid is not installed";
  ScriptedServer server;
  server.answer("/x", {200, {}, "through squid"});
  const RealSquid squid({"user", "pass"});
  const auto target = "http://127.0.0.1:" + std::to_string(server.port()) + "/x";
  EXPECT_TRUE(exchange(squid.port(), get(target)).starts_with("HTTP/1.1 407"));
  const auto credentials = "Proxy-Authorization: Basic " + base64("user:pass") + "\r\n";
  EXPECT_TRUE(exchange(squid.port(), get(target, credentials)).ends_with("through squid"));
}

}  // namespace
}  // namespace test_support
