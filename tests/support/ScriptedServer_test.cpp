// The scripted server, seen from a bare socket: what a test scripts is what a client gets.
#include "tests/support/ScriptedServer.hpp"

#include <array>
#include <cerrno>
#include <string>
#include <sys/socket.h>

#include <gtest/gtest.h>

namespace test_support {
namespace {

// A client that sends what it is told and reads what comes.
class RawClient {
 public:
  explicit RawClient(int port) : _socket(connectToLoopback(port)) {}

  void send(std::string_view bytes) { ASSERT_TRUE(writeAll(_socket.get(), bytes)); }
  // Everything until the server closes; errorNumber() tells how.
  std::string readToEnd() {
    std::string all;
    while (readMore(all)) {
    }
    return all;
  }
  // Reads until the text holds that many bytes, or the end.
  std::string read(std::size_t count) {
    std::string text;
    while (text.size() < count && readMore(text)) {
    }
    return text;
  }
  int errorNumber() const { return _error; }

 private:
  bool readMore(std::string& into) {
    std::array<char, 4096> piece{};
    const auto got = ::recv(_socket.get(), piece.data(), piece.size(), 0);
    if (got < 0) _error = errno;
    if (got <= 0) return false;
    into.append(piece.data(), static_cast<std::size_t>(got));
    return true;
  }

