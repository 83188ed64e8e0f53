// The TCP connection under every other layer, to a peer that the test plays.
#include "plugins/http_client/wire/TcpLayer.hpp"

#include <array>
#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <functional>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <optional>
#include <poll.h>
#include <string>
#include <string_view>
#include <sys/socket.h>
#include <sys/time.h>
#include <vector>

#include <Poco/Exception.h>
#include <Poco/Net/SocketAddress.h>
#include <gtest/gtest.h>

#include "tests/plugins/http_client/unit/wire/NameService.hpp"
#include "tests/plugins/http_client/unit/wire/Signals.hpp"
#include "tests/support/Descriptor.hpp"
#include "tests/support/Event.hpp"

namespace connectivity::plugins {
namespace {

using namespace std::chrono_literals;
using Clock = TimeLimits::Clock;
using Pieces = std::vector<std::string_view>;
using test_support::Descriptor;
using test_support::Event;
using test_support::localPort;
using test_support::NameService;

const std::string proxy = "the proxy squid:3128";

// A listener on an address of this machine; port 0: one that the system picks.
Descriptor listenOn(const std::string& address, int port = 0, int queue = 16) {
  const Poco::Net::SocketAddress where(address, static_cast<Poco::UInt16>(port));
  Descriptor listener(::socket(where.af(), SOCK_STREAM | SOCK_CLOEXEC, 0));
  const bool listens = ::bind(listener.get(), where.addr(), where.length()) == 0 &&
                       ::listen(listener.get(), queue) == 0;
  if (!listens) listener.reset();
  return listener;
}

// An address and port that leave further connects without an answer: the queue is full and nobody
// accepts.
class SilentPort {
 public:
  explicit SilentPort(const std::string& address, int port = 0)
      : _listener(listenOn(address, port, 0)), _waiting(::socket(AF_INET, SOCK_STREAM, 0)) {
    const Poco::Net::SocketAddress where(address, static_cast<Poco::UInt16>(this->port()));
    EXPECT_EQ(::connect(_waiting.get(), where.addr(), where.length()), 0);
  }
  int port() const { return localPort(_listener); }

 private:
  Descriptor _listener;
  Descriptor _waiting;  // waits to be accepted, and fills the queue
};

// What a call ends in: "done", or the exception's class and message.
std::string outcomeOf(const std::function<void()>& call) {
  try {
    call();
  } catch (const Poco::Exception& error) {
    return std::string(error.name()) + ": " + error.message();
  } catch (const DeadlineExceeded& error) {
    return error.what();
  }
  return "done";
}

class TcpLayerTest : public testing::Test {
 protected:
  std::unique_ptr<TcpLayer> layerTo(const std::string& host, int port) {
    return std::make_unique<TcpLayer>(host, static_cast<std::uint16_t>(port), resolver, limits);
  }
  std::string connectOutcome(const std::string& host, int port, const std::string& peer = {}) {
    const auto one = layerTo(host, port);
    if (!peer.empty()) one->blame(peer);
    std::string outcome = outcomeOf([&] { one->connect(); });
    EXPECT_EQ(one->isOpen(), outcome == "done");
    return outcome;
  }
  void expectDeadline(std::chrono::milliseconds left) { limits.setDeadline(Clock::now() + left); }

