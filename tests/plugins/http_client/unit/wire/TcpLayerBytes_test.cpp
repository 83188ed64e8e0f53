// Bytes over a TCP connection whose peer the test plays: sent, received, waited for, and lost.
#include <algorithm>
#include <array>
#include <chrono>
#include <csignal>
#include <functional>
#include <memory>
#include <optional>
#include <poll.h>
#include <string>
#include <string_view>
#include <sys/socket.h>
#include <thread>
#include <vector>

#include <Poco/Exception.h>
#include <gtest/gtest.h>

#include "plugins/http_client/wire/TcpLayer.hpp"
#include "tests/plugins/http_client/unit/wire/Signals.hpp"
#include "tests/support/Descriptor.hpp"
#include "tests/support/Event.hpp"

namespace connectivity::plugins {
namespace {

using namespace std::chrono_literals;
using Clock = TimeLimits::Clock;
using Pieces = std::vector<std::string_view>;
using test_support::Descriptor;

// A connection and its other end.
class TcpLayerBytes : public testing::Test {
 protected:
  TcpLayerBytes() { connectWith(test_support::patience); }

  // Begins anew, with another time-out.
  void connectWith(std::chrono::milliseconds timeout) {
    limits = std::make_unique<TimeLimits>(timeout);
    const Descriptor listener = test_support::listenOnLoopback();
    const auto port = static_cast<std::uint16_t>(test_support::localPort(listener));
    layer = std::make_unique<TcpLayer>("127.0.0.1", port, resolver, *limits);
    layer->connect();
    peer.reset(::accept(listener.get(), nullptr, nullptr));
    EXPECT_TRUE(peer.valid());
  }

  // "done" and what `call` adds, or the exception's class and message.
  static std::string outcomeOf(const std::function<std::string()>& call) {
    try {
      return "done" + call();
    } catch (const Poco::Exception& error) {
      return std::string(error.name()) + ": " + error.message();
    } catch (const DeadlineExceeded& error) {
      return error.what();
    }
  }
  // What one receive gives: "done: bytes", "done: end", "done: nothing", or its failure.
  std::string received(Wait wait, std::size_t size = 100) {
    return outcomeOf([&]() -> std::string {
      std::string data(size, '\0');
      const auto count = layer->receive(data.data(), size, wait);
      if (!count) return ": nothing";
      return *count == 0 ? ": end" : ": " + data.substr(0, *count);
    });
  }
  std::string sent(std::string_view bytes) {
    return outcomeOf([&] { return ": " + std::to_string(layer->send(Pieces{bytes})); });
  }
  std::string awaited() {
    return outcomeOf([&]() -> std::string {
      layer->awaitEither();
      return "";
    });
  }
  void peerSends(std::string_view bytes) {
    ASSERT_TRUE(test_support::writeAll(peer.get(), bytes));
    awaitInput();
  }
  void peerCloses() {
    peer.reset();
    awaitInput();
  }
  void peerResets() {
    const linger atOnce{1, 0};
    ::setsockopt(peer.get(), SOL_SOCKET, SO_LINGER, &atOnce, sizeof atOnce);
    peerCloses();
  }
  // Until bytes, the end or a failure are there.
  void awaitInput() const {
    EXPECT_TRUE(layer->await(POLLIN, Clock::now() + test_support::patience));
  }
  // Sends until the connection takes no more, and goes on taking no more; how much that was.
  std::size_t fillUp() {
    const std::string block(100000, 'x');
    std::size_t sum = 0;
    do {
      while (const std::size_t count = layer->send(Pieces{block, block})) sum += count;
    } while (layer->await(POLLOUT, Clock::now() + 50ms));
    return sum;
  }
  void peerReads(std::size_t size) {
    std::vector<char> data(size);
    for (std::size_t read = 0; read < size;) {
      const auto count = ::recv(peer.get(), data.data(), size - read, 0);
      ASSERT_GT(count, 0);
      read += static_cast<std::size_t>(count);
    }
  }
  void deadlineIn(std::chrono::milliseconds left) { limits->setDeadline(Clock::now() + left); }

