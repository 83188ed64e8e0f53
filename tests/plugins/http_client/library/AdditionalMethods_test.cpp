// Methods beyond those that are always accepted, where the configuration names them.
#include <optional>
#include <string>

#include <gtest/gtest.h>

#include "tests/plugins/http_client/Expectations.hpp"
#include "tests/support/PluginUnderTest.hpp"
#include "tests/support/ScriptedServer.hpp"

namespace test_support {
namespace {

Config accepting(int port, const std::string& methods) {
  return Config(port).numClients(1).set("additionalMethods", methods);
}

// --- What is sent -------------------------------------------------------------------------------

TEST(AdditionalMethod, IsSentWithItsBody) {
  ScriptedServer server(answerWithTarget);
  PluginUnderTest plugin(accepting(server.port(), "PATCH,OPTIONS"));
  for (const char* const method : {"PATCH", "OPTIONS"}) {
    const Answer answer = plugin.request(Request(method, "/x").body("change"));
    EXPECT_EQ(answer.status(), 200) << answer.reason();
    const RecordedRequest sent = lastRequest(server);
    EXPECT_EQ(sent.method, method);
    EXPECT_EQ(sent.body, "change");
    EXPECT_EQ(sent.header("content-length"), "6");
    EXPECT_EQ(answer.text("http/method"), method);
  }
}

TEST(AdditionalMethod, WithoutABodySaysLengthZeroAsPutDoes) {
  ScriptedServer server(answerWithTarget);
  PluginUnderTest plugin(accepting(server.port(), "PATCH"));
  plugin.request(Request("PATCH", "/x"));
  EXPECT_EQ(lastRequest(server).header("content-length"), "0");
}

TEST(AdditionalMethod, CarriesAForm) {
  ScriptedServer server(answerWithTarget);
  PluginUnderTest plugin(accepting(server.port(), "PATCH"));
  plugin.request(Request("PATCH", "/x").field("a", "b c"));
  const RecordedRequest sent = lastRequest(server);
  EXPECT_EQ(sent.header("content-type"), "application/x-www-form-urlencoded");
  EXPECT_EQ(sent.body, "a=b%20c");
}

TEST(AdditionalMethod, IsCompressedAsItIsAsked) {
  ScriptedServer server(answerWithTarget);
  PluginUnderTest plugin(accepting(server.port(), "PATCH"));
  plugin.request(
      Request("PATCH", "/x").body(std::string(5000, 'x')).header("Content-Encoding", "gzip"));
  const RecordedRequest sent = lastRequest(server);
  EXPECT_EQ(sent.header("content-encoding"), "gzip");
  EXPECT_LT(sent.body.size(), 1000U);
}

TEST(AdditionalMethod, IsRepeatedAndRedirectedLikePut) {
  ScriptedServer server({[](Connection& connection) { connection.readRequest(); },
                         [](Connection& connection) {
                           for (const int status : {302, 307, 303}) {
                             connection.readRequest();
                             connection.sendResponse(status, {{"Location", "/next"}});
                           }
                           answerWithTarget(connection);
                         }});
  PluginUnderTest plugin(accepting(server.port(), "PATCH"));
  EXPECT_EQ(plugin.request(Request("PATCH", "/x").body("change")).body(), "/next");
  ASSERT_EQ(server.requestCount(), 5U);
  for (const std::size_t index : {0U, 1U, 2U, 3U}) {
    EXPECT_EQ(server.request(index).method, "PATCH") << index;
    EXPECT_EQ(server.request(index).body, "change") << index;
  }
  EXPECT_EQ(server.request(4).method, "GET");
  EXPECT_EQ(server.request(4).body, "");
}

// --- What is not --------------------------------------------------------------------------------

TEST(AdditionalMethod, IsRefusedWhereItIsNotNamed) {
  ScriptedServer server(answerWithTarget);
  PluginUnderTest plugin(accepting(server.port(), "PATCH"));
  for (const char* const method : {"OPTIONS", "patch", "PATCHES", "PAT", "", "CONNECT"}) {
    const Answer answer = plugin.request(Request(method, "/x"));
    expectError(answer);
    EXPECT_TRUE(answer.reason().starts_with("Invalid method")) << answer.reason();
  }
  EXPECT_EQ(server.connectionCount(), 0U);
}

TEST(AdditionalMethod, IsRefusedWithoutTheOption) {
  ScriptedServer server(answerWithTarget);
  PluginUnderTest plugin{Config(server.port())};
  for (const std::string method : {"PATCH", "OPTIONS", "CONNECT"}) {
    expectError(plugin.request(Request(method.c_str(), "/x")),
                "Invalid method (must be GET, PUT, POST or DELETE): " + method);
  }
}

TEST(AdditionalMethod, ThatIsAcceptedAnywayChangesNothing) {
  ScriptedServer server(answerWithTarget);
  PluginUnderTest plugin(accepting(server.port(), "DELETE,PATCH,HEAD,PUT"));
  plugin.request(Request("DELETE", "/x").body("dropped"));
  EXPECT_EQ(lastRequest(server).body, "");
  EXPECT_EQ(lastRequest(server).header("content-length"), std::nullopt);
  EXPECT_EQ(plugin.request(Request("HEAD", "/missing")).body(), "");
}

// --- The option ---------------------------------------------------------------------------------

TEST(AdditionalMethods, MayHaveBlanksAroundTheCommas) {
  ScriptedServer server(answerWithTarget);
  PluginUnderTest plugin(accepting(server.port(), " PATCH , OPTIONS,  X-NEW "));
  for (const char* const method : {"PATCH", "OPTIONS", "X-NEW"}) {
    EXPECT_EQ(plugin.request(Request(method, "/x")).status(), 200) << method;
    EXPECT_EQ(lastRequest(server).method, method);
  }
}

TEST(AdditionalMethods, MayBeEmpty) { EXPECT_EQ(creationFailure(accepting(80, "")), std::nullopt); }

TEST(AdditionalMethods, ThatAreNoneFailTheCreation) {
  for (const char* const methods :
       {"CONNECT", "PATCH,CONNECT", "patch", "Patch", "PATCH,options", "PA TCH", "PATCH/1",
        "PATCH;OPTIONS", "PATCH\n", "\u00c4", "PATCH OPTIONS"}) {
    const auto failure = creationFailure(accepting(80, methods));
    ASSERT_TRUE(failure.has_value()) << methods;
    EXPECT_TRUE(failure->starts_with("HTTPClient configuration additionalMethods")) << *failure;
  }
}

}  // namespace
}  // namespace test_support
