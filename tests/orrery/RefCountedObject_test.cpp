#include "orrery/RefCountedObject.hpp"

#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using orrery::IntrusivePtr;
using orrery::RefCountedObject;

class Traced : public RefCountedObject {
 public:
  explicit Traced(std::vector<std::string>& trace) : _trace(trace) {}
  ~Traced() override { _trace.emplace_back("deleted"); }
  void incrRefCount(const char* tag) noexcept override {
    _trace.push_back(std::string("+") + tag);
    RefCountedObject::incrRefCount(tag);
  }
  void decrRefCount(const char* tag) noexcept override {
    _trace.push_back(std::string("-") + tag);
    RefCountedObject::decrRefCount(tag);
  }

 private:
  std::vector<std::string>& _trace;
};

class Flagged : public RefCountedObject {
 public:
  explicit Flagged(bool& deleted) : _deleted(deleted) {}
  ~Flagged() override { _deleted = true; }

 private:
  bool& _deleted;
};

TEST(IntrusivePtr, CountsUnderItsTagAndDeletesWithTheLastRelease) {
  std::vector<std::string> trace;
  {
    const IntrusivePtr<Traced> first(new Traced(trace));
    const IntrusivePtr<Traced> second(
        first);  // NOLINT(performance-unnecessary-copy-initialization): the copy counts
  }
  EXPECT_THAT(trace, testing::ElementsAre("+IntrusivePtr", "+IntrusivePtr", "-IntrusivePtr",
                                          "-IntrusivePtr", "deleted"));
}

TEST(IntrusivePtr, MovesWithoutCounting) {
  std::vector<std::string> trace;
  IntrusivePtr<Traced> first(new Traced(trace));
  IntrusivePtr<Traced> second(std::move(first));
  EXPECT_FALSE(first);  // NOLINT(bugprone-use-after-move): a moved-from pointer is null
  EXPECT_TRUE(second);
  EXPECT_THAT(trace, testing::ElementsAre("+IntrusivePtr"));
}

TEST(IntrusivePtr, SurvivesAssignmentToItself) {
  bool deleted = false;
  IntrusivePtr<Flagged> pointer(new Flagged(deleted));
  const IntrusivePtr<Flagged>& itself = pointer;
  pointer = itself;
  EXPECT_FALSE(deleted);
  pointer = IntrusivePtr<Flagged>();
  EXPECT_TRUE(deleted);
}

TEST(IntrusivePtr, OfNothingIsNull) {
  const IntrusivePtr<Flagged> none;
  EXPECT_FALSE(none);
  EXPECT_EQ(none.get(), nullptr);
}

TEST(RefCountedObject, IsDeletedOnceByThreadsThatShareIt) {
  bool deleted = false;  // no atomic: the last release orders it after every holder's use
  {
    const IntrusivePtr<Flagged> shared(new Flagged(deleted));
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
      threads.emplace_back([held = shared] {
        for (int turn = 0; turn < 1000; ++turn) {
          const IntrusivePtr<Flagged> copy(held);
          ASSERT_TRUE(copy);
        }
      });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_FALSE(deleted);
  }
  EXPECT_TRUE(deleted);
}

}  // namespace
