// The beginning and the end of TLS, over a connection in memory.
#include <string>
#include <string_view>
#include <utility>

#include <Poco/Exception.h>
#include <Poco/Net/NetException.h>
#include <Poco/Net/SSLException.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "plugins/http_client/wire/TlsLayer.hpp"
#include "tests/plugins/http_client/TlsInMemory.hpp"

namespace connectivity::plugins {
namespace {

using std::chrono::milliseconds;
using testing::Throws;

auto failsWith(const std::string& message) {
  return Throws<Poco::Exception>(testing::Property(&Poco::Exception::message, message));
}

INSTANTIATE_TEST_SUITE_P(Versions, TlsLayerTest, testing::Values(TLS1_2_VERSION, TLS1_3_VERSION),
                         nameOfTlsVersion);

TEST_P(TlsLayerTest, AnnouncesAServersNameAndNoAddress) {
  for (const auto& [given, announced] :
       {std::pair("server.test", "server.test"), std::pair("127.0.0.1", ""), std::pair("::1", ""),
        std::pair("", "")}) {
    layer.reset();
    server.accept();
    make(given);
    layer->connect();
    EXPECT_EQ(server.announcedName(), announced) << given;
  }
}

TEST_P(TlsLayerTest, ReadsAHandshakeHoweverItIsCut) {
  wire->mostAtOnce = 1;
  layer->connect();
  server.write("answer");
  EXPECT_EQ(receive(), "answer");
}

// --- handshakes that fail

TEST_P(TlsLayerTest, AFailureWithinTheHandshakeIsTheFailure) {
  wire->receiveFails = true;
  EXPECT_THROW(layer->connect(), Poco::Net::ConnectionResetException);
  server.accept();
  wire->receiveFails = false;
  wire->sendFails = true;
  EXPECT_THAT([&] { layer->connect(); }, Throws<Poco::IOException>(testing::Property(
                                             &Poco::Exception::message, "cannot send")));
}

TEST_P(TlsLayerTest, WaitsForRoomWithinTheHandshake) {
  wire->room = 10;
  layer->connect();
  EXPECT_GT(wire->waits, 0);
}

class Impatient : public TlsLayerTest {
 protected:
  Impatient() : TlsLayerTest(milliseconds(100)) {}
};
INSTANTIATE_TEST_SUITE_P(Versions, Impatient, testing::Values(TLS1_2_VERSION, TLS1_3_VERSION),
                         nameOfTlsVersion);

TEST_P(Impatient, ASilentServerIsATimeout) {
  wire->silent = true;
  EXPECT_THAT([&] { layer->connect(); }, failsWith("The TLS handshake timed out"));
}

// Each of its bytes comes within the time-out.
TEST_P(Impatient, TheWholeHandshakeTakesAtMostTheTimeout) {
  wire->mostAtOnce = 1;
  wire->delay = milliseconds(1);
  EXPECT_THAT([&] { layer->connect(); }, failsWith("The TLS handshake timed out"));
}

TEST_P(Impatient, ADeadlineIsNoTimeout) {
  wire->silent = true;
  limits.setDeadline(TimeLimits::Clock::now() + milliseconds(50));
  EXPECT_THROW(layer->connect(), DeadlineExceeded);
}

// --- goodbyes

TEST_P(TlsLayerTest, SaysGoodbyeWhenItIsClosed) {
  layer->connect();
  layer->close();
  EXPECT_TRUE(server.heardGoodbye());
  EXPECT_EQ(wire->closes, 1);
}

TEST_P(TlsLayerTest, SaysGoodbyeWhenItIsDestroyed) {
  layer->connect();
  layer.reset();
  EXPECT_TRUE(server.heardGoodbye());
}

TEST_P(TlsLayerTest, DoesNotWaitToSayGoodbye) {
  layer->connect();
  wire->room = 0;
  wire->waits = 0;
  layer->close();
  EXPECT_EQ(wire->waits, 0);
  EXPECT_EQ(wire->closes, 1);
}

TEST_P(TlsLayerTest, SaysNothingAfterAFailure) {
  for (const bool toSend : {true, false}) {
    layer->connect();
    (toSend ? wire->sendFails : wire->receiveFails) = true;
    EXPECT_THROW(toSend ? send({"request"}) : receive().size(), Poco::IOException);
    wire->sendFails = wire->receiveFails = false;
    wire->sends = 0;
    layer->close();
    EXPECT_EQ(wire->sends, 0);
    server.accept();
  }
  EXPECT_EQ(wire->closes, 2);
}

TEST_P(TlsLayerTest, SaysNothingWhereTheHandshakeHasFailed) {
  wire->receiveFails = true;
  EXPECT_THROW(layer->connect(), Poco::Net::ConnectionResetException);
  wire->sends = 0;
  layer->close();
  EXPECT_EQ(wire->sends, 0);
  EXPECT_EQ(wire->closes, 1);
}

}  // namespace
}  // namespace connectivity::plugins
