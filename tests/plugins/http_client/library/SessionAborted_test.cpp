// A connection that the system itself has aborted. No peer can bring that about from outside, so
// this program has a recv() of its own, which fails so once.
#include <atomic>
#include <cerrno>
#include <cstddef>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/types.h>

#include <gtest/gtest.h>

#include "tests/support/PluginUnderTest.hpp"
#include "tests/support/ScriptedServer.hpp"

namespace {

// The next recv() from a peer at this port fails; 0: none does.
std::atomic<int> abortedPort{0};

int peerPortOf(int socket) {
  sockaddr_in address{};
  socklen_t size = sizeof address;
  if (getpeername(socket, reinterpret_cast<sockaddr*>(&address), &size) != 0) return -1;
  return ntohs(address.sin_port);
}

}  // namespace

// In place of the C library's, for the loaded transport too.
extern "C" __attribute__((visibility("default"))) ssize_t recv(int socket, void* data,
                                                               std::size_t size, int flags) {
  int port = abortedPort.load();
  if (port != 0 && peerPortOf(socket) == port && abortedPort.compare_exchange_strong(port, 0)) {
    errno = ECONNABORTED;
    return -1;
  }
  return recvfrom(socket, data, size, flags, nullptr, nullptr);
}

namespace test_support {
namespace {

TEST(SessionRetry, RequestIsSentASecondTimeWhereTheConnectionIsAborted) {
  const auto readOnly = [](Connection& connection) {
    connection.readRequest();
    connection.awaitPeerClose();
  };
  const auto answer = [](Connection& connection) {
    if (connection.readRequest()) connection.sendResponse(200, {}, "answered");
  };
  ScriptedServer server({readOnly, answer});
  PluginUnderTest plugin(Config(server.port()));
  abortedPort = server.port();
  EXPECT_EQ(plugin.request(Request("POST", "/x").body("once more")).body(), "answered");
  server.waitForRequests(2);
  EXPECT_EQ(server.request(1).body, "once more");
  const auto line = plugin.log().find(
      "Caught a Poco::Net::ConnectionAbortedException processing a request, will retry once: ");
  ASSERT_TRUE(line.has_value());
  EXPECT_EQ(line->level, QOR_LOG_DEBUG);
  EXPECT_EQ(plugin.log().count("will retry once: "), 1U);
}

}  // namespace
}  // namespace test_support
