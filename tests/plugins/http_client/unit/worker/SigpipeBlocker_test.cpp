// Writing to a closed connection, on threads that do not block SIGPIPE themselves.
#include "plugins/http_client/worker/SigpipeBlocker.hpp"

#include <array>
#include <csignal>
#include <optional>
#include <thread>
#include <unistd.h>

#include <gtest/gtest.h>

namespace connectivity::plugins {
namespace {

bool blocked() {
  sigset_t set;
  pthread_sigmask(SIG_SETMASK, nullptr, &set);
  return sigismember(&set, SIGPIPE) == 1;
}

bool pending() {
  sigset_t set;
  sigpending(&set);
  return sigismember(&set, SIGPIPE) == 1;
}

void changeMask(int how) {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGPIPE);
  pthread_sigmask(how, &set, nullptr);
}

// Writes to a pipe that nobody reads.
void raiseSigpipe() {
  std::array<int, 2> ends{};
  ASSERT_EQ(pipe(ends.data()), 0);
  close(ends[0]);
  EXPECT_EQ(write(ends[1], "x", 1), -1);
  close(ends[1]);
}

// On a thread of its own, which does not block the signal, whatever this process has inherited.
template <typename Body>
void onAThread(Body&& body) {
  std::thread([&] {
    changeMask(SIG_UNBLOCK);
    body();
  }).join();
}

TEST(SigpipeBlocker, BlocksForItsScope) {
  onAThread([] {
    ASSERT_FALSE(blocked());
    {
      const SigpipeBlocker blocker;
      EXPECT_TRUE(blocked());
    }
    EXPECT_FALSE(blocked());
  });
}

TEST(SigpipeBlocker, SwallowsWhatCameWithinItsScope) {
  onAThread([] {
    {
      const SigpipeBlocker blocker;
      raiseSigpipe();
      EXPECT_TRUE(pending());
    }
    // Unblocked again, a signal that was still pending would have ended this process.
    EXPECT_FALSE(blocked());
    EXPECT_FALSE(pending());
  });
}

TEST(SigpipeBlocker, LeavesASignalThatWasPendingBefore) {
  onAThread([] {
    changeMask(SIG_BLOCK);
    raiseSigpipe();
    {
      const SigpipeBlocker blocker;
      raiseSigpipe();
    }
    EXPECT_TRUE(blocked()) << "it was blocked before";
    ASSERT_TRUE(pending());
    const SigpipeBlocker untilTheThreadEnds;
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGPIPE);
    int taken = 0;
    sigwait(&set, &taken);
    EXPECT_EQ(taken, SIGPIPE);
  });
}

TEST(SigpipeBlocker, MayBeNested) {
  onAThread([] {
    const SigpipeBlocker outer;
    {
      const SigpipeBlocker inner;
      raiseSigpipe();
    }
    EXPECT_TRUE(blocked());
    EXPECT_FALSE(pending());
  });
}

TEST(BlockSigpipe, HoldsForTheRestOfTheThreadAlone) {
  onAThread([] {
    blockSigpipe();
    EXPECT_TRUE(blocked());
    raiseSigpipe();
    onAThread([] { EXPECT_FALSE(blocked()); });
  });
}

}  // namespace
}  // namespace connectivity::plugins