  Event answered;  // outlives the look-ups that wait for it
  NameService names;
  Resolver resolver;
  TimeLimits limits{test_support::patience};
};

// --- Connecting ---------------------------------------------------------------------------------

class TcpLayerConnect : public TcpLayerTest {};

TEST_F(TcpLayerConnect, ReachesAnAddressOrAName) {
  names.answer("one.test", {"127.0.0.1"});
  const Descriptor server = listenOn("127.0.0.1");
  EXPECT_EQ(connectOutcome("127.0.0.1", localPort(server)), "done");
  EXPECT_EQ(connectOutcome("one.test", localPort(server)), "done");
}

TEST_F(TcpLayerConnect, ReachesAnIPv6Address) {
  const Descriptor server = test_support::listenOnLoopback6();
  if (!server.valid()) GTEST_SKIP() << "This machine has no IPv6.";
  EXPECT_EQ(connectOutcome("::1", localPort(server)), "done");
}

TEST_F(TcpLayerConnect, TriesTheNextAddressWhereOneRefuses) {
  names.answer("three.test", {"127.0.0.3", "127.0.0.2", "127.0.0.1"});
  const Descriptor server = listenOn("127.0.0.1");
  EXPECT_EQ(connectOutcome("three.test", localPort(server)), "done");
}

TEST_F(TcpLayerConnect, TriesTheNextAddressWhereOthersDoNotAnswer) {
  names.answer("three.test", {"127.0.0.3", "127.0.0.2", "127.0.0.1"});
  const Descriptor server = listenOn("127.0.0.1");
  const SilentPort second("127.0.0.2", localPort(server));
  const SilentPort third("127.0.0.3", localPort(server));
  TimeLimits brief(1500ms);
  TcpLayer layer("three.test", static_cast<std::uint16_t>(localPort(server)), resolver, brief);
  EXPECT_EQ(outcomeOf([&] { layer.connect(); }), "done");
}

TEST_F(TcpLayerConnect, NamesTheFirstAddressWhereNoneTakesIt) {
  names.answer("two.test", {"127.0.0.2", "127.0.0.1"});
  const int port = test_support::unusedPort();
  const std::string where = "127.0.0.2:" + std::to_string(port);
  EXPECT_EQ(connectOutcome("two.test", port), "Connection refused: " + where);
  EXPECT_EQ(connectOutcome("two.test", port, proxy),
            "Connection refused: the proxy squid:3128 at " + where);
}

TEST_F(TcpLayerConnect, TimesOutWhereNobodyAnswers) {
  const SilentPort silent("127.0.0.1");
  const std::string where = "127.0.0.1:" + std::to_string(silent.port());
  TimeLimits brief(20ms);
  TcpLayer layer("127.0.0.1", static_cast<std::uint16_t>(silent.port()), resolver, brief);
  EXPECT_EQ(outcomeOf([&] { layer.connect(); }), "Timeout: connect timed out: " + where);
  EXPECT_FALSE(layer.isOpen());
  layer.blame(proxy);
  EXPECT_EQ(outcomeOf([&] { layer.connect(); }),
            "Timeout: connect timed out: the proxy squid:3128 at " + where);
}

TEST_F(TcpLayerConnect, FirstAddressIsNamedWhateverBecameOfTheSecond) {
  names.answer("two.test", {"127.0.0.2", "127.0.0.1"});
  names.answer("owt.test", {"127.0.0.1", "127.0.0.2"});
  const SilentPort silent("127.0.0.2");
  const auto port = static_cast<std::uint16_t>(silent.port());
  TimeLimits brief(100ms);
  TcpLayer two("two.test", port, resolver, brief);
  EXPECT_EQ(outcomeOf([&] { two.connect(); }),
            "Timeout: connect timed out: 127.0.0.2:" + std::to_string(port));
  TcpLayer owt("owt.test", port, resolver, brief);
  EXPECT_EQ(outcomeOf([&] { owt.connect(); }),
            "Connection refused: 127.0.0.1:" + std::to_string(port));
}

TEST_F(TcpLayerConnect, DeadlineEndsIt) {
  const SilentPort silent("127.0.0.1");
  expectDeadline(20ms);
  EXPECT_EQ(connectOutcome("127.0.0.1", silent.port()), "Deadline exceeded");
}

TEST_F(TcpLayerConnect, NamesTheHostThatCannotBeResolved) {
  names.fail("unknown.test", EAI_NONAME);
  EXPECT_EQ(connectOutcome("unknown.test", 80), "Host not found: unknown.test");
  EXPECT_EQ(connectOutcome("unknown.test", 80, proxy), "Host not found: the proxy squid:3128");
}

TEST_F(TcpLayerConnect, NamesTheHostThatIsNotResolvedInTime) {
  names.hold("slow.test", answered);
  TimeLimits brief(20ms);
  TcpLayer layer("slow.test", 80, resolver, brief);
  EXPECT_EQ(outcomeOf([&] { layer.connect(); }),
            "Timeout: slow.test was not resolved within the time-out");
  layer.blame(proxy);
  EXPECT_EQ(outcomeOf([&] { layer.connect(); }),
            "Timeout: the proxy squid:3128 was not resolved within the time-out");
  answered.set();
}

// Of the one connection of this process to that port.
int descriptorTo(int port) {
  for (int fd = 0; fd < 1024; ++fd) {
    sockaddr_in peer{};
    socklen_t size = sizeof peer;
    const bool connected = ::getpeername(fd, reinterpret_cast<sockaddr*>(&peer), &size) == 0;
    if (connected && ntohs(peer.sin_port) == port) return fd;
  }
  return -1;
}

TEST_F(TcpLayerConnect, SocketBlocksWithTheTimeoutSendsAtOnceAndIsNotInherited) {
  const Descriptor server = listenOn("127.0.0.1");
  TimeLimits limit(90s);
  TcpLayer layer("127.0.0.1", static_cast<std::uint16_t>(localPort(server)), resolver, limit);
  layer.connect();
  const int fd = descriptorTo(localPort(server));
  ASSERT_GE(fd, 0);
  EXPECT_NE(::fcntl(fd, F_GETFD) & FD_CLOEXEC, 0);
  EXPECT_EQ(::fcntl(fd, F_GETFL) & O_NONBLOCK, 0);
  int noDelay = 0;
  socklen_t size = sizeof noDelay;
  ASSERT_EQ(::getsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &noDelay, &size), 0);
  EXPECT_NE(noDelay, 0);
  timeval timeout{};
  size = sizeof timeout;
  ASSERT_EQ(::getsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &timeout, &size), 0);
  EXPECT_EQ(timeout.tv_sec, 90);
}

TEST_F(TcpLayerConnect, LeavesNoSocketBehindWhereItFails) {
  names.answer("two.test", {"127.0.0.2", "127.0.0.1"});
  const int port = test_support::unusedPort();
  const Descriptor before(::dup(STDIN_FILENO));
  for (int round = 0; round < 3; ++round) connectOutcome("two.test", port);
  const Descriptor after(::dup(STDIN_FILENO));
  EXPECT_EQ(after.get(), before.get() + 1);
}

TEST(SentenceStart, IsACapitalLetter) {
  EXPECT_EQ(sentenceStart(theServer), "The server");
  EXPECT_EQ(sentenceStart(proxy), "The proxy squid:3128");
  EXPECT_EQ(sentenceStart(""), "");
}

}  // namespace
}  // namespace connectivity::plugins
