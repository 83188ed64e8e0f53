// Messages that outlive the texts which they borrowed.
#include <string>
#include <utility>

#include <gtest/gtest.h>

#include "connectivity/value_access.hpp"
#include "host/messages/MessageWriter.hpp"
#include "host/messages/OwnedTexts.hpp"

namespace host {
namespace {

using connectivity::data_t;
using connectivity::list_t;
using connectivity::map_t;
using connectivity::Message;

std::string lineOf(const Message& message) {
  std::string line;
  MessageWriter(Codec::None, line).writeResponse(message);
  return line;
}

TEST(OwnTexts, KeepsEveryBorrowedTextWhereverItStands) {
  std::string text = "borrowed";
  list_t list;
  list.push_back(data_t::borrow(text.c_str()));
  map_t inner;
  inner.insert(data_t("list"), data_t(std::move(list)));
  map_t payload;
  payload.insert(data_t("inner"), data_t(std::move(inner)));
  map_t metadata;
  metadata.insert(data_t::borrow(text.c_str()), data_t(1));
  Message deep(data_t(std::move(payload)), map_t());
  Message keyed(data_t(), std::move(metadata));
  Message plain(data_t::borrow(text.c_str()), map_t());
  for (Message* message : {&deep, &keyed, &plain}) {
    const std::string before = lineOf(*message);
    ASSERT_NE(before.find("borrowed"), std::string::npos);
    ownTexts(*message);
    text.assign("changed!");
    EXPECT_EQ(lineOf(*message), before);
    text.assign("borrowed");
  }
}

TEST(OwnTexts, LeavesAMessageThatOwnsItsTextsAsItIs) {
  map_t metadata;
  metadata.insert(data_t("key"), data_t("text"));
  Message message(data_t("payload"), std::move(metadata));
  const char* const payload = message.payload.text();
  const auto* const table = message.metadata.table();
  ownTexts(message);
  EXPECT_EQ(message.payload.text(), payload);
  EXPECT_EQ(message.metadata.table(), table);
}

TEST(OwnTexts, LooksIntoAnyDepth) {
  std::string text = "borrowed";
  data_t value = data_t::borrow(text.c_str());
  for (int level = 0; level < 200000; ++level) {
    list_t list;
    list.push_back(std::move(value));
    value = data_t(std::move(list));
  }
  Message message(std::move(value), map_t());
  ownTexts(message);
  const data_t* innermost = &message.payload;
  while (innermost->tag() == QOR_LIST) innermost = &connectivity::get<list_t>(*innermost)[0];
  EXPECT_EQ(innermost->tag(), QOR_STRING);
}

}  // namespace
}  // namespace host
