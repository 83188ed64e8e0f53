// One session and the request that it is sending, for the tests of sessions.
#pragma once

#include <chrono>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <netinet/in.h>
#include <optional>
#include <string>
#include <string_view>
#include <sys/socket.h>
#include <utility>
#include <vector>

#include "plugins/http_client/wire/HttpSession.hpp"
#include "plugins/http_client/wire/Resolver.hpp"
#include "plugins/http_client/wire/Route.hpp"
#include "tests/plugins/http_client/ByteSources.hpp"
#include "tests/support/ScriptedServer.hpp"

namespace connectivity::plugins {

// A whole response of two bytes.
inline constexpr const char* ok = "HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\nok";
// More than the sockets' buffers hold, so that it is still being sent while nobody reads it.
inline constexpr std::size_t beyondBuffers = 30'000'000;

// The time-out is long for what must not happen; nothing waits for it.
inline Route routeTo(int port, std::string host = "127.0.0.1") {
  Route route;
  route.host = std::move(host);
  route.port = static_cast<std::uint16_t>(port);
  route.timeout = std::chrono::seconds(60);
  return route;
}
inline Route routeTo(const test_support::ScriptedServer& server, std::string host = "127.0.0.1") {
  return routeTo(server.port(), std::move(host));
}

// Answers requests with these, one after the other, and waits for the client to close.
inline test_support::ScriptedServer::Script answerWith(std::vector<std::string> answers) {
  return [answers = std::move(answers)](test_support::Connection& peer) {
    for (const std::string& answer : answers) {
      if (!peer.readRequest()) return;
      peer.send(answer);
    }
    peer.awaitPeerClose();
  };
}

// One answer, then the end of the connection.
inline test_support::ScriptedServer::Script answerAndClose(std::string answer) {
  return [answer = std::move(answer)](test_support::Connection& peer) {
    peer.readRequest();
    peer.send(answer);
  };
}

// As a thread of the host may be that blocks no signals.
inline void unblockSigpipe() {
  sigset_t pipeSignal;
  sigemptyset(&pipeSignal);
  sigaddset(&pipeSignal, SIGPIPE);
  pthread_sigmask(SIG_UNBLOCK, &pipeSignal, nullptr);
}

// The session's own end of its connection to this port.
inline int descriptorOfConnectionTo(int port) {
  for (int fd = 3; fd < 1024; ++fd) {
    sockaddr_in6 peer{};
    socklen_t length = sizeof peer;
    auto* const address = reinterpret_cast<sockaddr*>(&peer);
    if (::getpeername(fd, address, &length) != 0 || address->sa_family != AF_INET) continue;
    if (ntohs(peer.sin6_port) == port) return fd;
  }
  return -1;
}

struct SessionClient {
  explicit SessionClient(Route route) : session(std::move(route), resolver) {}
  explicit SessionClient(const test_support::ScriptedServer& server)
      : SessionClient(routeTo(server)) {}

  void send(std::string method, const std::string& target = "/", std::string_view body = {}) {
    head = std::move(method) + " " + target + " HTTP/1.1\r\nHost: server.test\r\n";
    if (!body.empty()) head += "Content-Length: " + std::to_string(body.size()) + "\r\n";
    head += "\r\n";
    piece = body;
    session.send({head, {&piece, 1}, head.starts_with("HEAD "), tunnelAuthorization});
  }
  // Sends a request and reads its response's head.
  ResponseBody& get(const std::string& target = "/") {
    send("GET", target);
    return receive();
  }
  // The body is borrowed.
  ResponseBody& post(std::string_view body) {
    send("POST", "/", body);
    return receive();
  }
  ResponseBody& receive() {
    session.receive();
    return session.body();
  }
  // What is left of the response's body, whose exchange ends with it.
  std::string rest() {
    std::string text = readAll(session.body());
    session.finish(Leftover::Little);
    return text;
  }
  // A whole exchange.
  std::string fetch(const std::string& target = "/") {
    get(target);
    return rest();
  }
  int status() const { return session.head().status(); }

  Resolver resolver;
  HttpSession session;
  std::string head;
  std::string_view piece;
  std::optional<std::string> tunnelAuthorization;
};

}  // namespace connectivity::plugins