  Descriptor _socket;
  int _error = 0;
};

constexpr std::string_view plainGet = "GET /x HTTP/1.1\r\nHost: a\r\n\r\n";

TEST(ScriptedServer, AnswersByPathAndRepeatsTheLastAnswer) {
  ScriptedServer server;
  server.answer("/x", {200, {}, "first"});
  server.answer("/x", {503, {}, "later"});
  RawClient client(server.port());
  const std::string first = "HTTP/1.1 200 OK\r\nContent-Length: 5\r\n\r\nfirst";
  client.send(plainGet);
  EXPECT_EQ(client.read(first.size()), first);
  const std::string later = "HTTP/1.1 503 Service Unavailable\r\nContent-Length: 5\r\n\r\nlater";
  for (int time = 0; time < 2; ++time) {
    client.send(plainGet);
    EXPECT_EQ(client.read(later.size()), later);
  }
  EXPECT_EQ(server.connectionCount(), 1U);
  EXPECT_EQ(server.requestCount(), 3U);
}

TEST(ScriptedServer, AnswersAnUnknownPathWith404) {
  ScriptedServer server;
  RawClient client(server.port());
  client.send("GET /none?q=1 HTTP/1.1\r\nConnection: close\r\n\r\n");
  EXPECT_EQ(client.readToEnd(),
            "HTTP/1.1 404 Not Found\r\nContent-Length: 29\r\n\r\nNothing is scripted for /none");
}

TEST(ScriptedServer, RecordsEveryByteOfARequest) {
  ScriptedServer server;
  const std::string raw =
      "POST /a%20b?c=d HTTP/1.1\r\nX-Two:  spaced \r\nx-two: again\r\nContent-Length: 5\r\n"
      "Connection: close\r\n\r\n12345";
  RawClient client(server.port());
  client.send(raw);
  client.readToEnd();
  const auto request = server.request(0);
  EXPECT_EQ(request.method, "POST");
  EXPECT_EQ(request.target, "/a%20b?c=d");
  EXPECT_EQ(request.version, "HTTP/1.1");
  EXPECT_EQ(request.headers[0].first, "X-Two");
  EXPECT_EQ(request.header("X-TWO"), "spaced");
  EXPECT_EQ(request.headerCount("x-Two"), 2U);
  EXPECT_EQ(request.header("absent"), std::nullopt);
  EXPECT_EQ(request.body, "12345");
  EXPECT_EQ(request.raw, raw);
}

TEST(ScriptedServer, JoinsTheChunksOfARequest) {
  ScriptedServer server;
  RawClient client(server.port());
  client.send(
      "POST /x HTTP/1.1\r\nTransfer-Encoding: chunked\r\nConnection: close\r\n\r\n"
      "3\r\nabc\r\nA\r\n0123456789\r\n0\r\n\r\n");
  client.readToEnd();
  EXPECT_EQ(server.request(0).body, "abc0123456789");
}

TEST(ScriptedServer, RunsAScriptForEachConnectionAndRepeatsTheLast) {
  const auto say = [](const char* text) {
    return [text](Connection& connection) { connection.send(text); };
  };
  ScriptedServer server({say("one"), say("two")});
  for (const char* const expected : {"one", "two", "two"}) {
    RawClient client(server.port());
    EXPECT_EQ(client.readToEnd(), expected);
  }
  EXPECT_EQ(server.connectionCount(), 3U);
}

TEST(ScriptedServer, SendsChunksAndTrailers) {
  ScriptedServer server([](Connection& connection) {
    connection.readRequest();
    connection.sendChunked(200, {{"X", "y"}}, {"abc", "defghijklm"}, {{"T", "z"}});
  });
  RawClient client(server.port());
  client.send(plainGet);
  EXPECT_EQ(client.readToEnd(),
            "HTTP/1.1 200 OK\r\nX: y\r\nTransfer-Encoding: chunked\r\n\r\n"
            "3\r\nabc\r\na\r\ndefghijklm\r\n0\r\nT: z\r\n\r\n");
}

TEST(ScriptedServer, TricklesAsTheTestLetsIt) {
  Gate gate;
  ScriptedServer server([&](Connection& connection) { connection.trickle("abcdef", 3, gate); });
  RawClient client(server.port());
  EXPECT_EQ(client.read(1), "ab");
  gate.open();
  EXPECT_EQ(client.read(1), "cd");
  gate.open();
  EXPECT_EQ(client.readToEnd(), "ef");
}

TEST(ScriptedServer, StallsUntilReleased) {
  Event release;
  ScriptedServer server([&](Connection& connection) {
    connection.send("a");
    connection.stallUntil(release);
    connection.send("b");
  });
  RawClient client(server.port());
  EXPECT_EQ(client.read(1), "a");
  release.set();
  EXPECT_EQ(client.readToEnd(), "b");
}

TEST(ScriptedServer, ResetsAConnection) {
  ScriptedServer server([](Connection& connection) {
    connection.readRequest();
    connection.reset();
  });
  RawClient client(server.port());
  client.send(plainGet);
  EXPECT_EQ(client.readToEnd(), "");
  EXPECT_EQ(client.errorNumber(), ECONNRESET);
}

TEST(ScriptedServer, ClosesInOrderEvenWithBytesItNeverRead) {
  Event sent;
  ScriptedServer server([&](Connection& connection) {
    sent.wait();
    connection.send("bye");
    connection.close();
  });
  RawClient client(server.port());
  client.send(std::string(10'000, 'x'));
  sent.set();
  EXPECT_EQ(client.readToEnd(), "bye");
  EXPECT_EQ(client.errorNumber(), 0);
}

TEST(ScriptedServer, ReadsOnAfterHalfClosing) {
  ScriptedServer server([](Connection& connection) {
    connection.send("done");
    connection.halfClose();
    connection.readRequest();
  });
  RawClient client(server.port());
  EXPECT_EQ(client.readToEnd(), "done");
  client.send(plainGet);
  server.waitForRequests(1);
  EXPECT_EQ(server.request(0).target, "/x");
}

TEST(ScriptedServer, ReadsAHeadWithoutItsBody) {
  ScriptedServer server([](Connection& connection) {
    const auto head = connection.readHead();
    ASSERT_TRUE(head.has_value());
    EXPECT_EQ(head->body, "");
    EXPECT_TRUE(connection.readBytes(5));
    connection.sendResponse(200);
  });
  RawClient client(server.port());
  client.send("POST /x HTTP/1.1\r\nContent-Length: 5\r\n\r\n12345");
  EXPECT_EQ(client.readToEnd(), "HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n");
}

TEST(ScriptedServer, TellsThatThePeerHasClosed) {
  Event ended;
  ScriptedServer server([&](Connection& connection) {
    EXPECT_FALSE(connection.readRequest().has_value());
    ended.set();
  });
  { const RawClient client(server.port()); }
  ended.wait();
}

TEST(ScriptedServer, EndsWhileConnectionsAreOpenAndSilent) {
  ScriptedServer server([](Connection& connection) { connection.readRequest(); });
  RawClient client(server.port());
  server.waitForConnections(1);
  server.stop();
  EXPECT_EQ(client.readToEnd(), "");
  EXPECT_FALSE(connectToLoopback(server.port()).valid());
}

TEST(ScriptedServer, SurvivesAPeerThatIsGone) {
  Event gone;
  ScriptedServer server([&](Connection& connection) {
    gone.wait();
    for (int time = 0; time < 100; ++time) connection.send(std::string(100'000, 'x'));
  });
  { const RawClient client(server.port()); }
  gone.set();
  server.waitForEndedConnections(1);
}

}  // namespace
}  // namespace test_support
