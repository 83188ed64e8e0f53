// Links, and elements that stand on several lanes.
#include "plugins/http_client/dispatch/LaneElement.hpp"

#include <array>
#include <cstdint>
#include <memory>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

namespace connectivity::plugins {
namespace {

using Element = LaneElement<std::unique_ptr<int>>;

Element::Owner element(std::uint32_t pairs, int number) {
  return Element::create(pairs, std::make_unique<int>(number));
}

std::vector<int> valuesOn(const LinkPair& lane) {
  std::vector<int> values;
  for (const LinkPair* link = lane.next; link != &lane; link = link->next) {
    EXPECT_EQ(link->next->previous, link);
    values.push_back(*Element::of(*link)->value);
  }
  return values;
}

TEST(LaneElement, StandsOnNoLaneAtFirst) {
  const auto alone = element(3, 7);
  for (std::uint32_t i = 0; i < 3; ++i) {
    EXPECT_TRUE(alone->pair(i).isAlone());
    EXPECT_EQ(Element::of(alone->pair(i)), alone.get());
  }
  EXPECT_EQ(*alone->value, 7);
}

TEST(LaneElement, IsAppendedBehindWhatTheLaneHolds) {
  LinkPair lane;
  const std::array elements{element(1, 1), element(1, 2), element(1, 3)};
  for (const auto& each : elements) each->pair(0).appendTo(lane);
  EXPECT_EQ(valuesOn(lane), (std::vector<int>{1, 2, 3}));
  for (const auto& each : elements) each->unlink();
  EXPECT_TRUE(lane.isAlone());
}

TEST(LaneElement, LeavesItsLaneFromAnyPlace) {
  LinkPair lane;
  const std::array elements{element(1, 1), element(1, 2), element(1, 3)};
  for (const auto& each : elements) each->pair(0).appendTo(lane);
  elements[1]->unlink();
  EXPECT_EQ(valuesOn(lane), (std::vector<int>{1, 3}));
  elements[0]->unlink();
  EXPECT_EQ(valuesOn(lane), (std::vector<int>{3}));
  elements[2]->unlink();
  EXPECT_EQ(valuesOn(lane), std::vector<int>());
}

TEST(LaneElement, LeavesEveryLaneThatItStandsOn) {
  std::array<LinkPair, 3> lanes;
  const auto shared = element(3, 1);
  const auto own = element(1, 2);
  own->pair(0).appendTo(lanes[1]);
  for (std::uint32_t i = 0; i < 3; ++i) shared->pair(i).appendTo(lanes[i]);
  EXPECT_EQ(valuesOn(lanes[1]), (std::vector<int>{2, 1}));
  shared->unlink();
  EXPECT_TRUE(lanes[0].isAlone());
  EXPECT_EQ(valuesOn(lanes[1]), (std::vector<int>{2}));
  EXPECT_TRUE(lanes[2].isAlone());
  own->unlink();
}

TEST(LaneElement, MayLeaveTwiceAndStandOnALaneAgain) {
  LinkPair lane;
  const auto moving = element(1, 1);
  moving->unlink();
  moving->pair(0).appendTo(lane);
  moving->unlink();
  moving->unlink();
  EXPECT_TRUE(lane.isAlone());
  moving->pair(0).appendTo(lane);
  EXPECT_EQ(valuesOn(lane), (std::vector<int>{1}));
  moving->unlink();
}

TEST(LaneElement, DestroysItsValueWithItself) {
  const auto watched = std::make_shared<int>(1);
  auto holder = LaneElement<std::shared_ptr<int>>::create(2, std::shared_ptr<int>(watched));
  EXPECT_EQ(watched.use_count(), 2);
  holder.reset();
  EXPECT_EQ(watched.use_count(), 1);
}

}  // namespace
}  // namespace connectivity::plugins