  Resolver resolver;
  std::unique_ptr<TimeLimits> limits;
  std::unique_ptr<TcpLayer> layer;
  Descriptor peer;
};

// --- Sending ------------------------------------------------------------------------------------

TEST_F(TcpLayerBytes, PiecesLeaveInTheirOrderHoweverManyTheyAre) {
  std::vector<std::string> texts;
  std::string all;
  for (int number = 0; number < 1000; ++number) {
    texts.push_back(number % 7 == 0 ? "" : std::to_string(number) + ",");
    all += texts.back();
  }
  Pieces pieces(texts.begin(), texts.end());
  std::size_t sum = 0;
  while (sum < all.size()) {
    std::size_t count = layer->send(pieces);
    ASSERT_GT(count, 0U);
    sum += count;
    // Those that have left go, and the front of the next.
    auto next = pieces.begin();
    while (next != pieces.end() && count >= next->size()) count -= (next++)->size();
    if (next != pieces.end()) next->remove_prefix(count);
    pieces.erase(pieces.begin(), next);
  }
  std::string arrived(all.size(), '\0');
  ASSERT_EQ(::recv(peer.get(), arrived.data(), arrived.size(), MSG_WAITALL),
            static_cast<ssize_t>(all.size()));
  EXPECT_EQ(arrived, all);
}

TEST_F(TcpLayerBytes, NothingToSendIsNoBytes) {
  EXPECT_EQ(layer->send({}), 0U);
  EXPECT_EQ(sent(""), "done: 0");
}

TEST_F(TcpLayerBytes, SendingTakesWhatFitsAndNeverWaits) {
  const std::size_t taken = fillUp();  // until it was 0
  EXPECT_GT(taken, 0U);
  peerReads(taken);
  ASSERT_TRUE(layer->await(POLLOUT, Clock::now() + test_support::patience));
  EXPECT_EQ(sent("more"), "done: 4");
}

// While the peer reads, the system would take body after body in one call, and an early answer
// would not be looked for.
TEST_F(TcpLayerBytes, SendingTakesAQuarterOfAMegabyteAtTheMost) {
  constexpr std::size_t most = 262144;
  const std::string first(200'000, 'a');
  const std::string second(20'000'000, 'b');
  std::size_t taken = 0;
  std::thread reading([&] {
    std::vector<char> data(most);
    while (::recv(peer.get(), data.data(), data.size(), 0) > 0) {
    }
  });
  for (int i = 0; i < 20; ++i) {
    const std::size_t count = layer->send(Pieces{first, second});
    EXPECT_LE(count, most);
    taken += count;
  }
  layer->close();
  reading.join();
  EXPECT_GT(taken, 0U);
}

// A SIGPIPE would end the program.
TEST_F(TcpLayerBytes, SendingToAPeerThatHasResetFailsWithoutASignal) {
  std::signal(SIGPIPE, SIG_DFL);
  sigset_t pipe;
  sigemptyset(&pipe);
  sigaddset(&pipe, SIGPIPE);
  pthread_sigmask(SIG_UNBLOCK, &pipe, nullptr);
  peerResets();
  EXPECT_EQ(sent("a"), "Connection reset by peer: sending to the server");
  EXPECT_EQ(sent("a"), "I/O error: sending to the server: broken pipe");
  layer->blame("the proxy squid:3128");
  EXPECT_EQ(sent("a"), "I/O error: sending to the proxy squid:3128: broken pipe");
}

TEST_F(TcpLayerBytes, WhatThePeerHasSentCanBeReceivedAfterSendingHasFailed) {
  peerSends("bye");
  peer.reset();
  const auto end = Clock::now() + test_support::patience;
  std::string outcome;
  while (Clock::now() < end && (outcome = sent("a")) == "done: 1") std::this_thread::yield();
  EXPECT_EQ(outcome, "I/O error: sending to the server: broken pipe");
  EXPECT_EQ(received(Wait::No), "done: bye");
}

// --- Receiving ----------------------------------------------------------------------------------

TEST_F(TcpLayerBytes, ReceiveGivesWhatHasCome) {
  for (const Wait wait : {Wait::No, Wait::Yes}) {
    peerSends("abcdef");
    EXPECT_EQ(received(wait, 4), "done: abcd");
    EXPECT_EQ(received(wait, 4), "done: ef");
  }
  peerCloses();
  for (const Wait wait : {Wait::No, Wait::Yes, Wait::No}) EXPECT_EQ(received(wait), "done: end");
}

TEST_F(TcpLayerBytes, ReceiveWithoutWaitingGivesNothingWhereNothingHasCome) {
  EXPECT_EQ(received(Wait::No), "done: nothing");
  deadlineIn(1h);
  EXPECT_EQ(received(Wait::No), "done: nothing");
}

TEST_F(TcpLayerBytes, ReceiveWaitsAlsoWhereASignalComesBetween) {
  for (const bool withDeadline : {false, true}) {
    if (withDeadline) deadlineIn(1h);
    std::string result;
    EXPECT_TRUE(
        test_support::goesOnAfterSignals([&] { result = received(Wait::Yes); },
                                         [&] { test_support::writeAll(peer.get(), "at last"); }));
    EXPECT_EQ(result, "done: at last");
  }
}

TEST_F(TcpLayerBytes, ReceiveTimesOut) {
  connectWith(20ms);
  EXPECT_EQ(received(Wait::Yes), "Timeout: The server sent nothing within the time-out");
  deadlineIn(1h);
  EXPECT_EQ(received(Wait::Yes), "Timeout: The server sent nothing within the time-out");
  layer->blame("the proxy squid:3128");
  EXPECT_EQ(received(Wait::Yes), "Timeout: The proxy squid:3128 sent nothing within the time-out");
  limits->setDeadline(std::nullopt);
  EXPECT_EQ(received(Wait::Yes), "Timeout: The proxy squid:3128 sent nothing within the time-out");
  EXPECT_TRUE(layer->isOpen());
}

TEST_F(TcpLayerBytes, ReceiveEndsAtTheDeadline) {
  deadlineIn(20ms);
  EXPECT_EQ(received(Wait::Yes), "Deadline exceeded");
}

TEST_F(TcpLayerBytes, ReceiveFailsAfterTheDeadlineWhateverHasCome) {
  peerSends("late");
  deadlineIn(-1ms);
  EXPECT_EQ(received(Wait::Yes), "Deadline exceeded");
  limits->setDeadline(std::nullopt);
  EXPECT_EQ(received(Wait::Yes), "done: late");
}

TEST_F(TcpLayerBytes, ReceiveFailsWhereThePeerHasReset) {
  for (const Wait wait : {Wait::No, Wait::Yes}) {
    connectWith(test_support::patience);
    peerResets();
    EXPECT_EQ(received(wait), "Connection reset by peer: receiving from the server");
    connectWith(test_support::patience);
    layer->blame("the proxy squid:3128");
    deadlineIn(1h);
    peerResets();
    EXPECT_EQ(received(wait), "Connection reset by peer: receiving from the proxy squid:3128");
  }
}

// --- Both directions ----------------------------------------------------------------------------

TEST_F(TcpLayerBytes, AwaitEitherEndsWhereSomethingCanBeSent) { EXPECT_EQ(awaited(), "done"); }

TEST_F(TcpLayerBytes, AwaitEitherEndsWhereSomethingHasCome) {
  fillUp();
  peerSends("x");
  EXPECT_EQ(awaited(), "done");
}

TEST_F(TcpLayerBytes, AwaitEitherWaitsUntilThePeerReads) {
  const std::size_t taken = fillUp();
  EXPECT_TRUE(test_support::goesOnAfterSignals([&] { EXPECT_EQ(awaited(), "done"); },
                                               [&] { peerReads(taken); }));
  EXPECT_EQ(sent("more"), "done: 4");
}

TEST_F(TcpLayerBytes, AwaitEitherTimesOut) {
  connectWith(20ms);
  fillUp();
  EXPECT_EQ(awaited(), "Timeout: The server took no data within the time-out");
  layer->blame("the proxy squid:3128");
  deadlineIn(1h);
  EXPECT_EQ(awaited(), "Timeout: The proxy squid:3128 took no data within the time-out");
}

TEST_F(TcpLayerBytes, AwaitEitherEndsAtTheDeadline) {
  deadlineIn(-1ms);
  EXPECT_EQ(awaited(), "Deadline exceeded");
  fillUp();
  deadlineIn(20ms);
  EXPECT_EQ(awaited(), "Deadline exceeded");
}

TEST_F(TcpLayerBytes, AwaitIsFalseWhereItsTimeIsUp) {
  EXPECT_FALSE(layer->await(POLLIN, Clock::now() + 20ms));
  EXPECT_TRUE(layer->await(POLLIN | POLLOUT, Clock::now() - 1h));
}

// --- Use again ----------------------------------------------------------------------------------

TEST_F(TcpLayerBytes, IsQuietWhereNothingHasCome) { EXPECT_TRUE(layer->quiet()); }

TEST_F(TcpLayerBytes, IsNotQuietWithStrayBytes) {
  peerSends("x");
  EXPECT_FALSE(layer->quiet());
  EXPECT_EQ(received(Wait::No), "done: x");
  EXPECT_TRUE(layer->quiet());
}

TEST_F(TcpLayerBytes, IsNotQuietWhereThePeerHasClosedOrReset) {
  peerCloses();
  EXPECT_FALSE(layer->quiet());
  connectWith(test_support::patience);
  peerResets();
  EXPECT_FALSE(layer->quiet());
}

TEST_F(TcpLayerBytes, ClosingEndsItForThePeerToo) {
  layer->close();
  EXPECT_FALSE(layer->isOpen());
  char byte = 0;
  EXPECT_EQ(::recv(peer.get(), &byte, 1, 0), 0);
  layer->close();
  EXPECT_FALSE(layer->isOpen());
}

TEST_F(TcpLayerBytes, ItsEndClosesIt) {
  layer.reset();
  char byte = 0;
  EXPECT_EQ(::recv(peer.get(), &byte, 1, 0), 0);
}

TEST_F(TcpLayerBytes, CanBeOpenedAgain) {
  const Descriptor listener = test_support::listenOnLoopback();
  const auto port = static_cast<std::uint16_t>(test_support::localPort(listener));
  TcpLayer again("127.0.0.1", port, resolver, *limits);
  for (int round = 0; round < 2; ++round) {
    again.connect();
    const Descriptor other(::accept(listener.get(), nullptr, nullptr));
    ASSERT_TRUE(test_support::writeAll(other.get(), "x"));
    char byte = 0;
    EXPECT_EQ(again.receive(&byte, 1, Wait::Yes), 1U);
    again.close();
  }
}

}  // namespace
}  // namespace connectivity::plugins
