// What is behind a response's limit: read past on the wire while it is little and comes soon, so
// that the connection can be used again; else given up. The answer is the same.
#include <chrono>
#include <cstddef>
#include <functional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/plugins/http_client/Answering.hpp"
#include "tests/plugins/http_client/PlainOrTls.hpp"

namespace test_support {
namespace {

constexpr std::size_t limitBytes = 1000;
constexpr std::size_t mebibyte = 1'048'576;
constexpr const char* rejection =
    "Response exceeded maxResponseKB, with maxResponsePolicy set to REJECT";

Request limited(const char* policy) {
  return std::move(Request("GET", "/x").limit(1).policy(policy));
}

// The first kilobyte of `text`, or the refusal to deliver it.
void expectLimited(const Answer& answer, const char* policy, const std::string& text) {
  if (policy == std::string("REJECT")) {
    EXPECT_EQ(answer.status(), 413) << answer.reason();
    EXPECT_TRUE(answer.isError());
    EXPECT_EQ(answer.body(), rejection);
  } else {
    EXPECT_EQ(answer.status(), 200) << answer.reason();
    EXPECT_EQ(answer.body(), text.substr(0, limitBytes) + "[TRUNCATED]");
  }
}

std::string announcing(std::size_t length, const std::string& coding = "") {
  const std::string field = coding.empty() ? "" : "Content-Encoding: " + coding + "\r\n";
  return "HTTP/1.1 200 OK\r\n" + field + "Content-Length: " + std::to_string(length) + "\r\n\r\n";
}

constexpr const char* policies[] = {"REJECT", "TRUNCATE_END"};

class BehindTheLimit : public PlainOrTls {
 protected:
  // Both policies; the next request goes over that many connections in all.
  void expectConnections(const std::function<void(Connection&)>& send, const std::string& text,
                         std::size_t connections) {
    for (const char* const policy : policies) {
      SCOPED_TRACE(policy);
      const auto server = serving(firstGets(send));
      PluginUnderTest plugin(to(*server), terse());
      expectLimited(plugin.request(limited(policy)), policy, text);
      EXPECT_EQ(server->requestCount(), 1U);
      expectInStep(plugin, *server, connections);
    }
  }
};
INSTANTIATE_PLAIN_AND_TLS(BehindTheLimit);

// --- How much -----------------------------------------------------------------------------------

TEST_P(BehindTheLimit, AMebibyteThatIsAnnouncedIsReadPast) {
  const std::string body = noise(limitBytes + mebibyte);
  expectConnections(
      [&](Connection& connection) { connection.send(announcing(body.size()) + body); }, body, 1);
}

TEST_P(BehindTheLimit, OneByteMoreThatIsAnnouncedIsGivenUp) {
  const std::string body = noise(limitBytes + mebibyte + 1);
  expectConnections(
      [&](Connection& connection) {
        connection.send(announcing(body.size()) + body);
        connection.awaitPeerClose();
      },
      body, 2);
}

// Nobody waits for what will not be read to its end.
TEST_P(BehindTheLimit, MuchThatIsAnnouncedAndNeverComesIsGivenUp) {
  const std::string start = noise(limitBytes);
  expectConnections(
      [&](Connection& connection) {
        connection.send(announcing(10 * mebibyte) + start);
        connection.awaitPeerClose();
      },
      start, 2);
}

TEST_P(BehindTheLimit, FewChunksAreReadPastWithTheirTrailers) {
  const std::string piece = noise(100'000);
  expectConnections(
      [&](Connection& connection) {
        connection.sendChunked(200, {}, std::vector<std::string>(10, piece), {{"T", "v"}});
      },
      piece, 1);
}

TEST_P(BehindTheLimit, ChunksBeyondAMebibyteAreGivenUp) {
  const std::string piece = noise(100'000);
  expectConnections(
      [&](Connection& connection) {
        connection.sendChunked(200, {}, std::vector<std::string>(40, piece));
        connection.awaitPeerClose();
      },
      piece, 2);
}

TEST_P(BehindTheLimit, ChunksWithoutEndAreGivenUp) {
  const std::string piece = noise(100'000);
  expectConnections(
      [&](Connection& connection) {
        connection.send(chunked(""));
        while (connection.linger(std::chrono::milliseconds(0))) connection.send(chunk(piece));
      },
      piece, 2);
}

// --- How long -----------------------------------------------------------------------------------

TEST_P(BehindTheLimit, BytesThatTrickleAreGivenUp) {
  const std::string body = noise(200'000);
  expectConnections(
      [&](Connection& connection) {
        connection.send(announcing(body.size()) + body.substr(0, limitBytes));
        // As slowly it would take more than half an hour.
        connection.drip(body.substr(limitBytes), std::chrono::milliseconds(10));
      },
      body, 2);
}

TEST_P(BehindTheLimit, ChunksThatTrickleAreGivenUp) {
  std::string chunks;
  for (int number = 0; number < 20'000; ++number) chunks += "1\r\nx\r\n";
  const std::string start = noise(limitBytes);
  expectConnections(
      [&](Connection& connection) {
        connection.send(chunked(chunk(start)));
        connection.drip(chunks, std::chrono::milliseconds(10));
      },
      start, 2);
}

// --- What becomes of it -------------------------------------------------------------------------

struct Rest {
  const char* name;
  // Behind half of a body of which all was announced.
  std::function<void(Connection&)> then;
};

std::vector<Rest> brokenRests() {
  return {{"closes", [](Connection& connection) { connection.close(); }},
          {"drops", [](Connection& connection) { connection.closeWithoutNotify(); }},
          {"resets", [](Connection& connection) { connection.reset(); }}};
}

struct Coded {
  const char* coding;
  std::string text;
  std::string bytes;
};

std::vector<Coded> codedBodies() {
  const std::string text = noise(100'000);
  return {{"", text, text},
          {"gzip", text, gzip(text)},
          {"deflate", text, zlib(text)},
          {"deflate", text, rawDeflate(text)}};
}

TEST_P(BehindTheLimit, ABodyThatBreaksOffChangesNothing) {
  for (const Coded& coded : codedBodies()) {
    for (const Rest& rest : brokenRests()) {
      SCOPED_TRACE(std::string(coded.coding) + " " + rest.name);
      expectConnections(
          [&](Connection& connection) {
            connection.send(announcing(coded.bytes.size(), coded.coding) +
                            coded.bytes.substr(0, coded.bytes.size() / 2));
            rest.then(connection);
          },
          coded.text, 2);
    }
  }
}

// Just enough for the limit, and what is behind it is missing.
TEST_P(BehindTheLimit, ACodedBodyOfWhichLittleComesChangesNothing) {
  for (const Rest& rest : brokenRests()) {
    SCOPED_TRACE(rest.name);
    const Coded coded = codedBodies()[1];
    expectConnections(
        [&](Connection& connection) {
          connection.send(announcing(coded.bytes.size(), coded.coding) +
                          coded.bytes.substr(0, 20'000));
          rest.then(connection);
        },
        coded.text, 2);
  }
}

TEST_P(BehindTheLimit, ACodedBodyThatStopsChangesNothing) {
  const Coded coded = codedBodies()[1];
  expectConnections(
      [&](Connection& connection) {
        connection.send(announcing(coded.bytes.size(), coded.coding) +
                        coded.bytes.substr(0, 20'000));
        connection.awaitPeerClose();
      },
      coded.text, 2);
}

TEST_P(BehindTheLimit, ChunksThatAreMalformedChangeNothing) {
  const std::string start = noise(limitBytes);
  expectConnections(
      [&](Connection& connection) {
        connection.send(chunked(chunk(start) + "zz\r\nabc\r\n0\r\n\r\n"));
        connection.awaitPeerClose();
      },
      start, 2);
}

// It is not decoded, so that the connection stays in step.
TEST_P(BehindTheLimit, CorruptCodingIsReadPast) {
  const std::string text = noise(300'000);
  std::string coded = gzip(text);
  for (std::size_t at = coded.size() / 2; at < coded.size(); ++at) coded[at] = '\xFF';
  expectConnections(
      [&](Connection& connection) { connection.send(announcing(coded.size(), "gzip") + coded); },
      text, 1);
}

TEST_P(BehindTheLimit, ABodyThatEndsWithTheConnectionIsReadPast) {
  const std::string body = noise(300'000);
  for (const char* const policy : policies) {
    const auto server = serving({once("HTTP/1.1 200 OK\r\n\r\n" + body), answerWithTarget});
    PluginUnderTest plugin(to(*server), terse());
    expectLimited(plugin.request(limited(policy)), policy, body);
    expectInStep(plugin, *server, 2);
  }
}

// A limit of nothing: the first byte is enough to know.
TEST_P(BehindTheLimit, OfNothingACodedBodyThatBreaksOffChangesNothing) {
  const Coded coded = codedBodies()[1];
  for (const Rest& rest : brokenRests()) {
    SCOPED_TRACE(rest.name);
    const auto server = serving({[&](Connection& connection) {
                                   connection.readRequest();
                                   connection.send(announcing(coded.bytes.size(), coded.coding) +
                                                   coded.bytes.substr(0, 2000));
                                   rest.then(connection);
                                 },
                                 answerWithTarget});
    PluginUnderTest plugin(to(*server), terse());
    const Answer cut = plugin.request(Request("GET", "/x").limit(0).policy("TRUNCATE_END"));
    EXPECT_EQ(cut.body(), "[TRUNCATED]");
    expectInStep(plugin, *server, 2);
  }
}

TEST_P(BehindTheLimit, OfNothingEverythingIsReadPast) {
  const std::string body = noise(300'000);
  const auto server = serving(firstGets(announcing(body.size()) + body));
  PluginUnderTest plugin(to(*server), terse());
  const Answer cut = plugin.request(Request("GET", "/x").limit(0).policy("TRUNCATE_END"));
  EXPECT_EQ(cut.body(), "[TRUNCATED]");
  expectInStep(plugin, *server, 1);
}

// --- Where nothing is behind it -----------------------------------------------------------------

// The end of the body is what is asked for.
TEST_P(BehindTheLimit, TruncateStartNeedsTheWholeBody) {
  const std::string body = noise(100'000);
  const auto server =
      serving({once(announcing(body.size()) + body.substr(0, 50'000)), answerWithTarget});
  PluginUnderTest plugin(to(*server), terse());
  EXPECT_EQ(plugin.request(limited("TRUNCATE_START")).reason(), cutShort);
  expectInStep(plugin, *server, 2);
}

TEST_P(BehindTheLimit, ABodyThatIsCutBeforeItIsAnError) {
  for (const char* const policy : policies) {
    const auto server = serving({once(announcing(5000) + noise(999)), answerWithTarget});
    PluginUnderTest plugin(to(*server), terse());
    EXPECT_EQ(plugin.request(limited(policy)).reason(), cutShort);
    expectInStep(plugin, *server, 2);
  }
}

}  // namespace
}  // namespace test_support
