// Host names to addresses, and look-ups that take longer than anybody waits.
#include "plugins/http_client/wire/Resolver.hpp"

#include <chrono>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <iterator>
#include <memory>
#include <netdb.h>
#include <pthread.h>
#include <string>
#include <thread>
#include <vector>

#include <Poco/Exception.h>
#include <Poco/Net/NetException.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/plugins/http_client/unit/wire/NameService.hpp"
#include "tests/support/Event.hpp"
#include "tests/support/ScarceAddressSpace.hpp"

namespace connectivity::plugins {
namespace {

using namespace std::chrono_literals;
using test_support::Event;
using test_support::NameService;
using testing::ThrowsMessage;

using Texts = std::vector<std::string>;

// What is found, as texts; what is not, as the exception's class and message.
Texts found(Resolver& resolver, const std::string& host, const TimeLimits& limits) {
  Texts texts;
  try {
    for (const auto& address : resolver.addressesOf(host, 80, "the peer", limits)) {
      texts.push_back(address.toString());
    }
  } catch (const Poco::Exception& error) {
    texts = {error.name(), error.message()};
  }
  return texts;
}

Texts found(Resolver& resolver, const std::string& host) {
  const TimeLimits patient(test_support::patience);
  return found(resolver, host, patient);
}

const Texts timedOut{"Timeout", "the peer was not resolved within the time-out"};

// --- Results ------------------------------------------------------------------------------------

TEST(Resolver, AddressNeedsNoLookUp) {
  const NameService names;
  Resolver resolver;
  EXPECT_EQ(found(resolver, "127.0.0.1"), Texts{"127.0.0.1:80"});
  EXPECT_EQ(found(resolver, "::1"), Texts{"[::1]:80"});
  EXPECT_EQ(found(resolver, "2001:db8::7"), Texts{"[2001:db8::7]:80"});
  EXPECT_EQ(names.askedAtAll(), 0U);
}

TEST(Resolver, FindsWhatTheSystemKnows) {
  Resolver resolver;
  const Texts addresses = found(resolver, "localhost");
  ASSERT_FALSE(addresses.empty());
  EXPECT_EQ(addresses.front(), "127.0.0.1:80");
}

TEST(Resolver, IPv4ComesBeforeIPv6ElseTheOrderStays) {
  NameService names;
  names.answer("mixed.test",
               {"2001:db8::9", "10.0.0.2", "::1", "192.168.0.1", "10.0.0.1", "2001:db8::5"});
  Resolver resolver;
  EXPECT_EQ(found(resolver, "mixed.test"),
            (Texts{"10.0.0.2:80", "192.168.0.1:80", "10.0.0.1:80", "[2001:db8::9]:80", "[::1]:80",
                   "[2001:db8::5]:80"}));
}

TEST(Resolver, AddressThatIsNamedTwiceIsGivenOnce) {
  NameService names;
  names.answer("twice.test", {"10.0.0.2", "::1", "10.0.0.2", "10.0.0.1", "::1"});
  Resolver resolver;
  EXPECT_EQ(found(resolver, "twice.test"), (Texts{"10.0.0.2:80", "10.0.0.1:80", "[::1]:80"}));
}

TEST(Resolver, AsksAnewEachTime) {
  NameService names;
  names.answer("moving.test", {"10.0.0.1"});
  Resolver resolver;
  EXPECT_EQ(found(resolver, "moving.test"), Texts{"10.0.0.1:80"});
  names.answer("moving.test", {"10.0.0.2"});
  EXPECT_EQ(found(resolver, "moving.test"), Texts{"10.0.0.2:80"});
}

TEST(Resolver, TellsWhatIsWrongWithAName) {
  NameService names;
  names.fail("unknown.test", EAI_NONAME);
  names.fail("mute.test", EAI_NODATA);
  names.fail("other-family.test", EAI_ADDRFAMILY);
  names.answer("empty.test", {});
  Resolver resolver;
  EXPECT_EQ(found(resolver, "unknown.test"), (Texts{"Host not found", "the peer"}));
  EXPECT_EQ(found(resolver, "mute.test"), (Texts{"No address found", "the peer"}));
  EXPECT_EQ(found(resolver, "other-family.test"), (Texts{"No address found", "the peer"}));
  EXPECT_EQ(found(resolver, "empty.test"), (Texts{"No address found", "the peer"}));
}

TEST(Resolver, TellsThatANameCouldNotBeResolved) {
  NameService names;
  Resolver resolver;
  for (const int error : {EAI_AGAIN, EAI_FAIL, EAI_SYSTEM, EAI_MEMORY, EAI_FAMILY}) {
    names.fail("broken.test", error);
    EXPECT_EQ(found(resolver, "broken.test"),
              (Texts{"DNS error", "the peer: the name could not be resolved"}))
        << error;
  }
}

// --- Waiting ------------------------------------------------------------------------------------

TEST(Resolver, WaitsForALookUpThatTakesItsTime) {
  Event answered("the look-up's answer");
  NameService names;
  names.answer("slow.test", {"10.0.0.1"});
  names.hold("slow.test", answered);
  Resolver resolver;
  Texts result;
  std::thread waiting([&] { result = found(resolver, "slow.test"); });
  names.waitUntilAsked("slow.test");
  answered.set();
  waiting.join();
  EXPECT_EQ(result, Texts{"10.0.0.1:80"});
}

TEST(Resolver, GivesALookUpUpAfterTheTimeout) {
  Event answered;
  NameService names;
  names.hold("slow.test", answered);
  Resolver resolver;
  EXPECT_EQ(found(resolver, "slow.test", TimeLimits(20ms)), timedOut);
  EXPECT_EQ(found(resolver, "slow.test", TimeLimits(0ms)), timedOut);
  answered.set();
}

TEST(Resolver, GivesALookUpUpAtTheDeadline) {
  Event answered;
  NameService names;
  names.hold("slow.test", answered);
  Resolver resolver;
  TimeLimits limits(test_support::patience);
  for (const auto left : {20ms, -20ms}) {
    limits.setDeadline(TimeLimits::Clock::now() + left);
    EXPECT_THAT([&] { resolver.addressesOf("slow.test", 80, "the peer", limits); },
                ThrowsMessage<DeadlineExceeded>("Deadline exceeded"));
  }
  answered.set();
}

TEST(Resolver, TimeoutThatComesBeforeTheDeadlineIsATimeout) {
  Event answered;
  NameService names;
  names.hold("slow.test", answered);
  Resolver resolver;
  TimeLimits limits(20ms);
  limits.setDeadline(TimeLimits::Clock::now() + 1h);
  EXPECT_EQ(found(resolver, "slow.test", limits), timedOut);
  answered.set();
}

TEST(Resolver, OneLookUpDoesNotHoldUpAnother) {
  Event answered;
  NameService names;
  names.answer("slow.test", {"10.0.0.1"});
  names.hold("slow.test", answered);
  names.answer("quick.test", {"10.0.0.2"});
  Resolver resolver;
  Texts slow;
  std::thread waiting([&] { slow = found(resolver, "slow.test"); });
  names.waitUntilAsked("slow.test");
  EXPECT_EQ(found(resolver, "quick.test"), Texts{"10.0.0.2:80"});
  answered.set();
  waiting.join();
  EXPECT_EQ(slow, Texts{"10.0.0.1:80"});
}

TEST(Resolver, LookUpThatWasGivenUpDoesNotDisturbTheNextOfThatName) {
  Event answered;
  NameService names;
  names.answer("slow.test", {"10.0.0.1"});
  names.hold("slow.test", answered);
  Resolver resolver;
  EXPECT_EQ(found(resolver, "slow.test", TimeLimits(0ms)), timedOut);
  names.waitUntilAsked("slow.test");
  Texts second;
  std::thread waiting([&] { second = found(resolver, "slow.test"); });
  names.waitUntilAsked("slow.test", 2);
  answered.set();
  waiting.join();
  EXPECT_EQ(second, Texts{"10.0.0.1:80"});
}

// --- Threads ------------------------------------------------------------------------------------

TEST(Resolver, ItsEndWaitsForLookUpsThatWereGivenUp) {
  Event answered;
  Event ended;
  NameService names;
  names.hold("slow.test", answered);
  auto resolver = std::make_unique<Resolver>();
  EXPECT_EQ(found(*resolver, "slow.test", TimeLimits(0ms)), timedOut);
  std::thread ending([&] {
    resolver.reset();
    ended.set();
  });
  EXPECT_FALSE(ended.isSetWithin(50ms));
  answered.set();
  ended.wait();
  ending.join();
  EXPECT_EQ(names.asked("slow.test"), 1U);
}

#ifdef ADDRESS_SPACE_CAN_BE_LIMITED

std::size_t threadCount() {
  const std::filesystem::directory_iterator tasks("/proc/self/task");
  return static_cast<std::size_t>(std::distance(begin(tasks), end(tasks)));
}

// A thread that has ended keeps its stack until it is joined, and few stacks have room here.
TEST(Resolver, LookUpsThatWereGivenUpAreClearedAway) {
  NameService names;
  Resolver resolver;
  const std::size_t before = threadCount();
  const test_support::ScarceAddressSpace scarce;
  for (int round = 0; round < 30; ++round) {
    Event answered;
    names.hold("slow.test", answered);
    ASSERT_EQ(found(resolver, "slow.test", TimeLimits(0ms)), timedOut) << round;
    answered.set();
    const auto end = TimeLimits::Clock::now() + test_support::patience;
    while (threadCount() > before && TimeLimits::Clock::now() < end) std::this_thread::yield();
    ASSERT_EQ(threadCount(), before);
  }
}

#endif

Texts blockedIn(const sigset_t& mask) {
  Texts names;
  for (const int signal :
       {SIGHUP, SIGINT, SIGTERM, SIGALRM, SIGCHLD, SIGPIPE, SIGUSR1, SIGUSR2, SIGWINCH}) {
    if (sigismember(&mask, signal) == 1) names.emplace_back(strsignal(signal));
  }
  return names;
}

Texts blockedHere() {
  sigset_t mask;
  pthread_sigmask(SIG_SETMASK, nullptr, &mask);
  return blockedIn(mask);
}

TEST(Resolver, NoSignalIsHandledOnItsThreads) {
  NameService names;
  names.answer("a.test", {"10.0.0.1"});
  Resolver resolver;
  const Texts before = blockedHere();
  ASSERT_LT(before.size(), 9U);
  EXPECT_EQ(found(resolver, "a.test"), Texts{"10.0.0.1:80"});
  EXPECT_EQ(blockedIn(names.signalMask()).size(), 9U);
  EXPECT_EQ(blockedHere(), before);
}

}  // namespace
}  // namespace connectivity::plugins
