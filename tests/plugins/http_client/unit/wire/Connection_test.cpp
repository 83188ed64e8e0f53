// How a TCP connection comes about. What is sent and received over it is proved with the sessions.
#include "plugins/http_client/wire/Connection.hpp"

#include <string>
#include <sys/socket.h>
#include <vector>

#include <Poco/Exception.h>
#include <Poco/Net/NetException.h>
#include <Poco/Net/SocketAddress.h>
#include <Poco/Timespan.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/Descriptor.hpp"

namespace connectivity::plugins {
namespace {

using Poco::Net::SocketAddress;
using test_support::Descriptor;
using testing::Throws;

const Poco::Timespan patience(30, 0);

SocketAddress loopback(int port) {
  return SocketAddress("127.0.0.1", static_cast<Poco::UInt16>(port));
}

// A port that leaves further connects without an answer: its queue is full and nobody accepts.
class SilentPort {
 public:
  SilentPort() : _listener(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    const SocketAddress any("127.0.0.1", 0);
    ::bind(_listener.get(), any.addr(), any.length());
    ::listen(_listener.get(), 0);
    // The first connection waits to be accepted and fills the queue.
    _waiting = test_support::connectToLoopback(port());
  }
  int port() const { return test_support::localPort(_listener); }

 private:
  Descriptor _listener;
  Descriptor _waiting;
};

TEST(Connection, AnAddressNeedsNoResolver) {
  EXPECT_EQ(addressesOf("127.0.0.1", 80), std::vector<SocketAddress>{loopback(80)});
  EXPECT_EQ(addressesOf("::1", 80), (std::vector<SocketAddress>{SocketAddress("[::1]:80")}));
}

TEST(Connection, IPv4ComesFirst) {
  EXPECT_EQ(addressesOf("localhost", 80).front().family(), SocketAddress::IPv4);
}

TEST(Connection, AHostThatDoesNotExistIsReported) {
  EXPECT_THROW(addressesOf("no-such-host.invalid", 80), Poco::Net::NetException);
}

TEST(Connection, TriesTheNextAddressWhereOneRefuses) {
  const Descriptor server = test_support::listenOnLoopback();
  const int port = test_support::localPort(server);
  const auto socket =
      connectToFirst({loopback(test_support::unusedPort()), loopback(port)}, patience);
  EXPECT_EQ(socket.peerAddress(), loopback(port));
}

TEST(Connection, TriesTheNextAddressWhereOneDoesNotAnswer) {
  const SilentPort silent;
  const Descriptor server = test_support::listenOnLoopback();
  const int port = test_support::localPort(server);
  // Half of this goes to the silent address.
  const auto socket =
      connectToFirst({loopback(silent.port()), loopback(port)}, Poco::Timespan(1, 0));
  EXPECT_EQ(socket.peerAddress(), loopback(port));
}

TEST(Connection, ReportsTheFirstAddressWhereNoneTakesIt) {
  const int first = test_support::unusedPort();
  EXPECT_THAT(
      [&] {
        connectToFirst({loopback(first), loopback(1)}, patience);
      },
      Throws<Poco::Net::ConnectionRefusedException>(
          testing::Property(&Poco::Exception::message, "127.0.0.1:" + std::to_string(first))));
}

TEST(Connection, TimesOutWhereNobodyAnswers) {
  const SilentPort silent;
  EXPECT_THAT([&] { connectToFirst({loopback(silent.port())}, Poco::Timespan(0, 100000)); },
              Throws<Poco::TimeoutException>(testing::Property(
                  &Poco::Exception::message,
                  "connect timed out: 127.0.0.1:" + std::to_string(silent.port()))));
}

}  // namespace
}  // namespace connectivity::plugins
