// The output side of a chain: what deliveries meet, and what is written and counted at the end.
#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <string>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>
#include <utility>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "host/chain/AnswerWriter.hpp"
#include "tests/host/chain/Waiting.hpp"
#include "tests/support/Descriptor.hpp"
#include "tests/support/TemporaryDirectory.hpp"

namespace host {
namespace {

using connectivity::data_t;
using connectivity::map_t;
using connectivity::Message;
using host_tests::waitUntil;
using testing::HasSubstr;
using testing::StartsWith;

// More than a pipe holds, so that writing one waits for a reader.
const std::string large(std::size_t{200} * 1024, 'x');

Message answerWith(int id, const std::string& payload = {}) {
  map_t metadata;
  metadata.insert(data_t("requestId"), data_t(id));
  return {data_t(payload), std::move(metadata)};
}

void deliver(AnswerWriter& writer, Message&& response) { writer.answer(response); }

std::string lineOf(int id, const std::string& payload = {}) {
  return R"({"metadata":{"requestId":)" + std::to_string(id) + R"(},"payload":")" + payload +
         "\"}\n";
}

class AnswerWriterTest : public testing::Test {
 protected:
  ~AnswerWriterTest() override {
    if (!_thread.joinable()) return;
    writer.abandon();
    finish();
  }

  void start() {
    _thread = std::thread([this] { writer.run(); });
  }
  // No more is delivered; returns when all is written.
  void finish() {
    writer.close();
    _thread.join();
  }
  void untilADeliveryWaits() const {
    waitUntil([this] { return writer.waiting().putters > 0; }, "a delivery that waits");
  }

  const test_support::TemporaryDirectory directory;
  HostLog hostLog{QOR_LOG_ERROR, {}};
  const std::string id = "chain";
  ChainLog log{id, hostLog};
  Outstanding outstanding;
  int failures = 0;
  AnswerWriter writer{Codec::Text, outstanding, log,
                      [this] {
                        ++failures;
                        writer.abandon();
                      },
                      QueueBounds{8, std::uint64_t{64} * 1024 * 1024}};

