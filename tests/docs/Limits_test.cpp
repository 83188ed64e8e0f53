// docs/limits.md: each number is that of the sources, and no limit of the transport is missing.
#include <algorithm>
#include <cctype>
#include <map>
#include <regex>
#include <set>
#include <string>
#include <string_view>

#include <gtest/gtest.h>

#include "tests/docs/Markdown.hpp"
#include "tests/docs/Values.hpp"
#include "tests/support/TemporaryDirectory.hpp"

namespace docs_tests {
namespace {

const std::string transport = "plugins/http_client/";

// Where a limit stands in the sources.
struct Constant {
  std::string file;
  std::string name;
};

// By the beginning of what the page says.
const std::map<std::string, Constant>& constants() {
  static const std::map<std::string, Constant> all{
      {"the head", {transport + "wire/HeadReader.hpp", "maxResponseHead"}},
      {"empty lines", {transport + "wire/HeadReader.hpp", "maxLeadingBytes"}},
      {"interim responses", {transport + "wire/ResponseHeadReading.hpp", "maxInterimResponses"}},
      {"the line of a chunk", {transport + "wire/ResponseBody.cpp", "maxChunkLine"}},
      {"the trailers", {transport + "wire/ResponseBody.cpp", "maxTrailers"}},
      {"what is left of a body behind its limit",
       {transport + "wire/HttpSession.hpp", "drainBytes"}},
      {"the time for that", {transport + "wire/HttpSession.hpp", "drainTime"}},
      {"what is left of a body behind the end",
       {transport + "wire/HttpSession.cpp", "littleBytes"}},
      {"redirects", {transport + "request/Request.hpp", "redirectLimit"}},
      {"how much of a malformed", {transport + "wire/HeadReader.cpp", "shownBytes"}},
      {"cookies in the jar", {transport + "shared/Cookies.hpp", "mostCookies"}},
      {"a cookie: ", {transport + "shared/Cookies.hpp", "mostBytesOfACookie"}},
      {"the jar's part", {transport + "shared/Cookies.hpp", "mostBytesSent"}},
      {"lists and maps in each other, in the payload",
       {transport + "request/RequestReading.hpp", "maxNesting"}},
      {"elements in the transport's queue", {transport + "dispatch/AffinityQueue.hpp", "capacity"}},
      {"`numClients`", {transport + "config/ConfiguredOptions.hpp", "mostClients"}},
      {"a kept connection", {transport + "wire/HttpSession.hpp", "keepAlive"}},
      {"each wait", {transport + "exchange/SessionHome.cpp", "maxTimeoutSecs"}},
      {"a whole request", {transport + "request/RequestReading.cpp", "mostSeconds"}},
      {"certificates between", {transport + "wire/TlsContexts.cpp", "verificationDepth"}},
      {"a worker's buffer", {transport + "exchange/Exchange.cpp", "keptBufferBytes"}},
      {"servers that redirects led to", {transport + "wire/TlsContexts.cpp", "maxContexts"}},
      {"lists and maps in each other, in a line", {"host/messages/JsonReader.cpp", "maxDepth"}},
      {"values that the aliases", {"host/chain/YamlAliases.hpp", "maxAliasedNodes"}},
      {"keys that are no texts", {"host/messages/JsonReader.cpp", "maxOtherKeys"}},
      {"the same in a chain file", {"host/chain/YamlValues.cpp", "maxDepth"}},
      {"requests that are read ahead", {"host/chain/BoundedQueue.hpp", "items"}},
      {"the bytes of either", {"host/chain/BoundedQueue.hpp", "bytes"}},
  };
  return all;
}

// Rows whose number is an option's, another row's, or that of a type.
bool hasNoConstant(const std::string& what) {
  static const std::set<std::string> all{"fields in a head; a name, a value, a reason", "a body",
                                         "a body without `maxResponseKB`", "a cookie's lifetime"};
  return all.contains(what);
}

// The value that the sources give a constant: `name = 16384;`, `name{8};` or with a shift.
long long valueOf(const Constant& constant) {
  const std::string source = test_support::readFile(projectFile(constant.file));
  const std::regex definition("\\b" + constant.name +
                              R"((?: = |\{)(?:std::size_t\{1\} << ([0-9]+)U|([0-9]+)))");
  std::smatch match;
  EXPECT_TRUE(std::regex_search(source, match, definition))
      << constant.file << ": no " << constant.name;
  if (match.empty()) return -1;
  return match[1].matched ? 1LL << std::stoi(match[1]) : std::stoll(match[2]);
}

// The last number in "262,144 bytes", "1 MiB" or "`timeoutSecs`, and that 2,147,483 s; none...".
long long numberIn(const std::string& text) {
  static const std::regex number("([0-9][0-9,]*)( MiB)?");
  std::smatch match;
  if (!std::regex_search(text, match, number)) return -1;
  std::string digits = match[1];
  std::erase(digits, ',');
  return std::stoll(digits) * (match[2].matched ? 1LL << 20 : 1);
}

TEST(LimitTable, TellsTheNumbersOfTheSources) {
  std::set<std::string> met;
  for (const Table& table : readPage("docs/limits.md").tables) {
    for (const Row& row : table.rows) {
      const std::string what = row.text("what");
      if (hasNoConstant(what)) continue;
      const auto known = std::ranges::find_if(
          constants(), [&](const auto& entry) { return what.starts_with(entry.first); });
      ASSERT_NE(known, constants().end()) << row.place << what << ": this test does not know it";
      EXPECT_EQ(numberIn(row.text("at most")), valueOf(known->second)) << row.place << what;
      met.insert(known->first);
    }
  }
  EXPECT_EQ(met.size(), constants().size()) << "a limit has no row";
}

// Constants that are called a maximum.
TEST(LimitTable, HasEveryLimitOfTheTransport) {
  static const std::regex limit(R"(constexpr [^;=]*\b((?:max|most)[A-Z][A-Za-z]*)(?: = |\{))");
  // How many pieces leave in one system call: not to be noticed.
  std::set<std::string> known{"maxPieces"};
  for (const auto& [what, constant] : constants()) known.insert(constant.name);
  std::size_t found = 0;
  for (const std::string& source : sourcesBelow({"plugins/http_client"})) {
    for (auto it = std::sregex_iterator(source.begin(), source.end(), limit);
         it != std::sregex_iterator(); ++it, ++found) {
      EXPECT_TRUE(known.contains((*it)[1])) << "docs/limits.md: no row for " << (*it)[1];
    }
  }
  EXPECT_GE(found, 10U) << "the sources are not read as they should be";
}

// The texts of failures and refusals stand in the sources.
TEST(LimitTable, QuotesWhatTheTransportSays) {
  static const std::regex quote("(?:failure|refused:) `([^`…]+)`");
  static const std::regex kind("^(Malformed message|SSL Exception): ");
  const auto literals = literalsBelow({"plugins/http_client"});
  std::size_t checked = 0;
  for (const Table& table : readPage("docs/limits.md").tables) {
    for (const Row& row : table.rows) {
      const std::string beyond = row.text("beyond it");
      std::smatch match;
      if (!std::regex_search(beyond, match, quote)) continue;
      const std::string text = std::regex_replace(match[1].str(), kind, "");
      const bool stands = std::ranges::any_of(literals, [&](const std::string& literal) {
        return literal == text || (literal.starts_with(" ") && text.ends_with(literal));
      });
      EXPECT_TRUE(stands) << row.place << ": no such text: " << text;
      ++checked;
    }
  }
  EXPECT_GE(checked, 7U);
}

}  // namespace
}  // namespace docs_tests
