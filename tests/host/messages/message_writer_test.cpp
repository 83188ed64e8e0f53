#include <string>
#include <utility>

#include <gtest/gtest.h>

#include "connectivity/data_t.hpp"
#include "host/messages/MessageWriter.hpp"

namespace host {
namespace {

using connectivity::buffer_t;
using connectivity::data_t;
using connectivity::map_t;
using connectivity::Message;

Message response(data_t payload, const char* contentType = "text/plain") {
  map_t metadata;
  metadata.insert(data_t("requestId"), data_t(1));
  metadata.insert(data_t("contentType"), data_t(contentType));
  return {std::move(payload), std::move(metadata)};
}

data_t bytes(std::string_view text) { return data_t(buffer_t::copyOf(text)); }

std::string written(Codec codec, const Message& message) {
  std::string out;
  MessageWriter(codec, out).writeResponse(message);
  return out;
}

// The payload of the line.
std::string payloadOf(Codec codec, std::string_view body, const char* contentType = "text/plain") {
  const std::string line = written(codec, response(bytes(body), contentType));
  const std::string key = "\"payload\":";
  const auto begin = line.find(key) + key.size();
  return line.substr(begin, line.size() - begin - 2);
}

const std::string binaryOfNul = R"({"$binary":{"base64":"AA==","subType":"00"}})";

TEST(MessageWriter, WritesAResponseWithItsKeysInOrder) {
  EXPECT_EQ(written(Codec::Text, response(bytes("body"))),
            R"({"metadata":{"contentType":"text/plain","requestId":1},"payload":"body"})"
            "\n");
}

TEST(MessageWriter, WritesInvalidLinesAndFlushes) {
  std::string out;
  MessageWriter writer(Codec::Text, out);
  writer.writeError(7, "a \"text\"");
  writer.writeFlushed(data_t("x"));
  EXPECT_EQ(out,
            "{\"error\":{\"line\":7,\"text\":\"a \\\"text\\\"\"}}\n"
            "{\"control\":\"flushed\",\"id\":\"x\"}\n");
}

TEST(TextCodec, WritesAResponseThatIsUtf8AsAString) {
  EXPECT_EQ(payloadOf(Codec::Text, "gr\xC3\xBCn\n"), "\"gr\xC3\xBCn\\n\"");
  EXPECT_EQ(payloadOf(Codec::Text, ""), "\"\"");
}

TEST(TextCodec, WritesAResponseThatIsNotUtf8AsBinary) {
  EXPECT_EQ(payloadOf(Codec::Text, "\xFF"), R"({"$binary":{"base64":"/w==","subType":"00"}})");
}

TEST(TextCodec, WritesAResponseWithTheCharacterZeroAsBinaryBecauseNoStringHoldsIt) {
  EXPECT_EQ(payloadOf(Codec::Text, std::string_view("\0", 1)), binaryOfNul);
}

TEST(TextCodec, WritesOtherPayloadsAsTheyAre) {
  EXPECT_NE(written(Codec::Text, response(data_t(5))).find("\"payload\":5}"), std::string::npos);
  EXPECT_NE(written(Codec::Text, response(data_t())).find("\"payload\":null}"), std::string::npos);
}

TEST(NoneCodec, WritesEveryBufferAsBinary) {
  EXPECT_EQ(payloadOf(Codec::None, "foo", "application/json"),
            R"({"$binary":{"base64":"Zm9v","subType":"00"}})");
}

TEST(JsonCodec, ParsesAResponseWhoseContentTypeIsJson) {
  for (const char* type : {"application/json", "APPLICATION/JSON", "application/problem+json",
                           "text/json", " application/json ; charset=utf-8"}) {
    EXPECT_EQ(payloadOf(Codec::Json, R"({"b": 1, "a": [2.50]})", type), R"({"a":[2.5],"b":1})");
  }
}

TEST(JsonCodec, LeavesOtherContentTypesAsBuffers) {
  EXPECT_EQ(payloadOf(Codec::Json, "foo"), R"({"$binary":{"base64":"Zm9v","subType":"00"}})");
}

TEST(JsonCodec, LeavesABodyThatIsNotJsonAfterAllAsABuffer) {
  for (const char* body : {"", "{", R"({"a":1,"a":2})", R"("\u0000")"}) {
    EXPECT_EQ(payloadOf(Codec::Json, body, "application/json").substr(0, 10), "{\"$binary\"")
        << body;
  }
}

TEST(JsonCodec, TakesWhatLooksLikeAFormInABodyAsItIs) {
  EXPECT_EQ(payloadOf(Codec::Json, R"({"$numberDecimal": "x"})", "application/json"),
            R"({"$numberDecimal":"x"})");
}

}  // namespace
}  // namespace host
