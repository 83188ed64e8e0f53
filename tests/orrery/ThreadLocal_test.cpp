#include "orrery/ThreadLocal.hpp"

#include <cstddef>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "orrery/Exception.hpp"

namespace {

using orrery::ThreadLocal;

TEST(ThreadLocal, IsNullOnAThreadThatHasSetNothing) {
  ThreadLocal<int> slot;
  int mine = 1;
  int* seen = &mine;
  slot.set(&mine);
  std::thread([&] { seen = slot.get(); }).join();
  EXPECT_EQ(seen, nullptr);
  EXPECT_EQ(slot.get(), &mine);
}

TEST(ThreadLocal, KeepsOnePointerForEachThread) {
  ThreadLocal<int> slot;
  int mine = 1;
  int other = 2;
  int* seen = nullptr;
  slot.set(&mine);
  std::thread([&] {
    slot.set(&other);
    seen = slot.get();
  }).join();
  EXPECT_EQ(seen, &other);
  EXPECT_EQ(slot.get(), &mine);
}

TEST(ThreadLocal, ANewSlotIsNullAlsoWhereAnOldOneWasSet) {
  int old = 1;
  {
    ThreadLocal<int> slot;
    slot.set(&old);
  }
  const ThreadLocal<int> slot;
  EXPECT_EQ(slot.get(), nullptr);
}

TEST(ThreadLocal, TellsThatTheProcessHasNoKeyLeftAndGivesItsOwnBack) {
  std::vector<std::unique_ptr<ThreadLocal<int>>> slots;
  std::string message;
  const auto takeAll = [&] {
    try {
      for (;;) slots.push_back(std::make_unique<ThreadLocal<int>>());
    } catch (const orrery::Exception& error) {
      message = error.what();
    }
  };
  takeAll();
  EXPECT_EQ(message, "ThreadLocal ctor: pthread_key_create() failed");
  const std::size_t available = slots.size();
  slots.clear();
  takeAll();
  EXPECT_EQ(slots.size(), available);
}

}  // namespace
