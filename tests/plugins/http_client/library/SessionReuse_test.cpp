// A connection that is kept from request to request: when it is used again, and that no response
// ever ends up as the answer to another request.
#include <functional>
#include <sstream>
#include <string>

#include <gtest/gtest.h>

#include "tests/support/Coders.hpp"
#include "tests/support/PluginUnderTest.hpp"
#include "tests/support/ScriptedServer.hpp"

namespace test_support {
namespace {

constexpr const char* retryLine = "processing a request, will retry once: ";
constexpr const char* forged = "HTTP/1.1 200 OK\r\nContent-Length: 6\r\n\r\nforged";
constexpr const char* cutShort = "Error processing response stream: I/O error";
constexpr const char* broken = "Error processing response stream: Serious I/O error";

// Answers every request with its own target.
void answerWithTarget(Connection& connection) {
  while (const auto request = connection.readRequest()) {
    connection.sendResponse(200, {}, request->target);
  }
}

// The first request of the first connection gets this; everything else is answered with its target.
ScriptedServer::Script firstGets(std::function<void(Connection&)> send) {
  return [send = std::move(send)](Connection& connection) {
    if (connection.number() == 1) {
      connection.readRequest();
      send(connection);
    }
    answerWithTarget(connection);
  };
}

// The second request gets its own response, over that many connections in all.
void expectInStep(PluginUnderTest& plugin, const ScriptedServer& server, std::size_t connections) {
  const Answer next = plugin.request(Request("GET", "/next"));
  EXPECT_EQ(next.status(), 200) << next.reason();
  EXPECT_EQ(next.body(), "/next");
  EXPECT_EQ(server.connectionCount(), connections);
  EXPECT_FALSE(plugin.log().contains(retryLine));
}

// --- Reuse --------------------------------------------------------------------------------------

TEST(SessionReuse, RequestsShareOneConnection) {
  ScriptedServer server(answerWithTarget);
  PluginUnderTest plugin(Config(server.port()));
  for (const char* const path : {"/a", "/b", "/c"}) {
    EXPECT_EQ(plugin.request(Request("GET", path)).body(), path);
  }
  EXPECT_EQ(server.connectionCount(), 1U);
}

TEST(SessionReuse, ConnectionClosedWhileIdleIsReplacedBeforeTheNextRequest) {
  ScriptedServer server({[](Connection& connection) {
                           connection.readRequest();
                           connection.sendResponse(200);
                         },
                         answerWithTarget});
  PluginUnderTest plugin(Config(server.port()));
  plugin.request(Request("GET", "/x"));
  server.waitForEndedConnections(1);
  expectInStep(plugin, server, 2);
  EXPECT_EQ(server.requestCount(), 2U);
}

TEST(SessionReuse, ConnectionResetWhileIdleIsReplacedBeforeTheNextRequest) {
  Event answered;
  ScriptedServer server({[&](Connection& connection) {
                           connection.readRequest();
                           connection.sendResponse(200);
                           connection.stallUntil(answered);
                           connection.reset();
                         },
                         answerWithTarget});
  PluginUnderTest plugin(Config(server.port()));
  plugin.request(Request("GET", "/x"));
  answered.set();
  server.waitForEndedConnections(1);
  expectInStep(plugin, server, 2);
}

TEST(SessionReuse, ConnectionCloseIsHonoured) {
  ScriptedServer server(firstGets([](Connection& connection) {
    connection.sendResponse(200, {{"Connection", "close"}}, "x");
  }));
  PluginUnderTest plugin(Config(server.port()));
  plugin.request(Request("GET", "/x"));
  expectInStep(plugin, server, 2);
}

TEST(SessionReuse, OldVersionWithoutKeepAliveIsNotReused) {
  ScriptedServer server(firstGets([](Connection& connection) {
    connection.send("HTTP/1.0 200 OK\r\nContent-Length: 1\r\n\r\nx");
  }));
  PluginUnderTest plugin(Config(server.port()));
  EXPECT_EQ(plugin.request(Request("GET", "/x")).body(), "x");
  expectInStep(plugin, server, 2);
}

TEST(SessionReuse, EveryRequestGetsItsOwnResponseWhicheverWorkerSendsIt) {
  ScriptedServer server(answerWithTarget);
  PluginUnderTest plugin(Config(server.port()).numClients(4));
  constexpr long long requests = 200;
  for (long long id = 1; id <= requests; ++id) {
    plugin.send(Request("GET", ("/" + std::to_string(id)).c_str()).id(id));
  }
  for (const auto& answer : plugin.waitForAnswers(requests)) {
    EXPECT_EQ(answer.body(), "/" + std::to_string(answer.id()));
  }
  EXPECT_LE(server.connectionCount(), 4U);
}

// --- Stray bytes --------------------------------------------------------------------------------

TEST(ResponseBleeding, ResponseBehindTheResponseIsNobodysAnswer) {
  ScriptedServer server(firstGets([](Connection& connection) {
    connection.send(std::string("HTTP/1.1 200 OK\r\nContent-Length: 1\r\n\r\nx") + forged);
  }));
  PluginUnderTest plugin(Config(server.port()));
  EXPECT_EQ(plugin.request(Request("GET", "/x")).body(), "x");
  expectInStep(plugin, server, 2);
}

TEST(ResponseBleeding, ResponseThatComesWhileIdleIsNobodysAnswer) {
  Event answered;
  Event sent;
  ScriptedServer server(firstGets([&](Connection& connection) {
    connection.sendResponse(200, {}, "x");
    connection.stallUntil(answered);
    connection.send(forged);
    sent.set();
  }));
  PluginUnderTest plugin(Config(server.port()));
  EXPECT_EQ(plugin.request(Request("GET", "/x")).body(), "x");
  answered.set();
  sent.wait();
  expectInStep(plugin, server, 2);
}

TEST(ResponseBleeding, BodyOfAnAnswerToHeadIsNobodysAnswer) {
  ScriptedServer server(firstGets([](Connection& connection) {
    connection.send(std::string("HTTP/1.1 200 OK\r\nContent-Length: 43\r\n\r\n") + forged);
  }));
  PluginUnderTest plugin(Config(server.port()));
  EXPECT_EQ(plugin.request(Request("HEAD", "/x")).body(), "");
  expectInStep(plugin, server, 2);
}

TEST(ResponseBleeding, UnreadBodyOfAnUnsupportedCodingIsNobodysAnswer) {
  ScriptedServer server(firstGets([](Connection& connection) {
    connection.sendResponse(200, {{"Content-Encoding", "br"}}, forged);
  }));
  PluginUnderTest plugin(Config(server.port()));
  EXPECT_EQ(plugin.request(Request("GET", "/x")).body(), "Unsupported Media Type: br");
  const Answer next = plugin.request(Request("GET", "/next"));
  EXPECT_EQ(next.body(), "/next");
}

TEST(ResponseBleeding, TrailersAreReadPast) {
  ScriptedServer server(firstGets([](Connection& connection) {
    connection.sendChunked(200, {}, {"ab", "c"}, {{"X-Checksum", "1"}, {"X-More", "2"}});
  }));
  PluginUnderTest plugin(Config(server.port()));
  const Answer answer = plugin.request(Request("GET", "/x"));
  EXPECT_EQ(answer.body(), "abc");
  EXPECT_EQ(answer.header("x-checksum"), std::nullopt);
  expectInStep(plugin, server, 1);
}

TEST(ResponseBleeding, InterimResponsesAreReadPast) {
  ScriptedServer server(firstGets([](Connection& connection) {
    connection.send("HTTP/1.1 100 Continue\r\n\r\n");
    connection.send("HTTP/1.1 102 Processing\r\n\r\n");
    connection.send("HTTP/1.1 103 Early Hints\r\nLink: </style.css>\r\n\r\n");
    connection.send("HTTP/1.1 199 Something\r\n\r\n");
    connection.sendResponse(201, {}, "final");
  }));
  PluginUnderTest plugin(Config(server.port()));
  const Answer answer = plugin.request(Request("GET", "/x"));
  EXPECT_EQ(answer.status(), 201);
  EXPECT_EQ(answer.body(), "final");
  EXPECT_EQ(answer.header("link"), std::nullopt);
  expectInStep(plugin, server, 1);
}

TEST(ResponseBleeding, SwitchingProtocolsIsAResponseAndTheEndOfTheConnection) {
  ScriptedServer server(firstGets([](Connection& connection) {
    connection.send("HTTP/1.1 101 Switching Protocols\r\nUpgrade: other\r\n\r\n");
  }));
  PluginUnderTest plugin(Config(server.port()));
  EXPECT_EQ(plugin.request(Request("GET", "/x")).status(), 101);
  expectInStep(plugin, server, 2);
}

// --- Bodies that end too early ------------------------------------------------------------------

struct Ending {
  const char* name;
  std::string response;
};

std::string nameOf(const ::testing::TestParamInfo<Ending>& info) { return info.param.name; }

class ShortBody : public ::testing::TestWithParam<Ending> {};

TEST_P(ShortBody, IsAFailureAndNeitherRetriedNorMixedUp) {
  ScriptedServer server({[](Connection& connection) {
                           connection.readRequest();
                           connection.send(GetParam().response);
                         },
                         answerWithTarget});
  PluginUnderTest plugin(Config(server.port()));
  const Answer answer = plugin.request(Request("GET", "/x"));
  EXPECT_EQ(answer.status(), 400);
  EXPECT_EQ(answer.reason(), cutShort);
  EXPECT_EQ(server.requestCount(), 1U);
  EXPECT_EQ(plugin.statusItem(".status"), "FAILED");
  expectInStep(plugin, server, 2);
}

std::string chunked(const std::string& rest) {
  return "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n" + rest;
}

INSTANTIATE_TEST_SUITE_P(
    All, ShortBody,
    ::testing::Values(Ending{"OfNoBytes", "HTTP/1.1 200 OK\r\nContent-Length: 9\r\n\r\n"},
                      Ending{"OfFewerBytesThanAnnounced",
                             "HTTP/1.1 200 OK\r\nContent-Length: 9\r\n\r\n12345678"},
                      Ending{"WithoutLastChunk", chunked("3\r\nabc\r\n")},
                      Ending{"WithinAChunk", chunked("5\r\nabc")},
                      Ending{"WithoutAnyChunk", chunked("")},
                      Ending{"WithinTheLastChunk", chunked("3\r\nabc\r\n0\r\n")}),
    nameOf);

TEST(SessionBodies, BrokenChunkSizeIsAFailure) {
  ScriptedServer server(firstGets([](Connection& connection) {
    connection.send(chunked("3\r\nabc\r\nzz\r\nabc\r\n0\r\n\r\n"));
  }));
  PluginUnderTest plugin(Config(server.port()));
  const Answer answer = plugin.request(Request("GET", "/x"));
  EXPECT_EQ(answer.status(), 400);
  EXPECT_TRUE(answer.reason().starts_with("Error processing response stream: "));
  expectInStep(plugin, server, 2);
}

TEST(SessionBodies, ResetWithinABodyIsASeriousError) {
  ScriptedServer server({[](Connection& connection) {
                           connection.readRequest();
                           connection.send("HTTP/1.1 200 OK\r\nContent-Length: 9\r\n\r\n1");
                           connection.reset();
                         },
                         answerWithTarget});
  PluginUnderTest plugin(Config(server.port()));
  const Answer answer = plugin.request(Request("GET", "/x"));
  EXPECT_EQ(answer.status(), 400);
  EXPECT_EQ(answer.reason(), broken);
  expectInStep(plugin, server, 2);
}

TEST(SessionBodies, BodyWithoutAnnouncedLengthEndsWithTheConnection) {
  ScriptedServer server({[](Connection& connection) {
                           connection.readRequest();
                           connection.send("HTTP/1.1 200 OK\r\n\r\nall there is");
                         },
                         answerWithTarget});
  PluginUnderTest plugin(Config(server.port()));
  const Answer answer = plugin.request(Request("GET", "/x"));
  EXPECT_EQ(answer.status(), 200);
  EXPECT_EQ(answer.body(), "all there is");
  expectInStep(plugin, server, 2);
}

TEST(SessionBodies, TrickledByteByByteArriveWhole) {
  Gate gate;
  const std::string response = chunked("3\r\nabc\r\n4;x=y\r\ndefg\r\n0\r\nT: v\r\n\r\n");
  gate.open(response.size());
  ScriptedServer server(firstGets(
      [&](Connection& connection) { connection.trickle(response, response.size(), gate); }));
  PluginUnderTest plugin(Config(server.port()));
  EXPECT_EQ(plugin.request(Request("GET", "/x")).body(), "abcdefg");
  expectInStep(plugin, server, 1);
}

// --- Coded bodies -------------------------------------------------------------------------------

// Uncompressed, so that the coded length can be chosen.
std::pair<std::string, std::string> textOfCodedLength(std::size_t length) {
  std::string text(length - 100, 'x');
  std::string coded = gzip(text, 0);
  while (coded.size() < length) {
    text.push_back('x');
    coded = gzip(text, 0);
  }
  return {text, coded};
}

TEST(CodedBodies, WhoseCodedLengthFillsTheDecodersBufferStayInStep) {
  const auto [text, coded] = textOfCodedLength(32'768);
  ASSERT_EQ(coded.size(), 32'768U);
  ScriptedServer server(firstGets([&, &body = coded](Connection& connection) {
    connection.sendChunked(200, {{"Content-Encoding", "gzip"}}, {body});
  }));
  PluginUnderTest plugin(Config(server.port()));
  const Answer answer = plugin.request(Request("GET", "/x"));
  EXPECT_EQ(answer.status(), 200) << answer.reason();
  EXPECT_TRUE(answer.body() == text);
  expectInStep(plugin, server, 1);
}

TEST(CodedBodies, WithBytesBehindTheirEndStayInStep) {
  ScriptedServer server(firstGets([](Connection& connection) {
    connection.sendResponse(200, {{"Content-Encoding", "gzip"}}, gzip("text") + forged);
  }));
  PluginUnderTest plugin(Config(server.port()));
  EXPECT_EQ(plugin.request(Request("GET", "/x")).body(), "text");
  const Answer next = plugin.request(Request("GET", "/next"));
  EXPECT_EQ(next.body(), "/next");
}

TEST(CodedBodies, CutShortAreAFailure) {
  const std::string whole = gzip("some text that is long enough to be cut");
  for (const std::size_t kept :
       {std::size_t{0}, std::size_t{5}, whole.size() / 2, whole.size() - 1}) {
    ScriptedServer server([&](Connection& connection) {
      connection.readRequest();
      connection.send(responseHead(200, {{"Content-Encoding", "gzip"},
                                         {"Content-Length", std::to_string(whole.size())}}) +
                      whole.substr(0, kept));
    });
    PluginUnderTest plugin(Config(server.port()));
    const Answer answer = plugin.request(Request("GET", "/x"));
    EXPECT_EQ(answer.status(), 400) << kept;
    EXPECT_TRUE(answer.reason().starts_with("Error processing response stream: ")) << kept;
  }
}

TEST(CodedBodies, ThatAreCorruptAreASeriousError) {
  std::string corrupt = gzip(std::string(3000, 'x') + "and an end");
  corrupt[corrupt.size() / 2] = static_cast<char>(~corrupt[corrupt.size() / 2]);
  ScriptedServer server(firstGets([&](Connection& connection) {
    connection.sendResponse(200, {{"Content-Encoding", "gzip"}}, corrupt);
  }));
  PluginUnderTest plugin(Config(server.port()));
  const Answer answer = plugin.request(Request("GET", "/x"));
  EXPECT_EQ(answer.status(), 400);
  EXPECT_EQ(answer.reason(), broken);
  const Answer next = plugin.request(Request("GET", "/next"));
  EXPECT_EQ(next.body(), "/next");
}

}  // namespace
}  // namespace test_support
