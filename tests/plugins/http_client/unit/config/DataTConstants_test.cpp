// The prepared keys: their texts, and that looking one up finds it under either kind of string.
#include "plugins/http_client/config/DataTConstants.hpp"

#include <array>

#include <gtest/gtest.h>

namespace connectivity::plugins {
namespace {

TEST(DataTConstants, HoldTheTextsOfRequestsAndResponses) {
  const DataTConstants constants;
  const std::array<std::pair<const Constant*, const char*>, 24> expected{{
      {&constants.charset, "charset"},
      {&constants.contentType, "contentType"},
      {&constants.cookies, "cookies"},
      {&constants.headers, "headers"},
      {&constants.http, "http"},
      {&constants.method, "method"},
      {&constants.path, "path"},
      {&constants.queryString, "queryString"},
      {&constants.requestId, "requestId"},
      {&constants.statusCode, "statusCode"},
      {&constants.statusReason, "statusReason"},
      {&constants.textPlain, "text/plain"},
      {&constants.utf8, "utf-8"},
      {&constants.form, "form"},
      {&constants.emptyString, ""},
      {&constants.requestSentTime, "requestSentTime"},
      {&constants.maxResponseKB, "maxResponseKB"},
      {&constants.maxResponsePolicy, "maxResponsePolicy"},
      {&constants.deadlineSecs, "deadlineSecs"},
      {&constants.failure, "failure"},
      {&constants.controlType, "qor.control.type"},
      {&constants.controlObject, "qor.controlObject"},
      {&constants.concurrencyControlKey, "concurrencyControlKey"},
      {&constants.concurrencyControlFlush, "concurrencyControlFlush"},
  }};
  for (const auto& [constant, text] : expected) {
    EXPECT_STREQ(constant->text, text);
    EXPECT_STREQ(constant->value.text(), text);
    EXPECT_EQ(constant->value.tag(), QOR_STRING);
    EXPECT_EQ(constant->hash, hashes::hash(constant->value));
  }
}

TEST(DataTConstants, FindAKeyThatTheHostOwnsOrLends) {
  const Constant key("key");
  map_t owned;
  owned.insert(data_t("key"), data_t(1LL));
  EXPECT_NE(key.in(owned), nullptr);
  map_t lent;
  lent.insert(data_t::borrow("key"), data_t(1LL));
  EXPECT_NE(key.in(lent), nullptr);
  const map_t none;
  EXPECT_EQ(key.in(none), nullptr);
}

}  // namespace
}  // namespace connectivity::plugins
