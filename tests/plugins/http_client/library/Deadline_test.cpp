// The deadline of a whole request, from the configuration or the request's own: wherever its time
// goes, it ends with the deadline, on a connection that is not used again.
//
// The servers here are slow for some seconds and then give up or answer, so that a request without
// a deadline ends too.
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <fcntl.h>
#include <memory>
#include <netinet/in.h>
#include <optional>
#include <string>
#include <sys/socket.h>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "tests/plugins/http_client/Expectations.hpp"
#include "tests/support/Certificates.hpp"
#include "tests/support/Descriptor.hpp"
#include "tests/support/PluginUnderTest.hpp"
#include "tests/support/ScriptedProxy.hpp"
#include "tests/support/ScriptedServer.hpp"

namespace test_support {
namespace {

using namespace std::chrono_literals;

constexpr int deadlineSecs = 1;
// Of each wait on the network: longer than the deadline, so that no wait's own bound ends the test.
constexpr int timeoutSecs = 3;
constexpr const char* exceeded = "Deadline exceeded";

enum class Given { InTheConfiguration, WithTheRequest };

std::string nameOf(const ::testing::TestParamInfo<Given>& info) {
  return info.param == Given::InTheConfiguration ? "InTheConfiguration" : "WithTheRequest";
}

Config configured(Given given, Config config) {
  config.timeoutSecs(timeoutSecs).numClients(1);
  if (given == Given::InTheConfiguration) config.set("deadlineSecs", deadlineSecs);
  return config;
}

Request bounded(Given given, Request request) {
  if (given == Given::WithTheRequest) request.set("http/deadlineSecs", data_t(deadlineSecs));
  return request;
}

void neverAnswer(Connection& connection) {
  connection.readRequest();
  connection.awaitPeerClose();
}

class Deadline : public ::testing::TestWithParam<Given> {
 protected:
  // The first connection is served by `slow`, all others are answered at once.
  ScriptedServer& serve(ScriptedServer::Script slow, std::optional<TlsOptions> tls = std::nullopt) {
    _server = std::make_unique<ScriptedServer>(
        std::vector<ScriptedServer::Script>{std::move(slow), answerWithTarget}, std::move(tls));
    return *_server;
  }
  PluginUnderTest& connect(const Config& config) {
    PluginOptions options;
    options.logLevel = QOR_LOG_DEBUG;  // without the dumps of large bodies
    _plugin = std::make_unique<PluginUnderTest>(configured(GetParam(), config), options);
    return *_plugin;
  }
  PluginUnderTest& connect() { return connect(Config(_server->port())); }
  Answer ask(const Request& request) { return _plugin->request(bounded(GetParam(), request)); }

  void expectExceeded(const Answer& answer) {
    expectError(answer, exceeded);
    EXPECT_EQ(_plugin->statusItem(".status"), "FAILED");
  }
  // ... by the first connection, without another attempt; it is closed, and the next request comes
  // on a new one.
  void expectExceededOnTheFirstConnection(const Answer& answer) {
    expectExceeded(answer);
    EXPECT_FALSE(_plugin->log().contains(retryLine));
    EXPECT_EQ(_server->connectionCount(), 1U);
    if (HasFailure()) return;  // the waits below would be for what does not come
    _server->waitForEndedConnections(1);
    EXPECT_EQ(_plugin->request(Request("GET", "/next")).body(), "/next");
    EXPECT_EQ(lastRequest(*_server).connection, 2);
    EXPECT_EQ(_plugin->answerCount(), 2U);
  }
  ScriptedServer& server() { return *_server; }
  PluginUnderTest& plugin() { return *_plugin; }

