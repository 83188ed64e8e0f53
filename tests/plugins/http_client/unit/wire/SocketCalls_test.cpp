#include "plugins/http_client/wire/SocketCalls.hpp"

#include <array>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <fcntl.h>
#include <limits>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <string>
#include <sys/socket.h>
#include <sys/time.h>
#include <thread>
#include <unistd.h>
#include <utility>

#include <Poco/Exception.h>
#include <Poco/Net/NetException.h>
#include <gtest/gtest.h>

#include "tests/plugins/http_client/unit/wire/Signals.hpp"
#include "tests/plugins/http_client/unit/wire/Waits.hpp"
#include "tests/support/Descriptor.hpp"
#include "tests/support/Event.hpp"

namespace connectivity::plugins {
namespace {

using namespace std::chrono_literals;
using test_support::Descriptor;
using Clock = TimeLimits::Clock;

// Two ends of one stream.
struct Pair {
  Pair() {
    std::array<int, 2> ends{};
    EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()), 0);
    ours.reset(ends[0]);
    theirs.reset(ends[1]);
  }
  Descriptor ours;
  Descriptor theirs;
};

bool isOpenDescriptor(int fd) { return ::fcntl(fd, F_GETFD) >= 0; }

int newSocket() { return ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0); }

template <typename Value>
Value optionOf(int fd, int level, int option) {
  Value value{};
  socklen_t size = sizeof value;
  EXPECT_EQ(::getsockopt(fd, level, option, &value, &size), 0);
  return value;
}

Clock::time_point patient() { return Clock::now() + test_support::patience; }

// --- Socket -------------------------------------------------------------------------------------

TEST(Socket, HoldsNothingAtFirst) {
  Socket none;
  EXPECT_FALSE(none.isOpen());
  EXPECT_EQ(none.descriptor(), -1);
  none.close();
  EXPECT_FALSE(none.isOpen());
}

TEST(Socket, IsClosedWithItsOwner) {
  int fd = -1;
  {
    const Socket socket(newSocket());
    fd = socket.descriptor();
    EXPECT_TRUE(socket.isOpen());
    EXPECT_TRUE(isOpenDescriptor(fd));
  }
  EXPECT_FALSE(isOpenDescriptor(fd));
}

TEST(Socket, IsClosedOnceHoweverOftenItIsTold) {
  Socket socket(newSocket());
  const int fd = socket.descriptor();
  socket.close();
  EXPECT_FALSE(socket.isOpen());
  EXPECT_FALSE(isOpenDescriptor(fd));
  const Descriptor other(newSocket());
  ASSERT_EQ(other.get(), fd);  // the system gives the lowest number that is free
  socket.close();
  EXPECT_TRUE(isOpenDescriptor(fd));
}

TEST(Socket, MovesWithItsDescriptor) {
  Socket first(newSocket());
  const int fd = first.descriptor();
  const Socket second(std::move(first));
  EXPECT_EQ(first.descriptor(), -1);  // NOLINT(bugprone-use-after-move): that is the promise
  EXPECT_EQ(second.descriptor(), fd);
  EXPECT_TRUE(isOpenDescriptor(fd));
}

TEST(Socket, AssignedToAnotherLeavesNeitherOpenForEver) {
  int left = -1;
  int right = -1;
  {
    Socket first(newSocket());
    left = first.descriptor();
    Socket second(newSocket());
    right = second.descriptor();
    first = std::move(second);
    EXPECT_EQ(first.descriptor(), right);
    EXPECT_TRUE(isOpenDescriptor(right));
  }
  EXPECT_FALSE(isOpenDescriptor(left));
  EXPECT_FALSE(isOpenDescriptor(right));
}

// --- Options ------------------------------------------------------------------------------------

TEST(SocketCalls, BlockingCanBeTurnedOnAndOffWhateverItWas) {
  const Descriptor socket(newSocket());
  for (const bool blocking : {false, false, true, true, false}) {
    setBlocking(socket.get(), blocking);
    EXPECT_EQ((::fcntl(socket.get(), F_GETFL) & O_NONBLOCK) == 0, blocking);
  }
}

