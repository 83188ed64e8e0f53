// docs/message-format.md: the texts of failures, the headers that are always sent, and how values
// look as JSON.
#include <algorithm>
#include <array>
#include <cctype>
#include <optional>
#include <regex>
#include <set>
#include <string>

#include <gtest/gtest.h>

#include "connectivity/value_access.hpp"
#include "host/messages/JsonReader.hpp"
#include "host/messages/JsonWriter.hpp"
#include "tests/docs/Markdown.hpp"
#include "tests/docs/Texts.hpp"
#include "tests/docs/Values.hpp"
#include "tests/support/PluginUnderTest.hpp"
#include "tests/support/ScriptedServer.hpp"

namespace docs_tests {
namespace {

using connectivity::data_t;
using connectivity::map_t;
using test_support::Answer;
using test_support::Config;
using test_support::PluginUnderTest;
using test_support::ScriptedServer;

const Page& page() {
  static const Page messages = readPage("docs/message-format.md");
  return messages;
}

// --- Failures ------------------------------------------------------------------------------------

// Bytes with "\\r", "\\n" and "\\t" written out.
std::string wireOf(const std::string& text) {
  std::string wire = std::regex_replace(text, std::regex(R"(\\r)"), "\r");
  wire = std::regex_replace(wire, std::regex(R"(\\n)"), "\n");
  return std::regex_replace(wire, std::regex(R"(\\t)"), "\t");
}

std::string reasonAfter(const std::string& wire, const std::string& option) {
  ScriptedServer server([&](test_support::Connection& connection) {
    const bool isRedirect = wire.find("Location") != std::string::npos;
    do {
      if (!connection.readRequest()) return;
      connection.send(wire);
    } while (isRedirect);
    if (wire.empty()) connection.awaitPeerClose();
  });
  Config config(server.port());
  const map_t options = configOf(option.empty() ? "{}" : option);
  for (const auto entry : options) config.set(entry.first.text(), entry.second.copy());
  PluginUnderTest plugin(config);
  const Answer answer = plugin.request(test_support::Request("GET", "/"));
  EXPECT_TRUE(answer.isError());
  EXPECT_EQ(plugin.statusItem(".status"), "FAILED");
  return answer.reason();
}

// Without what a library's exception is called: "Timeout: The server..." -> "The server...".
std::string withoutKind(const std::string& text) {
  static const std::regex kind("^[A-Z][A-Za-z]*( [A-Za-z]+)*: ");
  return std::regex_replace(text, kind, "");
}

TEST(FailureTable, TextsAreTheAnswersToTheirExamples) {
  auto literals = literalsBelow({"plugins/http_client"});
  literals.emplace_back("Connection refused");  // the library's
  std::size_t provoked = 0;
  for (const Row& row : page().table("Failures").rows) {
    SCOPED_TRACE(row.place);
    std::string wire;
    std::string option;
    for (const std::string& code : row.codes("example")) {
      (code.find("\\r\\n") != std::string::npos ? wire : option) = code;
    }
    if (wire.empty() && option.empty()) {
      for (const std::string& text : row.codes("text")) {
        EXPECT_TRUE(isQuotedFrom(literals, withoutKind(text))) << "no such text: " << text;
      }
      continue;
    }
    const std::string reason = reasonAfter(wireOf(wire), option);
    EXPECT_TRUE(matches(reason, row.name)) << reason;
    ++provoked;
  }
  EXPECT_GE(provoked, 15U);
}

// The marks, as the sources have them.
TEST(KindTable, HasExactlyTheMarksOfTheTransport) {
  static const std::regex mark("\\{FailureKind::[^}]*\"([A-Za-z]+)\"\\}");
  std::set<std::string> real;
  for (const std::string& source : sourcesBelow({"plugins/http_client/response"})) {
    for (auto it = std::sregex_iterator(source.begin(), source.end(), mark);
         it != std::sregex_iterator(); ++it) {
      real.insert((*it)[1]);
    }
  }
  std::set<std::string> documented;
  for (const Row& row : page().table("Kinds of failure").rows) {
    EXPECT_TRUE(documented.insert(row.name).second) << row.place << ": twice";
    EXPECT_FALSE(row.text("what happened").empty()) << row.place;
  }
  EXPECT_EQ(documented, real);
}

// --- What counts as a response -------------------------------------------------------------------

TEST(AcceptedTable, ExamplesAreDeliveredAsTheRowsSay) {
  std::size_t checked = 0;
  for (const Row& row : page().table("What counts as a response").rows) {
    SCOPED_TRACE(row.place);
    const std::string wire = wireOf(row.codes("the server sends").at(0));
    ScriptedServer server([&](test_support::Connection& connection) {
      connection.readRequest();
      connection.send(wire);
    });
    PluginUnderTest plugin{Config(server.port())};
    const Answer answer = plugin.request(test_support::Request("GET", "/"));
    EXPECT_FALSE(answer.isError()) << answer.reason();
    const data_t line = jsonOf(lineOf(answer.payload(), answer.metadata()));
    const data_t expected = jsonOf(row.codes("the host receives").at(0));
    EXPECT_TRUE(holds(*connectivity::get<map_t>(line).findText("metadata"), expected))
        << host::toJson(line);
    ++checked;
  }
  EXPECT_GE(checked, 8U);
}

// --- Values of lines and headers -----------------------------------------------------------------

const char* kindName(const data_t& value) {
  constexpr std::array<const char*, 11> kinds{"empty",   "bool",   "double", "int64",
                                              "decimal", "string", "list",   "map",
                                              "buffer",  "custom", "string"};
  return kinds.at(value.tag());
}

TEST(JsonTable, ExamplesAreOfTheirKindsAndComeBack) {
  for (const Row& row : page().table("Messages as JSON").rows) {
    const std::string example = row.codes("example").at(0);
    const data_t value = host::JsonReader(host::JsonReader::Forms::Extended).read(example);
    const std::string kind = row.text("value").substr(0, row.text("value").find(' '));
    EXPECT_EQ(kindName(value), kind) << row.place;
    const std::string written = host::toJson(value);
    const data_t again = host::JsonReader(host::JsonReader::Forms::Extended).read(written);
    EXPECT_EQ(host::toJson(again), written) << row.place;
  }
}

TEST(HeaderTable, TellsWhatIsSentWhereTheRequestGivesNone) {
  ScriptedServer server;
  PluginUnderTest plugin{Config(server.port())};
  plugin.request(test_support::Request("GET", "/"));
  const auto request = server.request(0);
  for (const Row& row : page().table("Headers").rows) {
    const auto codes = row.codes("value where the request gives none");
    if (codes.empty() && row.name != "host") {
      EXPECT_EQ(request.header(row.name), std::nullopt) << row.place;
    } else if (row.name == "host") {
      EXPECT_EQ(request.header("host"), "127.0.0.1:" + std::to_string(server.port()));
    } else {
      EXPECT_EQ(request.header(row.name), codes.at(0)) << row.place;
    }
  }
  for (const auto& [name, value] : request.headers) {
    std::string lower = name;
    std::ranges::transform(lower, lower.begin(), [](unsigned char c) { return std::tolower(c); });
    const auto& rows = page().table("Headers").rows;
    EXPECT_NE(std::ranges::find(rows, lower, &Row::name), rows.end())
        << page().name << ": no row for the header " << name;
  }
}

}  // namespace
}  // namespace docs_tests
