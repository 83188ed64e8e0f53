#include <gtest/gtest.h>

#include "connectivity/value_access.hpp"
#include "host/demo/DemoAnswers.hpp"

namespace host {
namespace {

using connectivity::data_t;
using connectivity::map_t;
using connectivity::Message;

Message answerTo(int number) {
  map_t metadata;
  metadata.insert(data_t("requestId"), data_t(number));
  return {data_t(), std::move(metadata)};
}

// Six requests, a barrier behind the third and behind the last.
class DemoAnswersTest : public testing::Test {
 protected:
  void answer(int first, int last) {
    for (int number = first; number <= last; ++number) {
      auto answer = answerTo(number);
      answers.receive(answer);
    }
  }

  HostLog log{QOR_LOG_ERROR, {}};
  DemoAnswers answers{6, 3, log};
};

TEST_F(DemoAnswersTest, BarrierHoldsWhereAllBeforeItIsAnsweredFirst) {
  answer(0, 2);
  answers.flushed(0);
  answer(3, 5);
  answers.flushed(1);
  EXPECT_EQ(answers.barriersHeld(), 2U);
}

TEST_F(DemoAnswersTest, BarrierThatIsReleasedTooEarlyHasNotHeld) {
  answer(0, 1);
  answers.flushed(0);
  answer(2, 5);
  answers.flushed(1);
  EXPECT_EQ(answers.barriersHeld(), 1U);
}

TEST_F(DemoAnswersTest, BarrierThatIsOvertakenHasNotHeld) {
  answer(0, 1);
  answer(3, 3);
  answer(2, 2);
  answers.flushed(0);
  answer(4, 5);
  answers.flushed(1);
  EXPECT_EQ(answers.barriersHeld(), 1U);
}

TEST_F(DemoAnswersTest, BarrierThatIsNeverReleasedHasNotHeld) {
  answer(0, 5);
  EXPECT_EQ(answers.barriersHeld(), 0U);
}

TEST_F(DemoAnswersTest, CountsTheAnswersToEachRequest) {
  answer(0, 1);
  answer(1, 1);
  const auto taken = answers.take();
  EXPECT_EQ(taken[0].count, 1);
  EXPECT_EQ(taken[1].count, 2);
  EXPECT_EQ(taken[2].count, 0);
}

}  // namespace
}  // namespace host