TEST(SocketCalls, BlockingLeavesTheOtherFlags) {
  const Pair pair;
  ASSERT_EQ(::fcntl(pair.ours.get(), F_SETFL, O_APPEND), 0);
  setBlocking(pair.ours.get(), false);
  setBlocking(pair.ours.get(), true);
  EXPECT_NE(::fcntl(pair.ours.get(), F_GETFL) & O_APPEND, 0);
}

TEST(SocketCalls, ReceiveTimeoutIsSetToTheMillisecond) {
  const Descriptor socket(newSocket());
  for (const auto timeout : {60000ms, 1500ms, 2147483000ms}) {
    setReceiveTimeout(socket.get(), timeout);
    const auto set = optionOf<timeval>(socket.get(), SOL_SOCKET, SO_RCVTIMEO);
    // The kernel counts in ticks of at most 10 ms.
    const auto micros = std::chrono::seconds(set.tv_sec) + std::chrono::microseconds(set.tv_usec);
    EXPECT_GE(micros, timeout);
    EXPECT_LE(micros, timeout + 10ms);
  }
}

TEST(SocketCalls, ReceiveThatWaitsFailsAfterTheTimeout) {
  const Pair pair;
  setReceiveTimeout(pair.ours.get(), 20ms);
  char byte = 0;
  EXPECT_EQ(::recv(pair.ours.get(), &byte, 1, 0), -1);
  EXPECT_TRUE(errno == EAGAIN || errno == EWOULDBLOCK) << errno;
}

TEST(SocketCalls, NoDelayTurnsNaglesAlgorithmOff) {
  const Descriptor socket(newSocket());
  ASSERT_EQ(optionOf<int>(socket.get(), IPPROTO_TCP, TCP_NODELAY), 0);
  setNoDelay(socket.get());
  EXPECT_NE(optionOf<int>(socket.get(), IPPROTO_TCP, TCP_NODELAY), 0);
}

// The class and the message of what a call throws.
template <typename Call>
std::string failureOf(Call call) {
  try {
    call();
  } catch (const Poco::Exception& error) {
    return std::string(error.name()) + ": " + error.message();
  }
  return "none";
}

TEST(SocketCalls, CallsOnWhatIsNoSocketFail) {
  const Descriptor pipe(::open("/dev/null", O_RDONLY | O_CLOEXEC));
  EXPECT_EQ(failureOf([] { setBlocking(-1, true); }), "I/O error: fcntl: Bad file descriptor");
  EXPECT_EQ(failureOf([&] { setReceiveTimeout(pipe.get(), 1s); }),
            "I/O error: SO_RCVTIMEO: Socket operation on non-socket");
  EXPECT_EQ(failureOf([&] { setNoDelay(pipe.get()); }),
            "I/O error: TCP_NODELAY: Socket operation on non-socket");
  EXPECT_EQ(takeSocketError(pipe.get()), ENOTSOCK);
  EXPECT_EQ(takeSocketError(-1), EBADF);
}

TEST(SocketCalls, FailureOfAConnectInTheBackgroundIsTakenOnce) {
  const Descriptor socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  EXPECT_EQ(takeSocketError(socket.get()), 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<std::uint16_t>(test_support::unusedPort()));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  ASSERT_EQ(::connect(socket.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), -1);
  ASSERT_EQ(errno, EINPROGRESS);
  ASSERT_TRUE(awaitSocket(socket.get(), POLLOUT, patient()));
  EXPECT_EQ(takeSocketError(socket.get()), ECONNREFUSED);
  EXPECT_EQ(takeSocketError(socket.get()), 0);
}

// --- Waiting ------------------------------------------------------------------------------------

TEST(AwaitSocket, SeesWhatIsThereAlsoAfterTheDeadline) {
  const Pair pair;
  const auto past = Clock::now() - 1h;
  EXPECT_FALSE(awaitSocket(pair.ours.get(), POLLIN, past));
  EXPECT_TRUE(awaitSocket(pair.ours.get(), POLLOUT, past));
  EXPECT_TRUE(awaitSocket(pair.ours.get(), POLLIN | POLLOUT, past));
  ASSERT_TRUE(test_support::writeAll(pair.theirs.get(), "x"));
  EXPECT_TRUE(awaitSocket(pair.ours.get(), POLLIN, past));
}

