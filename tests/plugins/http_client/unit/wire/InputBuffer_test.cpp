#include "plugins/http_client/wire/InputBuffer.hpp"

#include <algorithm>
#include <cstring>
#include <set>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

namespace connectivity::plugins {
namespace {

// Hands out one piece for each receive, then ends. An empty piece is a failure.
class Pieces final : public ByteSource {
 public:
  explicit Pieces(std::vector<std::string> pieces) : _pieces(std::move(pieces)) {}

  std::size_t receive(char* data, std::size_t size) override {
    asked.push_back(size);
    if (_at == _pieces.size()) return 0;
    const std::string& piece = _pieces[_at++];
    if (piece.empty()) throw std::runtime_error("failed");
    const std::size_t count = std::min(size, piece.size());
    std::memcpy(data, piece.data(), count);
    return count;
  }

  std::vector<std::size_t> asked;

 private:
  const std::vector<std::string> _pieces;
  std::size_t _at = 0;
};

std::string read(InputBuffer& input, std::size_t size) {
  std::string text(size, '?');
  text.resize(input.read(text.data(), size));
  return text;
}

TEST(InputBuffer, IsEmptyAndAtItsEndWithoutASource) {
  InputBuffer input;
  EXPECT_TRUE(input.empty());
  EXPECT_EQ(input.size(), 0U);
  EXPECT_EQ(input.view(), "");
  EXPECT_FALSE(input.fill());
  EXPECT_EQ(read(input, 10), "");
}

TEST(InputBuffer, HoldsWhatOneReceiveGives) {
  Pieces source({"hello", "world"});
  InputBuffer input;
  input.attach(&source);
  EXPECT_TRUE(input.fill());
  EXPECT_EQ(input.view(), "hello");
  EXPECT_EQ(source.asked, std::vector<std::size_t>{InputBuffer::blockSize});
}

TEST(InputBuffer, FillsBehindWhatItHoldsInOnePiece) {
  Pieces source({"hello", " ", "world"});
  InputBuffer input;
  input.attach(&source);
  input.fill();
  input.consume(2);
  EXPECT_EQ(input.view(), "llo");
  input.fill();
  input.fill();
  EXPECT_EQ(input.view(), "llo world");
  EXPECT_FALSE(input.fill());
  EXPECT_EQ(input.view(), "llo world");
}

TEST(InputBuffer, ConsumesFromTheFront) {
  Pieces source({"hello"});
  InputBuffer input;
  input.attach(&source);
  input.fill();
  input.consume(0);
  EXPECT_EQ(input.view(), "hello");
  input.consume(4);
  EXPECT_EQ(input.size(), 1U);
  EXPECT_EQ(*input.data(), 'o');
  input.consume(1);
  EXPECT_TRUE(input.empty());
}

TEST(InputBuffer, GrowsWithoutLosingAnything) {
  std::vector<std::string> pieces;
  std::string whole;
  for (int i = 0; i < 20; ++i) {
    pieces.emplace_back(InputBuffer::blockSize, static_cast<char>('a' + i));
    whole += pieces.back();
  }
  Pieces source(std::move(pieces));
  InputBuffer input;
  input.attach(&source);
  while (input.fill()) {
  }
  EXPECT_TRUE(input.view() == whole);
}

// Whoever reads on for long must not make it grow.
TEST(InputBuffer, AlwaysAsksForOneBlockAndUsesItsRoomAgain) {
  Pieces source(std::vector<std::string>(100, std::string(10000, 'x')));
  InputBuffer input;
  input.attach(&source);
  std::set<const char*> places;
  while (input.fill()) {
    if (source.asked.size() > 4) places.insert(input.data());
    input.consume(input.size() - (source.asked.size() % 2 == 0 ? 1000 : 1));
  }
  EXPECT_EQ(source.asked, std::vector<std::size_t>(101, InputBuffer::blockSize));
  EXPECT_EQ(places.size(), 1U) << "what is consumed gives its room back";
  EXPECT_EQ(input.size(), 1000U);
}

TEST(InputBuffer, ReadsWhatItHoldsBeforeItReceives) {
  Pieces source({"hello", "world"});
  InputBuffer input;
  input.attach(&source);
  input.fill();
  EXPECT_EQ(read(input, 3), "hel");
  EXPECT_EQ(read(input, 100), "lo");
  EXPECT_EQ(source.asked.size(), 1U);
}

TEST(InputBuffer, ReadsStraightIntoTheCallersMemoryWhereItHoldsNothing) {
  Pieces source({"hello"});
  InputBuffer input;
  input.attach(&source);
  EXPECT_EQ(read(input, 100000), "hello");
  EXPECT_EQ(source.asked, std::vector<std::size_t>{100000});
  EXPECT_TRUE(input.empty());
  EXPECT_EQ(read(input, 100000), "");
}

TEST(InputBuffer, AFailureLeavesWhatItHolds) {
  Pieces source({"hello", "", "", "world"});
  InputBuffer input;
  input.attach(&source);
  input.fill();
  input.consume(1);
  EXPECT_THROW(input.fill(), std::runtime_error);
  EXPECT_EQ(read(input, 100), "ello");
  EXPECT_THROW(read(input, 100), std::runtime_error);
  input.fill();
  EXPECT_EQ(input.view(), "world");
}

TEST(InputBuffer, ForgetsWhatItHoldsWithItsSource) {
  Pieces first({"first"});
  Pieces second({"second"});
  InputBuffer input;
  input.attach(&first);
  input.fill();
  input.consume(1);
  input.attach(&second);
  EXPECT_TRUE(input.empty());
  EXPECT_EQ(read(input, 100), "second");
  input.attach(nullptr);
  EXPECT_FALSE(input.fill());
}

}  // namespace
}  // namespace connectivity::plugins