 private:
  std::unique_ptr<ScriptedServer> _server;
  std::unique_ptr<PluginUnderTest> _plugin;  // ends before its server
};

INSTANTIATE_TEST_SUITE_P(Given, Deadline,
                         ::testing::Values(Given::InTheConfiguration, Given::WithTheRequest),
                         nameOf);

// --- Where the time goes ------------------------------------------------------------------------

TEST_P(Deadline, EndsTheWaitForAServerThatNeverAnswers) {
  serve(neverAnswer);
  connect();
  expectExceededOnTheFirstConnection(ask(Request("GET", "/x")));
}

TEST_P(Deadline, EndsAHeadThatTrickles) {
  serve([](Connection& connection) {
    connection.readRequest();
    connection.drip("HTTP/1.1 200 OK\r\nX-Slow: yes\r\nContent-Length: 0\r\n\r\n", 50ms);
    connection.awaitPeerClose();
  });
  connect();
  expectExceededOnTheFirstConnection(ask(Request("GET", "/x")));
}

TEST_P(Deadline, EndsABodyThatTrickles) {
  serve([](Connection& connection) {
    connection.readRequest();
    connection.send("HTTP/1.1 200 OK\r\nContent-Length: 30\r\n\r\n");
    connection.drip(std::string(30, 'x'), 100ms);
    connection.awaitPeerClose();
  });
  connect();
  expectExceededOnTheFirstConnection(ask(Request("GET", "/x")));
}

TEST_P(Deadline, EndsChunksThatTrickle) {
  serve([](Connection& connection) {
    connection.readRequest();
    connection.send("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n1e\r\n");
    connection.drip(std::string(30, 'x'), 100ms);
    connection.send("\r\n0\r\n\r\n");
    connection.awaitPeerClose();
  });
  connect();
  expectExceededOnTheFirstConnection(ask(Request("GET", "/x")));
}

TEST_P(Deadline, EndsInterimResponsesThatGoOn) {
  serve([](Connection& connection) {
    connection.readRequest();
    for (int step = 0; step < 30 && connection.linger(100ms); ++step) {
      connection.send("HTTP/1.1 102 Processing\r\n\r\n");
    }
    connection.sendResponse(200);
    connection.awaitPeerClose();
  });
  connect();
  expectExceededOnTheFirstConnection(ask(Request("GET", "/x")));
}

TEST_P(Deadline, EndsABodyThatTheServerDoesNotTake) {
  const auto answered = std::make_shared<Event>("the answer");
  serve([answered](Connection& connection) {
    connection.readHead();
    connection.stallUntil(*answered);
    connection.awaitPeerClose();
  });
  connect().onDelivery([answered](const Answer&) { answered->set(); });
  expectExceededOnTheFirstConnection(ask(Request("POST", "/x").body(std::string(50'000'000, 'x'))));
}

TEST_P(Deadline, EndsABodyThatTheServerTakesSlowly) {
  serve([](Connection& connection) {
    connection.readHead();
    for (int step = 0; step < 30 && connection.linger(100ms); ++step) {
      if (!connection.readBytes(100'000)) return;
    }
    connection.sendResponse(200);
    connection.awaitPeerClose();
  });
  connect();
  expectExceededOnTheFirstConnection(ask(Request("POST", "/x").body(std::string(50'000'000, 'x'))));
}

TEST_P(Deadline, EndsAChainOfRedirects) {
  serve([](Connection& connection) {
    for (int step = 1; connection.readRequest(); ++step) {
      connection.linger(300ms);
      const std::string next = "/" + std::to_string(step);
      connection.sendResponse(step < 9 ? 302 : 200, {{"Location", next}});
    }
  });
  connect();
  expectExceededOnTheFirstConnection(ask(Request("GET", "/0")));
  EXPECT_LT(server().requestCount(), 9U);
}

TEST_P(Deadline, EndsARedirectElsewhereAndTheConfiguredServersConnectionIsKept) {
  ScriptedServer elsewhere(neverAnswer);
  const std::string far = "http://127.0.0.1:" + std::to_string(elsewhere.port()) + "/far";
  serve([far](Connection& connection) {
    connection.readRequest();
    connection.sendResponse(301, {{"Location", far}});
    answerWithTarget(connection);
  });
  connect();
  expectExceeded(ask(Request("GET", "/x")));
  EXPECT_EQ(elsewhere.connectionCount(), 1U);
  if (HasFailure()) return;
  elsewhere.waitForEndedConnections(1);
  EXPECT_EQ(plugin().request(Request("GET", "/next")).body(), "/next");
  EXPECT_EQ(server().connectionCount(), 1U);
}

TEST_P(Deadline, EndsASecondAttempt) {
  ScriptedServer server(
      {[](Connection& connection) { connection.readRequest(); }, neverAnswer, answerWithTarget});
  connect(Config(server.port()));
  expectExceeded(ask(Request("GET", "/x")));
  EXPECT_EQ(plugin().log().count(retryLine), 1U);
  EXPECT_EQ(server.connectionCount(), 2U);
  EXPECT_EQ(plugin().request(Request("GET", "/next")).body(), "/next");
  EXPECT_EQ(lastRequest(server).connection, 3);
}

// The server closes after the deadline, which would otherwise be the time for a second attempt.
TEST_P(Deadline, LeavesNoSecondAttemptToAServerThatClosesLate) {
  serve([](Connection& connection) {
    connection.readRequest();
    connection.linger(2s);
  });
  connect();
  expectExceededOnTheFirstConnection(ask(Request("GET", "/x")));
}

TEST_P(Deadline, CountsBothAttemptsTogether) {
  const auto answerLate = [](Connection& connection) {
    connection.readRequest();
    connection.linger(700ms);
  };
  ScriptedServer server({answerLate, [](Connection& connection) {
                           connection.readRequest();
                           connection.linger(700ms);
                           connection.sendResponse(200, {{"Connection", "close"}}, "late");
                         }});
  connect(Config(server.port()));
  expectExceeded(ask(Request("GET", "/x")));
}

// --- Connecting ---------------------------------------------------------------------------------

// A port whose connections nobody takes any more: the next ones get no word.
class FullPort {
 public:
  FullPort() : _listener(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    EXPECT_EQ(::bind(_listener.get(), general(address), sizeof address), 0);
    EXPECT_EQ(::listen(_listener.get(), 0), 0);
    address.sin_port = htons(static_cast<std::uint16_t>(port()));
    for (int waiting = 0; waiting < 8; ++waiting) {
      _clients.emplace_back(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
      static_cast<void>(::connect(_clients.back().get(), general(address), sizeof address));
    }
  }
  int port() const { return localPort(_listener); }

 private:
  static sockaddr* general(sockaddr_in& address) { return reinterpret_cast<sockaddr*>(&address); }

  Descriptor _listener;
  std::vector<Descriptor> _clients;
};

TEST_P(Deadline, EndsTheAttemptToConnect) {
  const FullPort full;
  connect(Config(full.port()));
  expectExceeded(ask(Request("GET", "/x")));
  EXPECT_FALSE(plugin().log().contains(retryLine));
}

TEST_P(Deadline, EndsAHandshakeThatIsNeverAnswered) {
  CertificateAuthority authority;
  TlsOptions tls{authority.issue()};
  tls.neverAnswerHandshake = true;
  ScriptedServer silent(answerWithTarget, tls);
  connect(Config(silent.port()).tls(authority.caFile()));
  expectExceeded(ask(Request("GET", "/x")));
  EXPECT_EQ(silent.connectionCount(), 1U);
  if (HasFailure()) return;
  silent.waitForEndedConnections(1);
}

TEST_P(Deadline, EndsTheWaitWithinTls) {
  CertificateAuthority authority;
  serve(neverAnswer, TlsOptions{authority.issue()});
  connect(Config(server().port()).tls(authority.caFile()));
  expectExceededOnTheFirstConnection(ask(Request("GET", "/x")));
}

TEST_P(Deadline, EndsABodyThatTricklesWithinTls) {
  CertificateAuthority authority;
  serve(
      [](Connection& connection) {
        connection.readRequest();
        connection.send("HTTP/1.1 200 OK\r\nContent-Length: 30\r\n\r\n");
        connection.drip(std::string(30, 'x'), 100ms);
        connection.awaitPeerClose();
      },
      TlsOptions{authority.issue()});
  connect(Config(server().port()).tls(authority.caFile()));
  expectExceededOnTheFirstConnection(ask(Request("GET", "/x")));
}

TEST_P(Deadline, EndsTheWaitForATunnel) {
  CertificateAuthority authority;
  ScriptedServer proxy(neverAnswer);
  connect(Config(443).tls(authority.caFile()).proxy(proxy.port()));
  expectExceeded(ask(Request("GET", "/x")));
  EXPECT_EQ(proxy.connectionCount(), 1U);
  EXPECT_FALSE(plugin().log().contains(retryLine));
}

// --- What it leaves alone -----------------------------------------------------------------------

TEST_P(Deadline, LeavesQuickRequestsAlone) {
  serve(answerWithTarget);
  connect();
  for (int time = 0; time < 20; ++time) {
    EXPECT_EQ(ask(Request("POST", "/x").body("some")).body(), "/x");
  }
  EXPECT_EQ(server().connectionCount(), 1U);
  EXPECT_EQ(plugin().statusItem(".status"), "ONLINE");
}

// Each request has its own: the time that went by before it was taken is not its time.
TEST_P(Deadline, CountsFromWhenAWorkerTakesTheRequest) {
  serve([](Connection& connection) {
    while (const auto request = connection.readRequest()) {
      connection.linger(400ms);
      connection.sendResponse(200, {}, request->target);
    }
  });
  connect();
  for (long long id = 1; id <= 4; ++id) {
    plugin().send(bounded(GetParam(), Request("GET", "/x").id(id)));
  }
  for (const Answer& answer : plugin().waitForAnswers(4)) {
    EXPECT_EQ(answer.status(), 200) << answer.reason();
  }
}

}  // namespace
}  // namespace test_support