 private:
  std::thread _thread;
};

class AnswersToAFile : public AnswerWriterTest {
 protected:
  AnswersToAFile() { writer.open(directory.file("out")); }
  std::string written() const { return test_support::readFile(directory.file("out")); }
};

TEST_F(AnswersToAFile, StandInTheOrderOfTheirDelivery) {
  start();
  deliver(writer, answerWith(1));
  writer.invalidLine(7, "no message");
  deliver(writer, answerWith(2));
  writer.flushed(data_t("done"));
  for (int i = 3; i <= 50; ++i) deliver(writer, answerWith(i));
  finish();
  std::string expected = lineOf(1) + "{\"error\":{\"line\":7,\"text\":\"no message\"}}\n" +
                         lineOf(2) + "{\"control\":\"flushed\",\"id\":\"done\"}\n";
  for (int i = 3; i <= 50; ++i) expected += lineOf(i);
  EXPECT_EQ(written(), expected);
  EXPECT_EQ(writer.answered(), 50U);
  EXPECT_EQ(writer.invalid(), 1U);
  EXPECT_EQ(writer.statistics().answers[static_cast<std::size_t>(StatusClass::Other)], 50U);
}

TEST_F(AnswersToAFile, AreAllWrittenWhereTheyWereDeliveredBeforeTheEnd) {
  for (int i = 1; i <= 8; ++i) deliver(writer, answerWith(i, large));
  writer.close();
  start();
  finish();
  EXPECT_EQ(written().size(), 8 * lineOf(1, large).size());
  EXPECT_EQ(writer.answered(), 8U);
}

TEST_F(AnswersToAFile, CountTheirLatencyUpToTheDeliveryWheneverTheyAreWritten) {
  const auto begin = std::chrono::steady_clock::now();
  const std::vector<std::uint64_t> keys{AnswerReader().keyOfId(answerWith(1))};
  outstanding.add(1, keys, begin);
  deliver(writer, answerWith(1));
  const auto delivered = std::chrono::steady_clock::now();
  start();
  finish();
  EXPECT_EQ(writer.statistics().latencies.count(), 1U);
  EXPECT_LE(writer.statistics().latencies.max(), delivered - begin);
}

// As where a disk stands still.
TEST_F(AnswersToAFile, EndTheWaitOfADeliveryWhenAbandonedAlsoWhileNothingIsWritten) {
  std::thread deliveries([this] {
    for (int i = 1; i <= 9; ++i) deliver(writer, answerWith(i));
  });
  untilADeliveryWaits();
  writer.abandon();
  deliveries.join();
  start();
  finish();
  EXPECT_EQ(writer.answered(), 8U) << "the one without room is lost";
}

// A pipe that the test reads.
class AnswersToAPipe : public AnswerWriterTest {
 protected:
  AnswersToAPipe() {
    const std::string path = directory.file("pipe");
    EXPECT_EQ(::mkfifo(path.c_str(), 0600), 0);
    reader = test_support::Descriptor(::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    ::fcntl(reader.get(), F_SETFL, 0);
    writer.open(path);
    start();
  }

  std::string readBytes(std::size_t count) const {
    std::string text(count, '\0');
    std::size_t length = 0;
    while (length < count) {
      const ssize_t read = ::read(reader.get(), text.data() + length, count - length);
      if (read <= 0) break;
      length += static_cast<std::size_t>(read);
    }
    return text.substr(0, length);
  }

  test_support::Descriptor reader;
};

TEST_F(AnswersToAPipe, ReachTheReaderWhileMoreIsToCome) {
  for (int i = 1; i <= 3; ++i) {
    deliver(writer, answerWith(i));
    EXPECT_EQ(readBytes(lineOf(i).size()), lineOf(i));
  }
}

TEST_F(AnswersToAPipe, CostDeliveriesNothingUntilTheBoundIsReached) {
  std::thread deliveries([this] {
    for (int i = 1; i <= 9; ++i) deliver(writer, answerWith(i, large));
  });
  untilADeliveryWaits();
  EXPECT_EQ(writer.answered(), 0U) << "nobody has read";
  std::string expected;
  for (int i = 1; i <= 9; ++i) expected += lineOf(i, large);
  EXPECT_EQ(readBytes(expected.size()), expected);
  deliveries.join();
  finish();
  EXPECT_EQ(writer.answered(), 9U);
}

TEST_F(AnswersToAPipe, GoOutBeforeALargeOneIsRendered) {
  deliver(writer, answerWith(1));
  deliver(writer, answerWith(2, large));
  waitUntil([this] { return writer.answered() == 1; }, "the small answer");
}

TEST_F(AnswersToAPipe, AbandonEndsTheWaitOfADeliveryAndOfTheWriter) {
  std::thread deliveries([this] {
    for (int i = 1; i <= 20; ++i) deliver(writer, answerWith(i, large));
  });
  untilADeliveryWaits();
  writer.abandon();
  deliveries.join();
  finish();
  EXPECT_EQ(writer.answered(), 0U) << "no line is whole";
  EXPECT_EQ(log.failure(), "");
}

TEST_F(AnswersToAPipe, AreStillWrittenAfterAbandonWhereTheReaderTakesThem) {
  writer.abandon();
  deliver(writer, answerWith(1));
  finish();
  EXPECT_EQ(readBytes(lineOf(1).size()), lineOf(1));
  EXPECT_EQ(writer.answered(), 1U);
}

TEST_F(AnswersToAPipe, AReaderThatIsGoneIsToldOnceAndEndsTheWaitOfADelivery) {
  ::signal(SIGPIPE, SIG_IGN);
  deliver(writer, answerWith(1));
  EXPECT_EQ(readBytes(lineOf(1).size()), lineOf(1));
  std::thread deliveries([this] {
    for (int i = 2; i <= 20; ++i) deliver(writer, answerWith(i, large));
  });
  untilADeliveryWaits();
  reader = test_support::Descriptor();
  deliveries.join();
  deliver(writer, answerWith(21));
  finish();
  EXPECT_EQ(failures, 1);
  EXPECT_THAT(log.failure(), StartsWith("cannot write "));
  EXPECT_THAT(log.failure(), HasSubstr("Broken pipe"));
  EXPECT_EQ(writer.answered(), 1U) << "the others were never written";
}

}  // namespace
}  // namespace host
