// Bytes within TLS, over a connection in memory. Over sockets it is proved with the sessions.
#include "plugins/http_client/wire/TlsLayer.hpp"

#include <string>
#include <string_view>
#include <utility>

#include <Poco/Exception.h>
#include <Poco/Net/NetException.h>
#include <Poco/Net/SSLException.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/plugins/http_client/TlsInMemory.hpp"

namespace connectivity::plugins {
namespace {

using std::chrono::milliseconds;
using testing::Throws;

INSTANTIATE_TEST_SUITE_P(Versions, TlsLayerTest, testing::Values(TLS1_2_VERSION, TLS1_3_VERSION),
                         nameOfTlsVersion);

TEST_P(TlsLayerTest, PassesBytesBothWays) {
  layer->connect();
  EXPECT_EQ(wire->connects, 1);
  EXPECT_TRUE(nothingToReceive());
  EXPECT_EQ(send({"request"}), 7U);
  EXPECT_EQ(server.readAll(), "request");
  server.write("answer");
  EXPECT_EQ(receive(3), "ans");
  EXPECT_EQ(receive(), "wer");
  EXPECT_TRUE(nothingToReceive());
}

TEST_P(TlsLayerTest, ConnectsAgainAfterItWasClosed) {
  layer->connect();
  layer->close();
  EXPECT_EQ(wire->closes, 1);
  server.accept();
  layer->connect();
  EXPECT_EQ(send({"again"}), 5U);
  EXPECT_EQ(server.readAll(), "again");
}

// --- sending

TEST_P(TlsLayerTest, SmallPiecesAreOneRecord) {
  layer->connect();
  wire->sends = 0;
  EXPECT_EQ(send({"head", "", "of", " the request"}), 18U);
  EXPECT_EQ(wire->sends, 1);
  EXPECT_EQ(server.readRecord(), "headof the request");
}

TEST_P(TlsLayerTest, TheBytesThatItTakesAreTheFirst) {
  layer->connect();
  const std::string first(16000, 'a');
  const std::string second(50000, 'b');
  const std::string whole = first + second;
  std::string arrived;
  for (std::size_t taken = 0; taken < whole.size();) {
    const auto rest = std::string_view(whole).substr(taken);
    const auto part = rest.substr(0, rest.size() > second.size() ? rest.size() - second.size() : 0);
    taken += part.empty() ? send({rest}) : send({part, second});
    arrived += server.readAll();
    EXPECT_EQ(arrived.size(), taken);
  }
  EXPECT_TRUE(arrived == whole);
}

TEST_P(TlsLayerTest, TakesNothingWhereItWouldHaveToWait) {
  layer->connect();
  wire->room = 5;
  EXPECT_EQ(send({"re", "quest"}), 0U);
  EXPECT_EQ(send({"re", "quest"}), 0U);
  wire->room = endless;
  EXPECT_EQ(send({"re", "quest"}), 7U);
  EXPECT_EQ(server.readAll(), "request");
}

TEST_P(TlsLayerTest, TakesTheRecordsThatThereIsRoomFor) {
  layer->connect();
  const std::string bytes(50000, 'x');
  wire->room = 20000;
  EXPECT_EQ(send({bytes}), 16384U);
  EXPECT_EQ(server.readAll(), std::string(16384, 'x'));
}

TEST_P(TlsLayerTest, TakesTheSameBytesFromAnotherPlace) {
  layer->connect();
  wire->room = 5;
  const std::string bytes(100, 'x');
  EXPECT_EQ(send({bytes}), 0U);
  wire->room = endless;
  const std::string copy = bytes;
  EXPECT_EQ(send({copy, "and more"}), 108U);
  EXPECT_EQ(server.readAll(), bytes + "and more");
}

TEST_P(TlsLayerTest, ReceivesWhileARecordWaitsForRoom) {
  layer->connect();
  wire->room = 5;
  EXPECT_EQ(send({"request"}), 0U);
  server.write("answer");
  EXPECT_EQ(receive(), "answer");
  wire->room = endless;
  EXPECT_EQ(send({"request"}), 7U);
  EXPECT_EQ(server.readAll(), "request");
}

// --- what can be received

// What a server sends behind the handshake is TLS's own.
TEST_P(TlsLayerTest, IsQuietWhateverTlsItselfHasToSay) {
  layer->connect();
  EXPECT_TRUE(layer->quiet());
  if (GetParam() == TLS1_2_VERSION) return;
  server.changeKeys();
  EXPECT_FALSE(wire->quiet());
  EXPECT_TRUE(layer->quiet());
  EXPECT_EQ(send({"request"}), 7U);
  EXPECT_EQ(server.readAll(), "request");
  server.write("answer");
  EXPECT_EQ(receive(), "answer");
}

TEST_P(TlsLayerTest, IsNotQuietWhereBytesWait) {
  layer->connect();
  server.write("stray");
  EXPECT_FALSE(layer->quiet());
  EXPECT_EQ(receive(1), "s");
  EXPECT_FALSE(layer->quiet()) << "the rest of the record";
  EXPECT_EQ(receive(), "tray") << "looking has taken nothing";
  EXPECT_TRUE(layer->quiet());
}

TEST_P(TlsLayerTest, IsNotQuietWhereTheConnectionHasEnded) {
  layer->connect();
  server.sayGoodbye();
  EXPECT_FALSE(layer->quiet());
  layer->close();
  server.accept();
  layer->connect();
  wire->ended = true;
  EXPECT_FALSE(layer->quiet());
}

TEST_P(TlsLayerTest, IsNotQuietWhereTheConnectionFails) {
  layer->connect();
  server.write("x");
  wire->receiveFails = true;
  EXPECT_FALSE(layer->quiet());
}

TEST_P(TlsLayerTest, AGoodbyeIsTheEnd) {
  layer->connect();
  server.write("last");
  server.sayGoodbye();
  EXPECT_EQ(receive(), "last");
  EXPECT_EQ(receive(), "");
  EXPECT_EQ(receive(), "");
}

TEST_P(TlsLayerTest, AnEndWithoutAGoodbyeIsAFailure) {
  layer->connect();
  server.write("last");
  wire->ended = true;
  EXPECT_EQ(receive(), "last");
  EXPECT_THAT(
      [&] { receive(); },
      Throws<Poco::Net::SSLConnectionUnexpectedlyClosedException>(testing::Property(
          &Poco::Exception::message, "The server closed the connection without ending TLS")));
}

// --- failures of the layer below

TEST_P(TlsLayerTest, WhatHasComeIsReceivedAfterAFailureToSend) {
  layer->connect();
  server.write("early answer");
  server.sayGoodbye();
  wire->sendFails = true;
  EXPECT_THAT([&] { send({"request"}); }, Throws<Poco::IOException>(testing::Property(
                                              &Poco::Exception::message, "cannot send")));
  EXPECT_EQ(receive(), "early answer");
  EXPECT_EQ(receive(), "");
}

TEST_P(TlsLayerTest, AFailureToReceiveIsTheFailure) {
  layer->connect();
  wire->receiveFails = true;
  EXPECT_THROW(receive(), Poco::Net::ConnectionResetException);
}

TEST_P(TlsLayerTest, SilenceIsATimeout) {
  layer->connect();
  EXPECT_TRUE(nothingToReceive());  // but for what TLS itself has to say
  wire->silent = true;
  limits.setDeadline(TimeLimits::Clock::now() + milliseconds(50));
  EXPECT_THROW(receive(), DeadlineExceeded);
}

}  // namespace
}  // namespace connectivity::plugins
