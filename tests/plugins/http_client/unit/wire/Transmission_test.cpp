#include "plugins/http_client/wire/Transmission.hpp"

#include <algorithm>
#include <array>
#include <cstring>
#include <deque>
#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <Poco/Exception.h>
#include <gtest/gtest.h>

namespace connectivity::plugins {
namespace {

using Pieces = std::vector<std::string_view>;

// A connection in memory: takes as many bytes as it has room for, and gives what has come. What
// happens at its other end happens while it is waited for, step by step.
class LayerInMemory final : public Layer {
 public:
  void connect() override {}
  void close() noexcept override {}
  bool quiet() noexcept override { return true; }

  std::size_t send(std::span<const std::string_view> pieces) override {
    ++sends;
    offered.assign(pieces.begin(), pieces.end());
    if (refuses) throw Poco::IOException("refused");
    std::size_t taken = 0;
    for (const std::string_view piece : pieces) {
      const std::string_view part = piece.substr(0, room);
      sent += part;
      room -= part.size();
      taken += part.size();
    }
    return taken;
  }

  std::optional<std::size_t> receive(char* data, std::size_t size, Wait wait) override {
    if (incoming.empty() && wait == Wait::Yes && !ended) step();
    if (fails) throw Poco::IOException("failed");
    if (incoming.empty()) return ended ? std::optional<std::size_t>(0) : std::nullopt;
    const std::string piece = incoming.front().substr(0, size);
    std::memcpy(data, piece.data(), piece.size());
    if (!endless) incoming.pop_front();
    return piece.size();
  }

  void awaitEither() override {
    if (incoming.empty() && !ended) step();
  }
  void awaitRoom() override { step(); }

  std::size_t room = 1'000'000;
  bool refuses = false;              // to take more
  std::deque<std::string> incoming;  // one for each receive
  bool endless = false;              // the first of them never ends
  bool ended = false;                // behind what is incoming
  bool fails = false;
  std::deque<std::function<void()>> steps;
  std::string sent;
  Pieces offered;  // at the last call
  int sends = 0;

 private:
  void step() {
    if (steps.empty()) throw Poco::TimeoutException("waited in vain");
    steps.front()();
    steps.pop_front();
  }
};

struct TransmissionTest : testing::Test {
  void begin(const Pieces& body) { transmission.begin(layer, "HEAD", body); }
  // What one receive gives; nothing at the end.
  std::string receive() {
    std::array<char, 100> bytes{};
    return {bytes.data(), transmission.receive(bytes.data(), bytes.size())};
  }
  std::string failure() const {
    try {
      if (transmission.failure()) std::rethrow_exception(transmission.failure());
    } catch (const Poco::Exception& failure) {
      return failure.message();
    }
    return "(none)";
  }
  // Steps of the other end.
  void thenTakes(std::size_t bytes) {
    layer.steps.emplace_back([this, bytes] { layer.room += bytes; });
  }
  void thenSends(const std::string& bytes) {
    layer.steps.emplace_back([this, bytes] { layer.incoming.push_back(bytes); });
  }

