#include "plugins/http_client/wire/TunnelLayer.hpp"

#include <array>
#include <memory>
#include <string>
#include <utility>

#include <Poco/Exception.h>
#include <Poco/Net/NetException.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/Descriptor.hpp"
#include "tests/support/Event.hpp"
#include "tests/support/ScriptedServer.hpp"

namespace connectivity::plugins {
namespace {

using std::chrono::milliseconds;
using test_support::Event;
using test_support::ScriptedServer;
using testing::StartsWith;
using testing::Throws;
using Peer = test_support::Connection;

constexpr const char* established = "HTTP/1.1 200 Connection established\r\n\r\n";

template <typename Exception>
auto failsWith(const testing::Matcher<std::string>& message) {
  return Throws<Exception>(testing::Property(&Poco::Exception::message, message));
}

// A tunnel to example.org:443 through a proxy that does what its script says.
struct Tunnel {
  explicit Tunnel(int port, milliseconds timeout = std::chrono::seconds(60),
                  std::string authorization = {}, std::string host = "example.org")
      : limits(timeout), name("proxy 127.0.0.1:" + std::to_string(port)) {
    Route route;
    route.host = std::move(host);
    route.port = 443;
    route.proxy = Proxy{"127.0.0.1", static_cast<std::uint16_t>(port), std::move(authorization)};
    auto tcp = std::make_unique<TcpLayer>(route.proxy->host, route.proxy->port, resolver, limits);
    layer = std::make_unique<TunnelLayer>(std::move(tcp), route);
  }
  std::size_t send(std::string_view bytes) { return layer->send({&bytes, 1}); }
  // What one receive gives.
  std::string receive() {
    std::array<char, 100> bytes{};
    const auto count = layer->receive(bytes.data(), bytes.size(), Wait::Yes);
    return {bytes.data(), count.value_or(0)};
  }

