#include <string>

#include <gtest/gtest.h>

#include "host/chain/ChainStatistics.hpp"
#include "host/messages/MessageReader.hpp"

namespace host {
namespace {

using connectivity::Message;

Message message(const std::string& line, Codec codec = Codec::Text) {
  MessageReader reader(codec, false);
  return std::get<Message>(reader.read(line, 1));
}

Message answer(const std::string& status, const std::string& more = {}) {
  return message(R"({"metadata":{"http":{"statusCode":)" + status + "}" + more + "}}");
}

StatusClass classOf(const std::string& status) {
  return AnswerReader().statusOf(answer(status)).statusClass();
}

TEST(AnswerStatus, IsClassedByItsFirstDigit) {
  EXPECT_EQ(classOf("200"), StatusClass::Success);
  EXPECT_EQ(classOf("304"), StatusClass::Redirection);
  EXPECT_EQ(classOf("499"), StatusClass::ClientError);
  EXPECT_EQ(classOf("599"), StatusClass::ServerError);
  EXPECT_EQ(classOf("600"), StatusClass::Other);
  EXPECT_EQ(classOf("199"), StatusClass::Other);
  EXPECT_EQ(classOf("\"200\""), StatusClass::Other);
  EXPECT_EQ(AnswerReader().statusOf(message("{}")).statusClass(), StatusClass::Other);
}

TEST(AnswerStatus, IsASuccessFrom200To399) {
  for (const char* status : {"200", "399"}) {
    EXPECT_TRUE(AnswerReader().statusOf(answer(status)).isSuccess());
  }
  for (const char* status : {"199", "400", "null"}) {
    EXPECT_FALSE(AnswerReader().statusOf(answer(status)).isSuccess());
  }
}

TEST(AnswerStatus, TellsTheTransportsErrorsByTheirMissingContentType) {
  const AnswerReader reader;
  EXPECT_TRUE(reader.statusOf(answer("400")).isTransportError);
  EXPECT_FALSE(reader.statusOf(answer("400", R"(,"contentType":"")")).isTransportError);
}

TEST(AnswerReader, GivesEqualIdsOneKey) {
  const AnswerReader reader;
  const auto keyOf = [&](const std::string& id) {
    return reader.keyOfId(message(R"({"metadata":{"requestId":)" + id + "}}"));
  };
  EXPECT_EQ(keyOf("1"), keyOf("1"));
  EXPECT_EQ(keyOf("{\"a\":[1,null]}"), keyOf("{\"a\":[1,null]}"));
  EXPECT_NE(keyOf("1"), keyOf("2"));
  EXPECT_NE(keyOf("1"), keyOf("\"1\""));
  EXPECT_EQ(keyOf("null"), reader.keyOfId(message("{}")));
}

TEST(PayloadBytes, AreThoseOfBuffersTextsAndFields) {
  EXPECT_EQ(payloadBytes(message(R"({"payload":"gr\u00fc\u00df"})").payload), 6U);
  EXPECT_EQ(payloadBytes(message(R"({"payload":"four"})", Codec::None).payload), 4U);
  EXPECT_EQ(
      payloadBytes(
          message(R"({"payload":{"a":"123","f":{"$binary":{"base64":"AAEC","subType":"00"}}},)"
                  R"("metadata":{"http":{"form":{}}}})")
              .payload),
      6U);
  EXPECT_EQ(payloadBytes(message("{}").payload), 0U);
  EXPECT_EQ(payloadBytes(message(R"({"payload":5})").payload), 0U);
}

TEST(ChainStatistics, AddUp) {
  ChainStatistics sum;
  sum.answers = {1, 2, 3, 4, 5};
  sum.requestBytes = 10;
  sum.duration = std::chrono::seconds(3);
  ChainStatistics other;
  other.answers = {1, 0, 0, 0, 1};
  other.withoutResponse = 2;
  other.responseBytes = 7;
  other.duration = std::chrono::seconds(2);
  other.latencies.record(std::chrono::nanoseconds(5));
  sum.add(other);
  EXPECT_EQ(sum.answers, (std::array<std::uint64_t, 5>{2, 2, 3, 4, 6}));
  EXPECT_EQ(sum.withoutResponse, 2U);
  EXPECT_EQ(sum.requestBytes, 10U);
  EXPECT_EQ(sum.responseBytes, 7U);
  EXPECT_EQ(sum.latencies.count(), 1U);
  EXPECT_EQ(sum.duration, std::chrono::seconds(3));
}

}  // namespace
}  // namespace host
