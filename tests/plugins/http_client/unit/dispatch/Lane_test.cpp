// Lists of elements, and the stack of those who sleep.
#include "plugins/http_client/dispatch/Lane.hpp"

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

namespace connectivity::plugins {
namespace {

using Element = LaneElement<std::unique_ptr<std::string>>;
using Elements = ElementList<Element>;
using State = Sleeper::State;

Elements::Owner element(const char* name) {
  return std::make_unique<Element>(std::in_place, std::make_unique<std::string>(name));
}

TEST(ElementList, GivesBackInTheOrderOfArrival) {
  Elements list;
  EXPECT_TRUE(list.empty());
  list.append(element("a"));
  list.append(element("b"));
  EXPECT_FALSE(list.empty());
  EXPECT_EQ(*list.oldest().value, "a");
  EXPECT_EQ(*list.takeOldest()->value, "a");
  EXPECT_EQ(*list.takeOldest()->value, "b");
  EXPECT_TRUE(list.empty());
}

TEST(ElementList, GoesOnAfterItWasEmptied) {
  Elements list;
  list.append(element("a"));
  list.takeOldest();
  list.append(element("b"));
  list.append(element("c"));
  EXPECT_EQ(*list.takeOldest()->value, "b");
  EXPECT_EQ(*list.takeOldest()->value, "c");
}

TEST(ElementList, LeavesNothingBehindAnElementThatWasTaken) {
  Elements list;
  list.append(element("a"));
  list.append(element("b"));
  EXPECT_EQ(list.takeOldest()->next, nullptr);
}

// Destroyed as a chain, each element inside the one before, these would need more stack than there
// is.
TEST(ElementList, DestroysAMillionElementsOneByOne) {
  Elements list;
  for (int i = 0; i < 1'000'000; ++i)
    list.append(std::make_unique<Element>(std::in_place, nullptr));
}

class SleeperStackTest : public testing::Test {
 protected:
  // From the top.
  std::vector<const Sleeper*> content() const {
    std::vector<const Sleeper*> all;
    if (stack.empty()) return all;
    for (const Sleeper* each = &stack.top(); each != nullptr; each = each->below)
      all.push_back(each);
    return all;
  }
  void pushAll() {
    for (Sleeper* each : {&first, &second, &third}) stack.push(*each);
  }

  orrery::Mutex mutex{"SleeperStackTest"};
  Sleeper first{mutex};
  Sleeper second{mutex};
  Sleeper third{mutex};
  SleeperStack stack;
};

TEST_F(SleeperStackTest, HasTheOneThatFellAsleepLastOnTop) {
  EXPECT_EQ(first.state, State::Awake);
  EXPECT_TRUE(stack.empty());
  pushAll();
  EXPECT_EQ(first.state, State::Asleep);
  EXPECT_EQ(content(), (std::vector<const Sleeper*>{&third, &second, &first}));
}

TEST_F(SleeperStackTest, GivesUpWhomeverIsChosen) {
  for (Sleeper* chosen : {&first, &second, &third}) {
    SCOPED_TRACE(chosen - &first);
    stack = SleeperStack();
    pushAll();
    std::vector<const Sleeper*> others = content();
    std::erase(others, chosen);
    stack.choose(*chosen);
    EXPECT_EQ(chosen->state, State::Chosen);
    EXPECT_EQ(content(), others);
    stack.push(*chosen);
    others.insert(others.begin(), chosen);
    EXPECT_EQ(content(), others);
  }
}

TEST_F(SleeperStackTest, IsEmptyAfterTheLastWasChosen) {
  pushAll();
  while (!stack.empty()) stack.choose(stack.top());
  EXPECT_EQ(second.state, State::Chosen);
}

}  // namespace
}  // namespace connectivity::plugins
