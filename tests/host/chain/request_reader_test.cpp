// The input side of a chain: how far it reads ahead, and what it does with what it has read.
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "host/chain/RequestReader.hpp"
#include "tests/host/chain/Waiting.hpp"
#include "tests/support/TemporaryDirectory.hpp"

namespace host {
namespace {

using host_tests::waitUntil;
using Numbers = std::vector<std::uint64_t>;

constexpr std::size_t bound = 4;

class RequestReaderTest : public testing::Test {
 protected:
  ~RequestReaderTest() override {
    if (!_thread.joinable()) return;
    reader->abandon();
    _thread.join();
  }

  void open(const std::string& input, QueueBounds bounds = {bound, 1000}) {
    reader = std::make_unique<RequestReader>(Codec::Text, true, answers, log, bounds);
    reader->open(directory.write("in", input));
  }
  void start(const std::string& input, QueueBounds bounds = {bound, 1000}) {
    open(input, bounds);
    _thread = std::thread([this] { reader->run(); });
  }
  void untilItWaits() const {
    waitUntil([this] { return reader->waiting().putters == 1; }, "the reader to wait for room");
  }
  // The numbers of all the lines that it gives up to its end.
  Numbers takeAll() {
    Numbers numbers;
    std::vector<ParsedLine> lines;
    while (reader->take(lines, 3)) {
      for (const ParsedLine& line : lines) numbers.push_back(line.number);
    }
    _thread.join();
    return numbers;
  }

  const test_support::TemporaryDirectory directory;
  HostLog hostLog{QOR_LOG_ERROR, {}};
  const std::string id = "chain";
  ChainLog log{id, hostLog};
  Outstanding outstanding;
  AnswerWriter answers{Codec::Text, outstanding, log, [] {}};
  std::unique_ptr<RequestReader> reader;

 private:
  std::thread _thread;
};

const std::string sixLines = "{}\n{}\n{}\n{}\n{}\n{}\n";

TEST_F(RequestReaderTest, ReadsAheadUntilTheBoundAndGoesOnWhenThereIsRoom) {
  start(sixLines);
  untilItWaits();
  EXPECT_EQ(takeAll(), (Numbers{1, 2, 3, 4, 5, 6}));
  EXPECT_EQ(reader->dropped(), 0U);
}

TEST_F(RequestReaderTest, ReadsAheadNoMoreBytesThanTheBound) {
  start("{\"payload\":\"" + std::string(600, 'x') + "\"}\n{\"payload\":\"" + std::string(600, 'y') +
        "\"}\n");
  untilItWaits();
  std::vector<ParsedLine> lines;
  ASSERT_TRUE(reader->take(lines, 9));
  ASSERT_EQ(lines.size(), 1U);
  EXPECT_EQ(lines[0].payloadBytes, 600U);
  EXPECT_EQ(takeAll(), (Numbers{2}));
}

TEST_F(RequestReaderTest, HandsOnTogetherWhatComesTogether) {
  open("{}\n{}\n{}\n");
  std::vector<ParsedLine> lines;
  std::thread taker([&] { EXPECT_TRUE(reader->take(lines, 9)); });
  waitUntil([this] { return reader->waiting().taker; }, "the taker to wait");
  reader->run();
  taker.join();
  EXPECT_EQ(lines.size(), 3U);
}

TEST_F(RequestReaderTest, HandsOnWhatItHasReadAfterStop) {
  start(sixLines);
  untilItWaits();
  reader->stop();
  EXPECT_EQ(takeAll(), (Numbers{1, 2, 3, 4, 5, 6}));
}

TEST_F(RequestReaderTest, CountsTheRequestsThatFindNoRoomAfterAbandon) {
  start(sixLines + "{\"control\":\"flush\"}\n\nno message\n");
  untilItWaits();
  reader->abandon();
  // Nobody takes: what is left is dropped, so that the reader ends.
  waitUntil([this] { return reader->dropped() == 2 && answers.invalid() == 1; }, "its end");
  EXPECT_EQ(takeAll(), (Numbers{1, 2, 3, 4}));
  EXPECT_EQ(reader->dropped(), 2U);
}

TEST_F(RequestReaderTest, ReportsALineThatIsNoMessageAndReadsOn) {
  start("no message\n{}\n");
  EXPECT_EQ(takeAll(), (Numbers{2}));
  EXPECT_EQ(answers.invalid(), 1U);
}

TEST_F(RequestReaderTest, AnInputThatCannotBeReadIsAFailureBehindWhatWasRead) {
  RequestReader directoryReader(Codec::Text, true, answers, log);
  directoryReader.open(directory.file("."));
  directoryReader.run();
  std::vector<ParsedLine> lines;
  EXPECT_FALSE(directoryReader.take(lines, 1));
  EXPECT_NE(log.failure().find("cannot read "), std::string::npos) << log.failure();
}

}  // namespace
}  // namespace host
