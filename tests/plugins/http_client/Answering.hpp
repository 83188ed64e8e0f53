// Scripts of servers, and checks of answers, that the tests of answers share.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <sstream>
#include <string>
#include <string_view>
#include <utility>

#include <gtest/gtest.h>

#include "tests/support/Coders.hpp"
#include "tests/support/PluginUnderTest.hpp"
#include "tests/support/ScriptedServer.hpp"

namespace test_support {

inline constexpr const char* retryLine = "processing a request, will retry once: ";
inline constexpr const char* cutShort = "Error processing response stream: I/O error";
inline constexpr const char* broken = "Error processing response stream: Serious I/O error";
// How the text about a head that cannot be read begins.
inline constexpr const char* malformed = "Malformed message: ";
// A complete response that no request has asked for.
inline constexpr const char* forged = "HTTP/1.1 200 OK\r\nContent-Length: 6\r\n\r\nforged";
// How long a test waits for what should come at once and, where the code is wrong, never comes.
inline constexpr std::chrono::seconds farTooLong{5};
// Bounds the tests in which both sides would otherwise wait for each other until the default ends.
inline constexpr int boundingTimeoutSecs = 5;

// --- Scripts ------------------------------------------------------------------------------------

// Sends this to the first request, and the end of the stream behind it.
inline ScriptedServer::Script once(std::string response) {
  return [response = std::move(response)](Connection& connection) {
    connection.readRequest();
    connection.send(response);
    connection.halfClose();
    connection.awaitPeerClose();
  };
}

// Answers every request with its own target.
inline void answerWithTarget(Connection& connection) {
  while (const auto request = connection.readRequest()) {
    connection.sendResponse(200, {}, request->target);
  }
}

// The first request of the first connection gets this; everything else is answered with its target.
inline ScriptedServer::Script firstGets(std::function<void(Connection&)> send) {
  return [send = std::move(send)](Connection& connection) {
    if (connection.number() == 1) {
      connection.readRequest();
      send(connection);
    }
    answerWithTarget(connection);
  };
}
inline ScriptedServer::Script firstGets(std::string response) {
  return firstGets(
      [response = std::move(response)](Connection& connection) { connection.send(response); });
}

inline std::string chunked(const std::string& rest) {
  return "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n" + rest;
}

// One chunk with its size line.
inline std::string chunk(const std::string& data) {
  std::ostringstream text;
  text << std::hex << data.size() << "\r\n" << data << "\r\n";
  return text.str();
}

// --- Answers ------------------------------------------------------------------------------------

// One worker, so that requests share a connection where they can.
inline Config oneClient(int port) {
  return Config(port).numClients(1).timeoutSecs(boundingTimeoutSecs);
}

// The answer to one request, from a server that sends this.
inline Answer answerTo(const std::string& response, const Request& request = {"GET", "/x"}) {
  ScriptedServer server(once(response));
  PluginUnderTest plugin(oneClient(server.port()));
  return plugin.request(request);
}

// The next request gets its own answer, over that many connections in all.
inline void expectInStep(PluginUnderTest& plugin, const ScriptedServer& server,
                         std::size_t connections) {
  const Answer next = plugin.request(Request("GET", "/next").id(2));
  EXPECT_EQ(next.status(), 200) << next.reason();
  EXPECT_EQ(next.body(), "/next");
  EXPECT_EQ(server.connectionCount(), connections);
  const auto retried = plugin.log().find(retryLine);
  EXPECT_FALSE(retried) << retried->text;
}

// How many bytes follow a lead byte of UTF-8; more than there can be where it is none.
inline std::size_t bytesBehind(unsigned char lead) {
  if (lead < 0x80) return 0;
  if (lead < 0xC2 || lead > 0xF4) return std::string_view::npos;
  if (lead < 0xE0) return 1;
  return lead < 0xF0 ? 2 : 3;
}

// Whether it is UTF-8: no byte out of place, nothing longer than it needs to be, no surrogate.
inline bool isUtf8(std::string_view text) {
  while (!text.empty()) {
    const auto lead = static_cast<unsigned char>(text.front());
    const std::size_t more = bytesBehind(lead);
    if (more >= text.size()) return false;
    std::uint32_t code = more == 0 ? lead : lead & (0x3FU >> more);
    for (std::size_t i = 1; i <= more; ++i) {
      const auto byte = static_cast<unsigned char>(text[i]);
      if ((byte & 0xC0U) != 0x80U) return false;
      code = code << 6U | (byte & 0x3FU);
    }
    const bool tooLong = (more == 2 && code < 0x800) || (more == 3 && code < 0x10000);
    if (tooLong || code > 0x10FFFF || (code >= 0xD800 && code < 0xE000)) return false;
    text.remove_prefix(more + 1);
  }
  return true;
}

// Whether it holds what a terminal or a log would obey: C0 but tab, DEL, and U+0080 to U+009F.
inline bool holdsControlCharacters(std::string_view utf8) {
  for (std::size_t i = 0; i < utf8.size(); ++i) {
    const auto byte = static_cast<unsigned char>(utf8[i]);
    if ((byte < 0x20 && byte != '\t') || byte == 0x7F) return true;
    if (byte == 0xC2 && i + 1 < utf8.size() && static_cast<unsigned char>(utf8[i + 1]) < 0xA0) {
      return true;
    }
  }
  return false;
}

// An error of status 400 whose payload and reason are one text in UTF-8 that begins so.
inline void expectError(const Answer& answer, std::string_view beginning) {
  EXPECT_EQ(answer.status(), 400);
  EXPECT_TRUE(answer.isError());
  EXPECT_EQ(answer.body(), answer.reason());
  EXPECT_TRUE(answer.reason().starts_with(beginning)) << answer.reason();
  EXPECT_FALSE(answer.reason().empty());
  EXPECT_NE(answer.reason(), malformed) << "does not say what is wrong";
  EXPECT_TRUE(isUtf8(answer.reason()));
}

}  // namespace test_support
