// The builders and readers of messages.
#include "tests/support/Messages.hpp"

#include <stdexcept>

#include <gtest/gtest.h>

#include "connectivity/value_access.hpp"
#include "tests/support/TemporaryDirectory.hpp"

namespace test_support {
namespace {

TEST(Config, NestsByPath) {
  const map_t map = Config(8080).proxyCredentials("u", "p").numClients(3).map();
  EXPECT_EQ(connectivity::toText(*find(map, {"host"})), "127.0.0.1");
  EXPECT_EQ(connectivity::get<long long>(*find(map, {"port"})), 8080);
  EXPECT_EQ(connectivity::toText(*find(map, {"proxy", "authentication", "password"})), "p");
  EXPECT_EQ(find(map, {"proxy", "port"}), nullptr);
  EXPECT_EQ(find(map, {"host", "deeper"}), nullptr);
}

TEST(Request, BuildsTheMessageItSays) {
  const Request request = Request("POST", "/x").id(7).header("A/B", "c").body("bytes").key("k");
  const Message message = request.message();
  EXPECT_EQ(connectivity::get<connectivity::buffer_t>(message.payload).view(), "bytes");
  EXPECT_EQ(connectivity::get<long long>(*find(message.metadata, {"requestId"})), 7);
  EXPECT_EQ(connectivity::toText(*find(message.metadata, {"http", "method"})), "POST");
  EXPECT_EQ(connectivity::toText(*find(message.metadata, {"http", "headers", "A/B"})), "c");
  EXPECT_EQ(connectivity::toText(*find(message.metadata, {"concurrencyControlKey"})), "k");
}

TEST(Request, LeavesOutWhatItIsTold) {
  const Message message = Request("GET", "/x").without("requestId").message();
  EXPECT_EQ(find(message.metadata, {"requestId"}), nullptr);
  EXPECT_NE(find(message.metadata, {"http", "path"}), nullptr);
}

TEST(Request, MakesFormsOfFields) {
  const Message message =
      Request("POST", "/x").field("a", "b").file("f", "bytes").form("filename", "n.bin").message();
  const auto& fields = connectivity::get<map_t>(message.payload);
  EXPECT_EQ(find(fields, {"a"})->text(), std::string("b"));
  EXPECT_EQ(find(fields, {"f"})->tag(), QOR_BUFFER);
  EXPECT_EQ(find(message.metadata, {"http", "form", "filename"})->text(), std::string("n.bin"));
}

TEST(Request, HasAnEmptyPayloadUnlessGiven) {
  EXPECT_TRUE(Request("GET", "/x").message().payload.empty());
}

TEST(FlushMessage, TellsWhenTheLastHolderFreesIt) {
  const auto released = std::make_shared<Event>();
  {
    const Message message = flushMessage(released);
    EXPECT_EQ(connectivity::toText(*find(message.metadata, {"qor.control.type"})), "QueueFlush");
    EXPECT_EQ(find(message.metadata, {"qor.controlObject"})->tag(), QOR_CUSTOM);
    EXPECT_FALSE(released->isSet());
  }
  EXPECT_TRUE(released->isSet());
}

TEST(Answer, ReadsWhatAMessageHolds) {
  map_t metadata;
  put(metadata, {"requestId"}, data_t(7));
  put(metadata, {"http", "statusCode"}, data_t(404));
  put(metadata, {"http", "statusReason"}, textValue("Not Found"));
  put(metadata, {"http", "headers", "x-a"}, textValue("b"));
  put(metadata, {"http", "cookies"}, mapValue({{"c", "d"}}));
  const Answer answer(Message(bufferValue("body"), std::move(metadata)));
  EXPECT_EQ(answer.status(), 404);
  EXPECT_EQ(answer.reason(), "Not Found");
  EXPECT_EQ(answer.id(), 7);
  EXPECT_EQ(answer.body(), "body");
  EXPECT_EQ(answer.header("x-a"), "b");
  EXPECT_EQ(answer.header("absent"), std::nullopt);
  EXPECT_EQ(answer.cookie("c"), "d");
  EXPECT_EQ(answer.text("http/statusCode"), "404");
  EXPECT_FALSE(answer.isError());
}

TEST(Answer, SaysWhatItLacks) {
  const Answer answer(Message{});
  EXPECT_THROW(answer.status(), std::runtime_error);
  EXPECT_THROW(answer.body(), std::runtime_error);
}

TEST(TemporaryDirectory, IsGoneWithItsObject) {
  std::string file;
  {
    const TemporaryDirectory directory;
    file = directory.write("deep/er.txt", "text");
    EXPECT_EQ(readFile(file), "text");
  }
  EXPECT_THROW(readFile(file), std::runtime_error);
}

}  // namespace
}  // namespace test_support