  Resolver resolver;
  TimeLimits limits;
  std::string name;
  std::unique_ptr<TunnelLayer> layer;
};

// Reads what it is asked, and sends this.
ScriptedServer::Script answering(const std::string& answer) {
  return [answer](Peer& peer) {
    peer.readHead();
    peer.send(answer);
  };
}
ScriptedServer::Script answeringAndStaying(const std::string& answer) {
  return [answer](Peer& peer) {
    peer.readHead();
    peer.send(answer);
    peer.awaitPeerClose();
  };
}

TEST(TunnelLayer, AsksForATunnelToTheServer) {
  ScriptedServer proxy(answeringAndStaying(established));
  Tunnel tunnel(proxy.port());
  tunnel.layer->connect();
  EXPECT_EQ(proxy.request(0).raw,
            "CONNECT example.org:443 HTTP/1.1\r\nHost: example.org:443\r\n"
            "Proxy-Connection: keep-alive\r\n\r\n");
}

TEST(TunnelLayer, PutsAnIPv6AddressIntoBrackets) {
  ScriptedServer proxy(answeringAndStaying(established));
  Tunnel tunnel(proxy.port(), std::chrono::seconds(60), "", "::1");
  tunnel.layer->connect();
  EXPECT_EQ(proxy.request(0).target, "[::1]:443");
  EXPECT_EQ(proxy.request(0).header("Host"), "[::1]:443");
}

TEST(TunnelLayer, ShowsItsAuthorizationWhereItHasOne) {
  ScriptedServer proxy(answeringAndStaying(established));
  Tunnel tunnel(proxy.port(), std::chrono::seconds(60), "Basic configured");
  tunnel.layer->connect();
  EXPECT_EQ(proxy.request(0).header("Proxy-Authorization"), "Basic configured");
  tunnel.layer->close();
  tunnel.layer->authorizeWith("Basic own");
  tunnel.layer->connect();
  EXPECT_EQ(proxy.request(1).header("Proxy-Authorization"), "Basic own");
  EXPECT_EQ(proxy.request(1).headerCount("Proxy-Authorization"), 1U);
  tunnel.layer->close();
  tunnel.layer->authorizeWith("");
  tunnel.layer->connect();
  EXPECT_FALSE(proxy.request(2).header("Proxy-Authorization"));
}

TEST(TunnelLayer, OnceItIsOpenAllBytesPassAsTheyAre) {
  ScriptedServer proxy([](Peer& peer) {
    peer.readHead();
    peer.send(established);
    std::string echoed;
    while (echoed.size() < 12) {
      const std::string piece = peer.readSome();
      if (piece.empty()) return;
      echoed += piece;
    }
    peer.send(echoed);
  });
  Tunnel tunnel(proxy.port());
  tunnel.layer->connect();
  EXPECT_TRUE(tunnel.layer->quiet());
  EXPECT_EQ(tunnel.send("CONNECT\r\n\r\n\xFF"), 12U);
  std::string echoed;
  while (echoed.size() < 12) echoed += tunnel.receive();
  EXPECT_EQ(echoed, "CONNECT\r\n\r\n\xFF");
  EXPECT_EQ(tunnel.receive(), "");
}

TEST(TunnelLayer, TakesEveryAnswerThatIsASuccess) {
  // A length means nothing in the answer to a CONNECT.
  for (const char* answer :
       {established, "HTTP/1.0 200\r\n\r\n", "HTTP/1.1 299 Fine\r\nContent-Length: 10\r\n\r\n",
        "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n",
        "HTTP/1.1 100 Continue\r\n\r\nHTTP/1.1 200 Connection established\r\n\r\n"}) {
    ScriptedServer proxy(answeringAndStaying(answer));
    Tunnel tunnel(proxy.port());
    EXPECT_NO_THROW(tunnel.layer->connect()) << answer;
    EXPECT_TRUE(tunnel.layer->quiet());
  }
}

TEST(TunnelLayer, TakesAnAnswerInPieces) {
  ScriptedServer proxy([](Peer& peer) {
    test_support::Gate gate;
    gate.open(1000);
    peer.readHead();
    peer.trickle(established, 1000, gate);
    peer.awaitPeerClose();
  });
  Tunnel tunnel(proxy.port());
  EXPECT_NO_THROW(tunnel.layer->connect());
}

TEST(TunnelLayer, ARefusalIsReportedInTheProxysWords) {
  for (const auto& [answer, words] :
       {std::pair("HTTP/1.1 407 Proxy Authentication Required\r\nContent-Length: 4\r\n\r\nbody",
                  "407 Proxy Authentication Required"),
        std::pair("HTTP/1.1 302 Found\r\nLocation: /\r\n\r\n", "302 Found"),
        std::pair("HTTP/1.1 101 Switching\r\n\r\n", "101 Switching"),
        std::pair("HTTP/1.1 502 caf\xE9\r\n\r\n", "502 caf\xC3\xA9")}) {
    ScriptedServer proxy(answering(answer));
    Tunnel tunnel(proxy.port());
    EXPECT_THAT([&] { tunnel.layer->connect(); },
                failsWith<TunnelRefused>("The " + tunnel.name +
                                         " refused a tunnel to example.org:443: " + words));
  }
}

TEST(TunnelLayer, AnAnswerThatCannotBeUsedIsARefusalToo) {
  for (const auto& [answer, reason] :
       {std::pair("gibberish\r\n\r\n", "The response is not HTTP"),
        std::pair("HTTP/1.1 200 OK\r\nno colon\r\n\r\n",
                  "Malformed header line 1 in the response: no colon")}) {
    ScriptedServer proxy(answering(answer));
    Tunnel tunnel(proxy.port());
    EXPECT_THAT([&] { tunnel.layer->connect(); },
                failsWith<TunnelRefused>(
                    "The " + tunnel.name +
                    " sent no usable answer for a tunnel to example.org:443: " + reason));
  }
  ScriptedServer proxy(answering("HTTP/1.1 200 OK\r\n"));
  Tunnel tunnel(proxy.port());
  EXPECT_THAT(
      [&] { tunnel.layer->connect(); },
      failsWith<TunnelRefused>("The " + tunnel.name +
                               " sent no usable answer for a tunnel to example.org:443: The " +
                               tunnel.name + " closed the connection within the response head"));
}

// They would be taken for the server's.
TEST(TunnelLayer, BytesBehindTheAnswerAreARefusalToo) {
  ScriptedServer proxy(answering(std::string(established) + "bytes that no server has sent"));
  Tunnel tunnel(proxy.port());
  EXPECT_THAT([&] { tunnel.layer->connect(); },
              failsWith<TunnelRefused>("The " + tunnel.name +
                                       " sent more than its answer for a tunnel to "
                                       "example.org:443"));
}

// It may be tried again.
TEST(TunnelLayer, AProxyThatClosesWithoutAnAnswerHasNotRefused) {
  ScriptedServer proxy(answering(""));
  Tunnel tunnel(proxy.port());
  EXPECT_THAT([&] { tunnel.layer->connect(); },
              failsWith<Poco::Net::NoMessageException>("The " + tunnel.name +
                                                       " closed the connection without an answer"));
}

TEST(TunnelLayer, AProxyThatResetsHasNotRefused) {
  ScriptedServer proxy([](Peer& peer) {
    peer.readHead();
    peer.reset();
  });
  Tunnel tunnel(proxy.port());
  EXPECT_THAT([&] { tunnel.layer->connect(); },
              failsWith<Poco::Net::ConnectionResetException>("receiving from the " + tunnel.name));
}

TEST(TunnelLayer, NamesAProxyThatCannotBeReached) {
  const int port = test_support::unusedPort();
  Tunnel tunnel(port);
  EXPECT_THAT([&] { tunnel.layer->connect(); },
              failsWith<Poco::Net::ConnectionRefusedException>(
                  "the " + tunnel.name + " at 127.0.0.1:" + std::to_string(port)));
}

TEST(TunnelLayer, ASilentProxyIsATimeout) {
  ScriptedServer proxy([](Peer& peer) { peer.awaitPeerClose(); });
  Tunnel tunnel(proxy.port(), milliseconds(200));
  EXPECT_THAT([&] { tunnel.layer->connect(); },
              failsWith<Poco::TimeoutException>("The " + tunnel.name +
                                                " sent nothing within the time-out"));
}

TEST(TunnelLayer, ADeadlineEndsTheWaitForTheProxy) {
  ScriptedServer proxy([](Peer& peer) { peer.awaitPeerClose(); });
  Tunnel tunnel(proxy.port());
  tunnel.limits.setDeadline(TimeLimits::Clock::now() + milliseconds(200));
  EXPECT_THROW(tunnel.layer->connect(), DeadlineExceeded);
}

// A proxy that has answered can always be received from: waiting for that would not wait at all.
TEST(TunnelLayer, AProxyThatAnswersBeforeItHasReadIsWaitedFor) {
  Event done;
  ScriptedServer proxy([&](Peer& peer) {
    peer.send("HTTP/1.1 400 Too much\r\n\r\n");
    done.wait();
  });
  Tunnel tunnel(proxy.port(), milliseconds(200), std::string(30'000'000, 'x'));
  EXPECT_THAT([&] { tunnel.layer->connect(); },
              failsWith<Poco::TimeoutException>("The " + tunnel.name +
                                                " took no data within the time-out"));
  done.set();
}

TEST(TunnelLayer, OnceItIsOpenTheServerIsToBlame) {
  ScriptedServer proxy(answeringAndStaying(established));
  Tunnel tunnel(proxy.port(), milliseconds(1000));
  tunnel.layer->connect();
  EXPECT_THAT([&] { tunnel.receive(); },
              failsWith<Poco::TimeoutException>("The server sent nothing within the time-out"));
}

TEST(TunnelLayer, BlamesTheProxyAgainForTheNextTunnel) {
  ScriptedServer proxy({answeringAndStaying(established), answering("")});
  Tunnel tunnel(proxy.port());
  tunnel.layer->connect();
  tunnel.layer->close();
  EXPECT_THAT([&] { tunnel.layer->connect(); },
              failsWith<Poco::Net::NoMessageException>(
                  StartsWith("The " + tunnel.name + " closed the connection")));
}

TEST(TunnelLayer, ClosesTheConnectionToTheProxy) {
  ScriptedServer proxy(answeringAndStaying(established));
  Tunnel tunnel(proxy.port());
  tunnel.layer->connect();
  tunnel.layer->close();
  proxy.waitForEndedConnections(1);
}

}  // namespace
}  // namespace connectivity::plugins