TEST(AwaitSocket, EndsAtTheDeadlineAndNotBefore) {
  const Pair pair;
  const auto deadline = Clock::now() + 20ms;
  EXPECT_FALSE(awaitSocket(pair.ours.get(), POLLIN, deadline));
  EXPECT_GE(Clock::now(), deadline);
}

TEST(AwaitSocket, WaitsForWhatComes) {
  const Pair pair;
  test_support::Event waiting;
  std::thread peer([&] {
    waiting.wait();
    test_support::writeAll(pair.theirs.get(), "x");
  });
  waiting.set();
  EXPECT_TRUE(awaitSocket(pair.ours.get(), POLLIN, patient()));
  peer.join();
}

TEST(AwaitSocket, DeadlineBeyondPollsRangeIsWaitedForAsLongAsThatGoes) {
  const Pair pair;
  for (const auto far : {24h * 25, 24h * 50, 24h * 365}) {
    test_support::letNextWaitExpire();
    EXPECT_FALSE(awaitSocket(pair.ours.get(), POLLIN, Clock::now() + far));
    EXPECT_EQ(test_support::expiredWait(), std::numeric_limits<int>::max());
  }
}

TEST(AwaitSocket, PeersEndCounts) {
  Pair pair;
  pair.theirs.reset();
  EXPECT_TRUE(awaitSocket(pair.ours.get(), POLLIN, patient()));
}

TEST(AwaitSocket, GoesOnAfterASignal) {
  const Pair pair;
  bool result = false;
  EXPECT_TRUE(test_support::goesOnAfterSignals(
      [&] { result = awaitSocket(pair.ours.get(), POLLIN, patient()); },
      [&] { test_support::writeAll(pair.theirs.get(), "x"); }));
  EXPECT_TRUE(result);
}

TEST(IsReadable, TellsBytesAndTheEndAndTakesNothing) {
  Pair pair;
  EXPECT_FALSE(isReadable(pair.ours.get()));
  ASSERT_TRUE(test_support::writeAll(pair.theirs.get(), "x"));
  EXPECT_TRUE(isReadable(pair.ours.get()));
  char byte = 0;
  EXPECT_EQ(::recv(pair.ours.get(), &byte, 1, MSG_DONTWAIT), 1);
  EXPECT_FALSE(isReadable(pair.ours.get()));
  pair.theirs.reset();
  EXPECT_TRUE(isReadable(pair.ours.get()));
}

// --- Failures -----------------------------------------------------------------------------------

std::string failureOf(int error) {
  return failureOf([error] { socketFailure(error, "the text"); });
}

TEST(SocketFailure, IsOfTheKindThatTheErrorMeans) {
  EXPECT_EQ(failureOf(ECONNRESET), "Connection reset by peer: the text");
  EXPECT_EQ(failureOf(ECONNABORTED), "Software caused connection abort: the text");
  EXPECT_EQ(failureOf(EPIPE), "I/O error: the text: broken pipe");
  EXPECT_EQ(failureOf(ECONNREFUSED), "Connection refused: the text");
  EXPECT_EQ(failureOf(ETIMEDOUT), "Timeout: the text: timed out");
  EXPECT_EQ(failureOf(EHOSTUNREACH), "I/O error: the text: No route to host");
  EXPECT_EQ(failureOf(ENETUNREACH), "I/O error: the text: Network is unreachable");
  EXPECT_EQ(failureOf(EMFILE), "I/O error: the text: Too many open files");
}

TEST(SocketFailure, SaysWhoIsToBlameForEveryNumber) {
  for (int error = 0; error < 200; ++error) {
    const std::string failure = failureOf(error);
    EXPECT_NE(failure.find(": the text"), std::string::npos) << error << ' ' << failure;
  }
}

TEST(SocketFailure, CarriesTheNumber) {
  for (int error = 0; error < 200; ++error) {
    try {
      socketFailure(error, "the text");
    } catch (const Poco::Exception& failure) {
      EXPECT_EQ(failure.code(), error);
    }
  }
}

}  // namespace
}  // namespace connectivity::plugins
