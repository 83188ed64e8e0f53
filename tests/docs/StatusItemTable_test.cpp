// docs/status-items.md: each row against the items of a transport, before, during and after a run.
#include <algorithm>
#include <map>
#include <set>
#include <sstream>
#include <string>

#include <gtest/gtest.h>

#include "tests/docs/Markdown.hpp"
#include "tests/docs/Values.hpp"
#include "tests/support/PluginUnderTest.hpp"
#include "tests/support/ScriptedServer.hpp"

namespace docs_tests {
namespace {

using test_support::Config;
using test_support::PluginUnderTest;
using test_support::ScriptedServer;

const Page& page() {
  static const Page items = readPage("docs/status-items.md");
  return items;
}

const std::vector<Row>& rows() { return page().table("Status items").rows; }

void serveTheExample(test_support::Connection& connection) {
  while (const auto request = connection.readRequest()) {
    const bool known = request->target == "/echo" || request->target == "/items";
    connection.sendResponse(known ? 200 : 404, {},
                            request->target == "/items" ? "items" : request->body);
  }
}

// The transport of the page's example, as the host's status pages see it.
class Example {
 public:
  Example()
      : _server(serveTheExample), _plugin(Config(_server.port()).numClients(4), shopOrders()) {
    _before = _plugin.status().items();
    std::istringstream lines(page().fence("Status items").text);
    std::size_t answers = 0;
    for (std::string line; std::getline(lines, line);) {
      EXPECT_EQ(_plugin.send(messageOf(line)), 0) << line;
      _plugin.waitForAnswers(++answers);
    }
    _plugin.shutdown();
    _after = _plugin.status().items();
  }

  const std::map<std::string, std::string>& after() const { return _after; }
  // The text that the item was made with.
  std::string first(const std::string& key) { return _plugin.status().history(key).front(); }

 private:
  static test_support::PluginOptions shopOrders() {
    test_support::PluginOptions options;
    options.pluginName = "shop";
    options.chainId = "orders";
    return options;
  }

  ScriptedServer _server;
  PluginUnderTest _plugin;
  std::map<std::string, std::string> _before;
  std::map<std::string, std::string> _after;
};

std::string keyOf(const Row& row) { return "shop.orders" + row.name; }

bool isNumber(const std::string& text) {
  return !text.empty() && std::ranges::all_of(text, [](char c) { return c >= '0' && c <= '9'; });
}

TEST(StatusItemTable, HasExactlyTheItemsThatTheTransportMakes) {
  const Example example;
  std::set<std::string> made;
  for (const auto& [key, text] : example.after()) made.insert(key);
  for (const Row& row : rows()) {
    EXPECT_EQ(made.erase(keyOf(row)), 1U) << row.place << ": no such item, or twice";
  }
  for (const auto& key : made) ADD_FAILURE() << page().name << ": no row for the item " << key;
  EXPECT_EQ(rows().size(), 16U);
}

TEST(StatusItemTable, TellsWhatTheItemsStartWith) {
  Example example;
  for (const Row& row : rows()) {
    const auto start =
        row.text("starts at") == "the example" ? row.codes("example") : row.codes("starts at");
    ASSERT_FALSE(start.empty()) << row.place;
    EXPECT_TRUE(matches(example.first(keyOf(row)), start.front()))
        << row.place << ": starts with " << example.first(keyOf(row));
  }
}

TEST(StatusItemTable, ExamplesAreTheValuesAfterTheRun) {
  const Example example;
  for (const Row& row : rows()) {
    ASSERT_EQ(statements(row.text("example")).size(), 1U) << row.place;
    const auto [about, expected] = statements(row.text("example")).front();
    const std::string& actual = example.after().at(keyOf(row));
    if (about == "about") {
      EXPECT_TRUE(isNumber(actual) && isNumber(expected)) << row.place << ": " << actual;
    } else {
      EXPECT_TRUE(matches(actual, expected)) << row.place << ": " << actual;
    }
    if (row.text("unit") == "percent") {
      EXPECT_LE(std::stoi(actual), 100) << row.place;
    }
    EXPECT_EQ(isNumber(actual), row.text("unit") != "text") << row.place << ": " << actual;
  }
}

TEST(StatusItemTable, NamesTheUnitThatTheSuffixNames) {
  const std::map<std::string, std::string> endings{
      {"ms", "Millis"}, {"bytes", "Bytes"}, {"percent", "Percent"}};
  for (const Row& row : rows()) {
    for (const auto& [unit, ending] : endings) {
      EXPECT_EQ(row.name.ends_with(ending), row.text("unit") == unit) << row.place;
    }
  }
}

TEST(StatusItemTable, CountsTheRowsAsTheyAreMade) {
  int number = 0;
  for (const Row& row : rows()) EXPECT_EQ(row.text("#"), std::to_string(++number)) << row.place;
}

// Items 4 to 11, 14 and 15.
TEST(StatusItemTable, TellsWhichItemsAreKeyPerformanceIndicators) {
  const Example example;
  std::string keys;
  for (const Row& row : rows()) {
    const int number = std::stoi(row.text("#"));
    if ((number < 4 || number > 11) && number != 14 && number != 15) continue;
    keys += (keys.empty() ? "" : ",") + keyOf(row);
  }
  EXPECT_EQ(example.after().at("shop.orders.KPIs"), keys);
  EXPECT_NE(rows().back().text("meaning").find("items 4 to 11, 14 and 15"), std::string::npos);
}

TEST(StatusItemSigns, NameItemsThatExist) {
  std::set<std::string> known;
  for (const Row& row : rows()) known.insert(row.name);
  for (const Row& row : page().table("When to worry").rows) {
    for (const std::string& column : page().table("When to worry").columns) {
      for (const std::string& code : row.codes(column)) {
        if (code.starts_with(".")) {
          EXPECT_TRUE(known.contains(code)) << row.place << ": " << code;
        }
      }
    }
  }
}

}  // namespace
}  // namespace docs_tests
