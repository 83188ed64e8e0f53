#include <gtest/gtest.h>

#include "host/chain/QueueRoom.hpp"

namespace host {
namespace {

// A batch that waited while this many others were outstanding.
void waited(QueueRoom& room, std::uint64_t others) {
  room.waits(others);
  room.handedOver();
}

TEST(QueueRoom, IsNotWaitedForBeforeABatchHasWaited) {
  QueueRoom room;
  room.handedOver();
  room.handedOver();
  EXPECT_EQ(room.levelFor(128), std::nullopt);
}

TEST(QueueRoom, IsThereForABatchWhereThatManyFewerAreOutstanding) {
  QueueRoom room;
  waited(room, 2000);
  EXPECT_EQ(room.levelFor(128), 1872U);
  EXPECT_EQ(room.levelFor(1), 1999U);
}

TEST(QueueRoom, OfABatchThatWaitsSeveralTimesIsWhatItMetAtMost) {
  QueueRoom room;
  room.waits(1999);
  room.waits(2000);
  waited(room, 1990);
  EXPECT_EQ(room.levelFor(1), 1999U);
}

TEST(QueueRoom, IsNotWaitedForByABatchThatNeverFindsIt) {
  QueueRoom room;
  waited(room, 128);
  EXPECT_EQ(room.levelFor(128), std::nullopt);
  EXPECT_EQ(room.levelFor(127), 1U);
}

TEST(QueueRoom, IsTriedForMoreWithEachBatchThatDoesNotWait) {
  QueueRoom room;
  waited(room, 2000);
  room.handedOver();
  EXPECT_EQ(room.levelFor(1), 1999U + QueueRoom::step);
  room.handedOver();
  EXPECT_EQ(room.levelFor(1), 1999U + 2 * QueueRoom::step);
}

TEST(QueueRoom, IsTheLastThatWasMetAlsoWhereThatIsLess) {
  QueueRoom room;
  waited(room, 2000);
  waited(room, 500);
  EXPECT_EQ(room.levelFor(1), 499U);
}

}  // namespace
}  // namespace host
