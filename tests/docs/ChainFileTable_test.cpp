// docs/configuration.md, the chain file: each row against the reader and the program.
#include <functional>
#include <map>
#include <set>
#include <string>

#include <gtest/gtest.h>

#include "connectivity/value_access.hpp"
#include "host/chain/ChainFile.hpp"
#include "host/chain/ChainFileError.hpp"
#include "tests/docs/Markdown.hpp"
#include "tests/docs/Sandbox.hpp"
#include "tests/docs/Values.hpp"
#include "tests/support/Messages.hpp"

namespace docs_tests {
namespace {

using connectivity::get;
using host::ChainFile;

const std::string pageName = "docs/configuration.md";
constexpr std::string_view inChain = "chains[].";

const std::vector<Row>& rows() {
  static const Page page = readPage(pageName);
  return page.table("The chain file").rows;
}

// A chain file with the least that it must have, and this line in the place of the key; without
// the key itself where `line` is empty.
std::string chainFile(const std::string& key, const std::string& line) {
  const bool isChainKey = key.starts_with(inChain);
  const std::string name = isChainKey ? key.substr(inChain.size()) : key;
  std::string chain;
  for (const auto& [given, value] : std::map<std::string, std::string>{
           {"id", "a"}, {"name", "b"}, {"transport", "HTTPClient"}, {"config", "{host: x}"}}) {
    if (given != name) chain += given + ": " + value + ", ";
  }
  if (isChainKey && !line.empty()) chain += line;
  std::string file = name == "chains" ? "" : "chains: [{" + chain + "}]\n";
  if (!isChainKey && !line.empty()) file += line + "\n";
  return file.empty() ? "{}" : file;
}

// The error of a chain file, or empty.
std::string errorOf(const std::string& text) {
  try {
    host::parseChainFile(text, "chain.yaml");
    return {};
  } catch (const host::ChainFileError& error) {
    return error.what();
  }
}

std::string exampleOf(const Row& row) { return row.codes("example").at(0); }

TEST(ChainFileTable, ExamplesAreAcceptedByTheProgram) {
  const Sandbox sandbox;
  sandbox.write("requests.jsonl", "");
  for (const Row& row : rows()) {
    ASSERT_EQ(row.codes("example").size(), 1U) << row.place;
    const Outcome outcome = checkChainFile(sandbox, chainFile(row.name, exampleOf(row)));
    EXPECT_EQ(outcome.output, "OK\n") << row.place << ": " << outcome.errors;
    EXPECT_EQ(outcome.status, 0) << row.place;
  }
}

const char* nameOf(host::Codec codec) {
  return codec == host::Codec::Text ? "text" : codec == host::Codec::Json ? "json" : "none";
}

std::string shownLevels(const ChainFile& file) {
  std::string text;
  for (const auto& [category, level] : file.log.levels) {
    text += category + " " + std::to_string(level);
  }
  return text.empty() ? "empty" : text;
}

// What the reader has made of a key.
using Reading = std::function<std::string(const ChainFile&)>;
const std::map<std::string, Reading>& readings() {
  static const std::map<std::string, Reading> all{
      {"chains", [](const ChainFile& f) { return f.chains.at(0).id; }},
      {"chains[].id", [](const ChainFile& f) { return f.chains.at(0).id; }},
      {"chains[].name", [](const ChainFile& f) { return f.chains.at(0).name; }},
      {"chains[].transport", [](const ChainFile& f) { return f.chains.at(0).transport.text; }},
      {"chains[].library",
       [](const ChainFile& f) {
         const auto& library = f.chains.at(0).library;
         return library ? library->text : "absent";
       }},
      {"chains[].codec",
       [](const ChainFile& f) { return std::string(nameOf(f.chains.at(0).codec)); }},
      {"chains[].assignRequestIds",
       [](const ChainFile& f) {
         return std::string(f.chains.at(0).assignRequestIds ? "true" : "false");
       }},
      {"chains[].config",
       [](const ChainFile& f) {
         const auto* host = test_support::find(f.chains.at(0).config, {"host"});
         return host == nullptr ? std::string("empty") : std::string(host->text());
       }},
      {"chains[].input", [](const ChainFile& f) { return f.chains.at(0).input.text; }},
      {"chains[].output", [](const ChainFile& f) { return f.chains.at(0).output.text; }},
      {"log", [](const ChainFile& f) { return std::to_string(f.log.level); }},
      {"log.level", [](const ChainFile& f) { return std::to_string(f.log.level); }},
      {"log.levels", shownLevels},
      {"status",
       [](const ChainFile& f) {
         return f.status ? std::to_string(f.status->port) : std::string("absent");
       }},
      {"status.port",
       [](const ChainFile& f) { return f.status ? std::to_string(f.status->port) : "absent"; }},
      {"status.address",
       [](const ChainFile& f) { return f.status ? f.status->address : "127.0.0.1"; }},
  };
  return all;
}

// What each example says.
const std::map<std::string, std::string>& expectations() {
  static const std::map<std::string, std::string> all{
      {"chains", "orders"},
      {"chains[].id", "orders"},
      {"chains[].name", "shop"},
      {"chains[].transport", "HTTPClient"},
      {"chains[].library", "build/release/lib/libHTTPClient.so"},
      {"chains[].codec", "json"},
      {"chains[].assignRequestIds", "false"},
      {"chains[].config", "localhost"},
      {"chains[].input", "requests.jsonl"},
      {"chains[].output", "responses.jsonl"},
      {"log", std::to_string(QOR_LOG_WARN)},
      {"log.level", std::to_string(QOR_LOG_DEBUG)},
      {"log.levels", "connectivity.shop.orders " + std::to_string(QOR_LOG_TRACE)},
      {"status", "9090"},
      {"status.port", "0"},
      {"status.address", "::1"},
  };
  return all;
}

TEST(ChainFileTable, ExamplesAreReadAsWhatTheySay) {
  for (const Row& row : rows()) {
    ASSERT_TRUE(readings().contains(row.name)) << row.place << ": this test does not know the key";
    const ChainFile file = host::parseChainFile(chainFile(row.name, exampleOf(row)), "chain.yaml");
    EXPECT_EQ(readings().at(row.name)(file), expectations().at(row.name)) << row.place;
  }
}

TEST(ChainFileTable, TellsTheDefaults) {
  for (const Row& row : rows()) {
    const std::string text = row.text("default");
    const std::string without = chainFile(row.name, "");
    if (row.name == "status.port") {
      EXPECT_NE(errorOf(without + "status: {}").find("status.port: must be given"),
                std::string::npos);
    } else if (text == "required") {
      EXPECT_NE(errorOf(without).find("must be given"), std::string::npos) << row.place;
    } else if (row.name != "log") {
      const ChainFile file = host::parseChainFile(without, "chain.yaml");
      const std::string real = readings().at(row.name)(file);
      const auto codes = row.codes("default");
      const std::string level = std::to_string(host::logLevelNamed("info").value_or(0));
      const std::string told = codes.empty() ? text.substr(0, text.find(':')) : codes.front();
      EXPECT_EQ(real, row.name == "log.level" && told == "info" ? level : told) << row.place;
    }
  }
}

TEST(ChainFileTable, TellsTheAcceptedValues) {
  for (const Row& row : rows()) {
    const auto values = row.codes("type");
    if (values.size() < 2) continue;
    const std::string key = row.name.substr(row.name.rfind('.') + 1);
    const auto with = [&](const std::string& value) {
      const std::string line = key + ": " + value;
      return chainFile(row.name, row.name.starts_with("log.") ? "log: {" + line + "}" : line);
    };
    for (const std::string& value : values) EXPECT_EQ(errorOf(with(value)), "") << row.place;
    const std::string error = errorOf(with("other"));
    for (const std::string& value : values) {
      EXPECT_NE(error.find(value), std::string::npos) << row.place << ": " << error;
    }
  }
}

// Every text in the host's sources that the reader takes as a key, with its place.
std::set<std::string> acceptedKeys() {
  std::set<std::string> accepted;
  const auto knows = [](const std::string& text) {
    return errorOf(text).find("unknown key") == std::string::npos;
  };
  for (const std::string& key : keyLiteralsBelow({"host"})) {
    const std::string pair = "\"" + key + "\": {}";
    if (knows(chainFile("", "") + pair)) accepted.insert(key);
    if (knows(chainFile("chains[].x", pair))) accepted.insert("chains[]." + key);
    if (knows(chainFile("", "log: {" + pair + "}"))) accepted.insert("log." + key);
    if (knows(chainFile("", "status: {" + pair + "}"))) accepted.insert("status." + key);
  }
  return accepted;
}

TEST(ChainFileTable, HasExactlyTheKeysThatTheReaderAccepts) {
  auto accepted = acceptedKeys();
  for (const Row& row : rows()) {
    EXPECT_EQ(accepted.erase(row.name), 1U) << row.place << ": no such key, or twice";
  }
  for (const auto& key : accepted) ADD_FAILURE() << pageName << ": no row for the key " << key;
}

}  // namespace
}  // namespace docs_tests
