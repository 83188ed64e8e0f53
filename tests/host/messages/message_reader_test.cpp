#include <string>

#include <gtest/gtest.h>

#include "connectivity/value_access.hpp"
#include "host/messages/JsonWriter.hpp"
#include "host/messages/MessageReader.hpp"

namespace host {
namespace {

using connectivity::data_t;
using connectivity::get;
using connectivity::Message;

constexpr bool assignIds = true;

Message readMessage(std::string_view line, Codec codec = Codec::Text, bool assign = assignIds) {
  return std::get<Message>(MessageReader(codec, assign).read(line, 7));
}

std::string metadataOf(const Message& message) {
  std::string out;
  JsonWriter(out).write(message.metadata);
  return out;
}

std::string errorOf(std::string_view line) {
  try {
    MessageReader(Codec::Text, assignIds).read(line, 7);
    return {};
  } catch (const InvalidLine& error) {
    return error.what();
  }
}

std::string bodyOf(const Message& message) {
  EXPECT_EQ(message.payload.tag(), static_cast<std::uint32_t>(QOR_BUFFER));
  return std::string(get<connectivity::buffer_t>(message.payload).view());
}

TEST(MessageReader, ReadsMetadataAndPayload) {
  const Message message =
      readMessage(R"({"metadata": {"requestId": "r", "http": {"method": "GET"}}, "payload": [1]})");
  EXPECT_EQ(metadataOf(message), R"({"http":{"method":"GET"},"requestId":"r"})");
  EXPECT_EQ(toJson(message.payload), "[1]");
}

TEST(MessageReader, MetadataAndPayloadMayBeAbsent) {
  const Message message = readMessage("{}");
  EXPECT_EQ(metadataOf(message), R"({"requestId":7})");
  EXPECT_TRUE(message.payload.empty());
}

TEST(MessageReader, GivesARequestWithoutIdItsLineNumber) {
  EXPECT_EQ(metadataOf(readMessage(R"({"metadata": {"a": 1}})")), R"({"a":1,"requestId":7})");
}

TEST(MessageReader, ARequestIdOfNullCountsAsGiven) {
  EXPECT_EQ(metadataOf(readMessage(R"({"metadata": {"requestId": null}})")),
            R"({"requestId":null})");
}

TEST(MessageReader, AssignsNoRequestIdWhereTheChainSaysSo) {
  const Message message = readMessage("{}", Codec::Text, !assignIds);
  EXPECT_EQ(metadataOf(message), "{}");
  EXPECT_NE(message.metadata.table(), nullptr);
}

TEST(MessageReader, RefusesAnythingButAMessageObject) {
  EXPECT_EQ(errorOf("[]"), "a message must be an object");
  EXPECT_EQ(errorOf("5"), "a message must be an object");
  EXPECT_EQ(errorOf(R"({"$numberDecimal": "1"})"), "a message must be an object");
  EXPECT_EQ(errorOf(R"({"payload": 1, "extra": 2, "more": 3})"),
            "a message holds only metadata and payload, not \"extra\" (method and path stand in "
            "metadata.http)");
  EXPECT_EQ(errorOf(R"({"metadata": 5})"), "metadata must be an object");
  EXPECT_EQ(errorOf(R"({"metadata": null})"), "metadata must be an object");
  EXPECT_EQ(errorOf(R"({"payload": 1, "payload": 2})"), "the key \"payload\" is repeated");
  EXPECT_NE(errorOf("not JSON"), "");
}

TEST(MessageReader, ReadsAFlushLineWithItsId) {
  MessageReader reader(Codec::Text, assignIds);
  const auto line = reader.read(R"({"control": "flush", "id": {"any": [1]}})", 7);
  EXPECT_EQ(toJson(std::get<FlushRequest>(line).id), R"({"any":[1]})");
  const auto null = reader.read(R"({"control": "flush", "id": null})", 7);
  EXPECT_TRUE(std::get<FlushRequest>(null).id.empty());
}

TEST(MessageReader, AFlushLineWithoutIdGetsItsLineNumber) {
  const auto line = MessageReader(Codec::Text, !assignIds).read(R"({"control": "flush"})", 7);
  EXPECT_EQ(toJson(std::get<FlushRequest>(line).id), "7");
}

TEST(MessageReader, RefusesOtherControlLines) {
  EXPECT_EQ(errorOf(R"({"control": "stop"})"), "control must be \"flush\"");
  EXPECT_EQ(errorOf(R"({"control": 1})"), "control must be \"flush\"");
  EXPECT_EQ(errorOf(R"({"control": "flush", "payload": 1})"),
            "a control line holds only control and id");
  EXPECT_EQ(errorOf(R"({"id": 1})"),
            "a message holds only metadata and payload, not \"id\" (method and path stand in "
            "metadata.http)");
}

TEST(MessageReader, RefusesAQueueFlushInMetadataBecauseNobodyWouldSeeItsEnd) {
  EXPECT_EQ(errorOf(R"({"metadata": {"qor.control.type": "QueueFlush"}})"),
            R"(a queue flush is written as {"control": "flush"})");
  EXPECT_EQ(errorOf(R"({"metadata": {"qor.control.type": "Other"}})"), "");
}

TEST(MessageReader, ALineOfWhiteSpaceIsBlank) {
  EXPECT_TRUE(MessageReader::isBlank(""));
  EXPECT_TRUE(MessageReader::isBlank(" \t\r"));
  EXPECT_FALSE(MessageReader::isBlank(" {}"));
}

TEST(TextCodec, TurnsAStringIntoItsBytes) {
  EXPECT_EQ(bodyOf(readMessage(R"({"payload": "gr\u00fcn"})")), "gr\xC3\xBCn");
  EXPECT_EQ(bodyOf(readMessage(R"({"payload": ""})")), "");
}

TEST(TextCodec, LeavesOtherPayloadsAsTheyAre) {
  EXPECT_EQ(toJson(readMessage(R"({"payload": {"a": 1}})").payload), R"({"a":1})");
  EXPECT_EQ(toJson(readMessage(R"({"payload": 5})").payload), "5");
  EXPECT_EQ(bodyOf(readMessage(R"({"payload": {"$binary": {"base64": "AA==", "subType": "00"}}})")),
            std::string(1, '\0'));
}

TEST(NoneCodec, LeavesEveryPayloadAsItIs) {
  EXPECT_EQ(toJson(readMessage(R"({"payload": "x"})", Codec::None).payload), "\"x\"");
}

TEST(JsonCodec, WritesThePayloadAsJsonAndNamesItsType) {
  const Message message = readMessage(
      R"({"metadata": {"http": {}}, "payload": {"b": [1.0, "x"], "a": null}})", Codec::Json);
  EXPECT_EQ(bodyOf(message), R"({"a":null,"b":[1.0,"x"]})");
  EXPECT_EQ(metadataOf(message), R"({"http":{"contentType":"application/json"},"requestId":7})");
}

TEST(JsonCodec, WritesAStringAsAJsonString) {
  EXPECT_EQ(bodyOf(readMessage(R"({"payload": "x"})", Codec::Json)), "\"x\"");
}

TEST(JsonCodec, KeepsAContentTypeThatTheRequestNames) {
  const Message own =
      readMessage(R"({"metadata": {"http": {"contentType": "application/x+json"}}, "payload": 1})",
                  Codec::Json);
  EXPECT_EQ(metadataOf(own), R"({"http":{"contentType":"application/x+json"},"requestId":7})");
  const Message header = readMessage(
      R"({"metadata": {"http": {"headers": {"Content-TYPE": "a/b"}}}, "payload": 1})", Codec::Json);
  EXPECT_EQ(metadataOf(header), R"({"http":{"headers":{"Content-TYPE":"a/b"}},"requestId":7})");
  EXPECT_EQ(bodyOf(header), "1");
}

TEST(JsonCodec, SendsNullAsNoBody) {
  const Message message =
      readMessage(R"({"metadata": {"http": {}}, "payload": null})", Codec::Json);
  EXPECT_TRUE(message.payload.empty());
  EXPECT_EQ(metadataOf(message), R"({"http":{},"requestId":7})");
}

TEST(JsonCodec, LeavesABufferAsItIs) {
  const Message message = readMessage(
      R"({"metadata": {"http": {}}, "payload": {"$binary": {"base64": "Zm9v", "subType": "00"}}})",
      Codec::Json);
  EXPECT_EQ(bodyOf(message), "foo");
  EXPECT_EQ(metadataOf(message), R"({"http":{},"requestId":7})");
}

TEST(JsonCodec, LeavesMetadataWithoutHttpToTheTransport) {
  EXPECT_EQ(metadataOf(readMessage(R"({"metadata": {"http": 5}, "payload": 1})", Codec::Json)),
            R"({"http":5,"requestId":7})");
}

TEST(EveryCodec, LeavesTheFieldsOfAFormAsTheyAre) {
  for (const Codec codec : {Codec::Text, Codec::Json, Codec::None}) {
    for (const char* http : {R"({"form": {}})", R"({"contentType": "Multipart/Form-Data; x=y"})",
                             R"({"contentType": "application/x-www-form-urlencoded"})",
                             R"({"headers": {"content-type": "multipart/form-data"}})"}) {
      const Message message = readMessage(
          std::string(R"({"metadata": {"http": )") + http + R"(}, "payload": {"a": "b"}})", codec);
      EXPECT_EQ(toJson(message.payload), R"({"a":"b"})") << http;
    }
  }
}

}  // namespace
}  // namespace host