  LayerInMemory layer;
  Transmission transmission;
};

// --- sending

TEST_F(TransmissionTest, SendsAHeadWithoutABodyAtOnce) {
  begin({});
  EXPECT_EQ(layer.sent, "HEAD");
  EXPECT_EQ(layer.sends, 1);
  EXPECT_FALSE(transmission.sending());
  EXPECT_EQ(transmission.failure(), nullptr);
}

TEST_F(TransmissionTest, SendsTheBodyTogetherWithTheHead) {
  begin({"ab", "c", "123"});
  EXPECT_EQ(layer.sent, "HEADabc123");
  EXPECT_EQ(layer.sends, 1);
  EXPECT_EQ(layer.offered, (Pieces{"HEAD", "ab", "c", "123"}));
}

TEST_F(TransmissionTest, SendsABodyFromTheCallersMemory) {
  const std::string body(100000, 'x');
  begin({body});
  ASSERT_EQ(layer.offered.size(), 2U);
  EXPECT_EQ(layer.offered[1].data(), body.data());
}

TEST_F(TransmissionTest, LeavesOutEmptyPieces) {
  begin({"", "a", "", "b", ""});
  EXPECT_EQ(layer.offered, (Pieces{"HEAD", "a", "b"}));
  EXPECT_FALSE(transmission.sending());
}

TEST_F(TransmissionTest, DoesNotWaitForRoomBeforeTheResponseIsReceived) {
  layer.room = 6;
  begin({"abc", "def"});
  EXPECT_EQ(layer.sent, "HEADab");
  EXPECT_TRUE(transmission.sending());
}

TEST_F(TransmissionTest, OffersWhatIsLeftWhereverItStopped) {
  for (std::size_t first = 0; first <= 12; ++first) {
    layer.sent.clear();
    layer.room = first;
    begin({"abc", "d", "efgh"});
    EXPECT_EQ(layer.sent, std::string("HEADabcdefgh").substr(0, first));
    thenTakes(2);
    thenTakes(100);
    EXPECT_EQ(transmission.flush(), true);
    EXPECT_EQ(layer.sent, "HEADabcdefgh");
    layer.steps.clear();
  }
}

TEST_F(TransmissionTest, StopsWhereItIsToldTo) {
  layer.room = 5;
  begin({"abc"});
  transmission.stop();
  EXPECT_FALSE(transmission.sending());
  layer.room = 100;
  EXPECT_TRUE(transmission.flush());
  EXPECT_EQ(layer.sent, "HEADa");
}

TEST_F(TransmissionTest, ServesTheNextRequest) {
  layer.room = 5;
  begin({"abc"});
  layer.room = 100;
  layer.sent.clear();
  begin({"xyz"});
  EXPECT_EQ(layer.sent, "HEADxyz");
  EXPECT_FALSE(transmission.sending());
}

// --- receiving meanwhile

TEST_F(TransmissionTest, ReceivesWhileItSends) {
  layer.room = 5;
  begin({"abc"});
  thenSends("early");
  EXPECT_EQ(receive(), "early");
  EXPECT_EQ(layer.sent, "HEADa");
  EXPECT_TRUE(transmission.sending());
}

TEST_F(TransmissionTest, SendsWhileItReceives) {
  layer.room = 4;
  begin({"abcde"});
  thenTakes(2);
  thenTakes(2);
  thenTakes(2);
  thenSends("answer");
  EXPECT_EQ(receive(), "answer");
  EXPECT_EQ(layer.sent, "HEADabcde");
}

// Each side takes only as fast as it is rid of what it sends.
TEST_F(TransmissionTest, APeerThatAnswersAsItReadsIsNotLeftWaiting) {
  layer.room = 4;
  begin({"abcdefgh"});
  std::string echoed;
  std::string expected;
  for (int i = 0; i < 8; ++i) {
    thenSends(std::string(1, static_cast<char>('0' + i)));
    expected += static_cast<char>('0' + i);
    thenTakes(1);
  }
  while (echoed.size() < 8) echoed += receive();
  EXPECT_EQ(echoed, expected);
  EXPECT_TRUE(transmission.flush());
  EXPECT_EQ(layer.sent, "HEADabcdefgh");
}

TEST_F(TransmissionTest, APeerThatNeverStopsSendingDoesNotKeepItFromSending) {
  layer.room = 4;
  begin({"abcdefgh"});
  layer.incoming = {"more"};
  layer.endless = true;
  for (int i = 0; i < 8; ++i) {
    layer.room = 1;
    EXPECT_EQ(receive(), "more");
  }
  EXPECT_EQ(layer.sent, "HEADabcdefgh");
  EXPECT_FALSE(transmission.sending());
}

TEST_F(TransmissionTest, TellsTheEndOfTheStreamWhileItSends) {
  layer.room = 5;
  begin({"abc"});
  layer.ended = true;
  EXPECT_EQ(receive(), "");
  EXPECT_TRUE(transmission.sending());
}

TEST_F(TransmissionTest, OnceAllIsSentWaitsForTheResponse) {
  begin({"abc"});
  thenSends("answer");
  EXPECT_EQ(receive(), "answer");
  EXPECT_THROW(receive(), Poco::TimeoutException);
}

TEST_F(TransmissionTest, AWaitInVainIsNoEndOfTheSending) {
  layer.room = 5;
  begin({"abc"});
  EXPECT_THROW(receive(), Poco::TimeoutException);
  EXPECT_EQ(transmission.failure(), nullptr);
}

// --- failures

TEST_F(TransmissionTest, AFailureToSendIsKeptAndWhatHasComeIsReceived) {
  layer.refuses = true;
  layer.incoming = {"early", "answer"};
  begin({"abc"});
  EXPECT_FALSE(transmission.sending());
  EXPECT_EQ(failure(), "refused");
  EXPECT_EQ(receive(), "early");
  EXPECT_EQ(receive(), "answer");
  layer.ended = true;
  EXPECT_EQ(receive(), "");
  EXPECT_EQ(layer.sends, 1) << "nothing is sent again";
}

TEST_F(TransmissionTest, AFailureWhileItReceivesIsKeptToo) {
  layer.room = 5;
  begin({"abc"});
  layer.steps.emplace_back([this] { layer.refuses = true; });
  thenSends("answer");
  EXPECT_EQ(receive(), "answer");
  EXPECT_FALSE(transmission.sending());
  EXPECT_EQ(failure(), "refused");
}

TEST_F(TransmissionTest, AFailureToReceiveIsThrown) {
  layer.room = 5;
  begin({"abc"});
  layer.fails = true;
  EXPECT_THROW(receive(), Poco::IOException);
  EXPECT_THROW(transmission.flush(), Poco::IOException);
}

TEST_F(TransmissionTest, ServesTheNextRequestAfterAFailure) {
  layer.refuses = true;
  begin({"abc"});
  layer.refuses = false;
  begin({"xyz"});
  EXPECT_EQ(layer.sent, "HEADxyz");
  EXPECT_EQ(transmission.failure(), nullptr);
}

// --- the rest

TEST_F(TransmissionTest, FlushSendsTheRest) {
  layer.room = 4;
  begin({"abcd"});
  thenTakes(1);
  thenTakes(3);
  EXPECT_TRUE(transmission.flush());
  EXPECT_EQ(layer.sent, "HEADabcd");
  EXPECT_FALSE(transmission.sending());
}

TEST_F(TransmissionTest, FlushTellsOfBytesThatAreNobodys) {
  layer.room = 4;
  begin({"abcd"});
  thenSends("stray");
  thenTakes(4);
  EXPECT_FALSE(transmission.flush());
  EXPECT_EQ(layer.sent, "HEADabcd");
}

TEST_F(TransmissionTest, FlushTellsOfAFailureToSend) {
  layer.room = 4;
  begin({"abcd"});
  layer.steps.emplace_back([this] { layer.refuses = true; });
  EXPECT_FALSE(transmission.flush());
  EXPECT_EQ(failure(), "refused");
  layer.refuses = true;
  begin({"abcd"});
  EXPECT_FALSE(transmission.flush()) << "it failed before";
}

// The end of the stream can always be read: waiting for either direction would not wait at all.
TEST_F(TransmissionTest, FlushWaitsForRoomAloneOnceThePeerSendsNoMore) {
  layer.room = 4;
  begin({"abcd"});
  layer.ended = true;
  thenTakes(1);
  thenTakes(3);
  EXPECT_FALSE(transmission.flush());
  EXPECT_EQ(layer.sent, "HEADabcd");
  EXPECT_TRUE(layer.steps.empty());
  layer.room = 4;
  begin({"abcd"});
  EXPECT_THROW(transmission.flush(), Poco::TimeoutException);
}

TEST_F(TransmissionTest, CallsAtOnceWhereAllIsSent) {
  begin({"abc"});
  int calls = 0;
  transmission.whenSent([&] { ++calls; });
  EXPECT_EQ(calls, 1);
}

TEST_F(TransmissionTest, CallsOnceAllIsSent) {
  layer.room = 4;
  begin({"abc"});
  int calls = 0;
  transmission.whenSent([&] { ++calls; });
  thenTakes(2);
  thenSends("a");
  EXPECT_EQ(receive(), "a");
  EXPECT_EQ(calls, 0);
  thenTakes(2);
  thenSends("b");
  EXPECT_EQ(receive(), "b");
  EXPECT_EQ(calls, 1);
  thenSends("c");
  EXPECT_EQ(receive(), "c");
  EXPECT_EQ(calls, 1);
}

TEST_F(TransmissionTest, CallsWhereTheSendingFails) {
  layer.room = 4;
  begin({"abc"});
  int calls = 0;
  transmission.whenSent([&] { ++calls; });
  layer.steps.emplace_back([this] { layer.refuses = true; });
  thenSends("a");
  EXPECT_EQ(receive(), "a");
  EXPECT_EQ(calls, 1);
}

TEST_F(TransmissionTest, DoesNotCallForAnotherRequest) {
  layer.room = 4;
  begin({"abc"});
  int calls = 0;
  transmission.whenSent([&] { ++calls; });
  transmission.stop();
  layer.room = 100;
  begin({"xyz"});
  EXPECT_EQ(calls, 0);
}

}  // namespace
}  // namespace connectivity::plugins
