// docs/message-format.md: each row of its tables against the transport and the stand-alone host.
#include <algorithm>
#include <cctype>
#include <chrono>
#include <memory>
#include <set>
#include <stdexcept>
#include <string>

#include <gtest/gtest.h>

#include "connectivity/value_access.hpp"
#include "host/messages/JsonWriter.hpp"
#include "host/messages/MessageReader.hpp"
#include "tests/docs/Markdown.hpp"
#include "tests/docs/Values.hpp"
#include "tests/support/ChildProcess.hpp"
#include "tests/support/PluginUnderTest.hpp"
#include "tests/support/ScriptedServer.hpp"

namespace docs_tests {
namespace {

using connectivity::data_t;
using connectivity::get;
using connectivity::list_t;
using connectivity::map_t;
using connectivity::Message;
using test_support::Answer;
using test_support::Config;
using test_support::PluginUnderTest;
using test_support::ScriptedServer;

const Page& page() {
  static const Page messages = readPage("docs/message-format.md");
  return messages;
}

// Answers every request: /big with more than a kilobyte, /echo with the request's body, /slow after
// some seconds.
void serveEverything(test_support::Connection& connection) {
  while (const auto request = connection.readRequest()) {
    const bool big = request->target == "/big";
    if (request->target == "/slow" && !connection.linger(std::chrono::seconds(3))) return;
    connection.sendResponse(200, {{"Content-Type", "text/plain; charset=utf-8"}},
                            big                          ? std::string(3000, 'x')
                            : request->target == "/echo" ? request->body
                                                         : "items");
  }
}

// One message sent through the transport, and what is seen of it.
class Exchange {
 public:
  explicit Exchange(Message&& message)
      : _server(serveEverything), _plugin(Config(_server.port()).numClients(2)) {
    EXPECT_EQ(_plugin.send(std::move(message)), 0);
    const Answer answer = _plugin.waitForAnswers(1).front();
    _line = lineOf(answer.payload(), answer.metadata());
    _plugin.shutdown();
  }

  // What a cell says: sends, answers, refused:, logs or counts, each with a text between
  // backquotes.
  void expect(const Row& row, const std::string& column) {
    const auto all = statements(row.text(column));
    for (std::size_t i = 0; i < all.size(); ++i) {
      const auto& [verb, code] = all[i];
      if (verb == "sends") {
        expectSent(row, code);
      } else if (verb == "answers") {
        expectAnswer(row, code);
      } else if (verb == "refused:") {
        expectRefusal(row, code);
      } else if (verb == "logs") {
        EXPECT_TRUE(_plugin.log().contains(code)) << row.place << ": not in the log: " << code;
      } else if (verb == "counts") {
        ASSERT_LT(i + 1, all.size()) << row.place << ": counts `item` `number`";
        EXPECT_EQ(_plugin.statusItem(code), all[i + 1].code) << row.place;
      }
    }
  }

  void expectSent(const Row& row, const std::string& text) const {
    ASSERT_EQ(_server.requestCount(), 1U) << row.place << ": nothing was sent: " << _line;
    const std::string raw = _server.request(0).raw;
    // A line of the head or of a part's head, or the whole body.
    const bool isLine =
        ("\r\n" + lowerNames(raw) + "\r\n").find("\r\n" + text + "\r\n") != std::string::npos;
    EXPECT_TRUE(isLine || _server.request(0).body == text)
        << row.place << ": not sent: " << text << "\nbut\n"
        << raw;
  }

  void expectAnswer(const Row& row, const std::string& fragment) const {
    const data_t line = jsonOf(_line);
    EXPECT_TRUE(holds(*get<map_t>(line).findText("metadata"), jsonOf(fragment)))
        << row.place << ": not in the answer: " << fragment << "\nbut\n"
        << _line;
  }

  void expectRefusal(const Row& row, const std::string& text) const {
    EXPECT_EQ(_server.requestCount(), 0U) << row.place << ": it was sent";
    expectAnswer(row, R"("http": {"statusCode": 400, "contentType": "text/plain"})");
    const data_t line = jsonOf(_line);
    EXPECT_EQ(std::string(get<map_t>(line).findText("payload")->text()), text) << row.place;
  }

  const std::string& line() const { return _line; }

 private:
  // The names of header lines in lower case: of parts' heads they are not.
  static std::string lowerNames(std::string text) {
    for (std::size_t start = 0; start < text.size();) {
      const auto end = std::min(text.find("\r\n", start), text.size());
      const auto colon = text.find(": ", start);
      for (std::size_t i = start; colon < end && i < colon; ++i) {
        text[i] = static_cast<char>(std::tolower(static_cast<unsigned char>(text[i])));
      }
      start = end + 2;
    }
    return text;
  }

  ScriptedServer _server;
  PluginUnderTest _plugin;
  std::string _line;
};

// The code spans of an example: what goes into the metadata, and the payload, empty where the
// example has none.
struct Example {
  explicit Example(const Row& row) {
    for (const std::string& code : row.codes("example")) {
      data_t value = jsonOf(code);
      map_t& map = get<map_t>(value);
      if (code.starts_with("\"payload\":")) {
        payload = std::move(*map.findText("payload"));
      } else {
        fields = std::move(map);
      }
    }
  }
  map_t fields;
  data_t payload;
};

// A message of text or form payload, as the codec "text" makes it.
Message messageFrom(const data_t& payload, const map_t& metadata) {
  std::string line;
  host::JsonWriter writer(line);
  line += R"({"metadata":)";
  writer.write(metadata);
  line += R"(,"payload":)";
  writer.write(payload);
  return messageOf(line + "}");
}

map_t baseMetadata() {
  Message message = messageOf(page().fence("Metadata").text);
  return std::move(message.metadata);
}

enum class Level { Metadata, Http };

map_t& mapAt(map_t& metadata, Level level) {
  return level == Level::Metadata ? metadata : get<map_t>(*metadata.findText("http"));
}

void erase(map_t& map, const std::string& key) {
  for (auto entry = map.begin(); !entry.atEnd(); ++entry) {
    if (key == entry.key().text()) {
      map.erase(entry);
      return;
    }
  }
}

const std::vector<Row>& keyRows(Level level) {
  return page().table("Metadata", level == Level::Metadata ? 0 : 1).rows;
}

// --- Requests ------------------------------------------------------------------------------------

class RequestTable : public ::testing::TestWithParam<Level> {};

TEST_P(RequestTable, ExamplesDoWhatTheRowsSay) {
  for (const Row& row : keyRows(GetParam())) {
    SCOPED_TRACE(row.place);
    const Example example(row);
    EXPECT_NE(example.fields.findText(row.name.c_str()), nullptr) << "the example lacks the key";
    map_t metadata = baseMetadata();
    merge(mapAt(metadata, GetParam()), example.fields);
    EXPECT_FALSE(statements(row.text("what is seen")).empty()) << "nothing is seen";
    Exchange(messageFrom(example.payload, metadata)).expect(row, "what is seen");
  }
}

TEST_P(RequestTable, AnAbsentKeyDoesWhatTheRowsSay) {
  for (const Row& row : keyRows(GetParam())) {
    SCOPED_TRACE(row.place);
    const Example example(row);
    map_t metadata = baseMetadata();
    merge(mapAt(metadata, GetParam()), example.fields);
    erase(mapAt(metadata, GetParam()), row.name);
    Exchange(messageFrom(example.payload, metadata)).expect(row, "when absent");
  }
}

// "An optional key may be there with an empty value; that is the same as absent."
TEST_P(RequestTable, AnEmptyOptionalKeyCountsAsAbsent) {
  for (const Row& row : keyRows(GetParam())) {
    if (row.name == "requestId" || row.name == "method" || row.name == "path") continue;
    SCOPED_TRACE(row.place);
    const Example example(row);
    map_t metadata = baseMetadata();
    merge(mapAt(metadata, GetParam()), example.fields);
    test_support::put(mapAt(metadata, GetParam()), {row.name}, data_t());
    Exchange(messageFrom(example.payload, metadata)).expect(row, "when absent");
  }
}

std::string nameOfLevel(const ::testing::TestParamInfo<Level>& info) {
  return info.param == Level::Metadata ? "TopLevel" : "InsideHttp";
}
INSTANTIATE_TEST_SUITE_P(MessageFormat, RequestTable,
                         ::testing::Values(Level::Metadata, Level::Http), nameOfLevel);

data_t listValue() {
  list_t list;
  list.push_back(data_t("probe"));
  return data_t(std::move(list));
}

// Sends the base request with a list under one key, again and again, to see which keys are read.
class KeyProbe {
 public:
  KeyProbe() : _server(serveEverything), _plugin(Config(_server.port()).numClients(2)) {
    _baseline = lineWith("", Level::Metadata);
  }

  bool isReadAtTopLevel(const std::string& key) {
    const std::string line = lineWith(key, Level::Metadata);
    return line != _baseline || _plugin.log().contains(key + " set: ");
  }
  bool isReadInHttp(const std::string& key) { return lineWith(key, Level::Http) != _baseline; }

 private:
  std::string lineWith(const std::string& key, Level level) {
    map_t metadata = baseMetadata();
    if (!key.empty()) test_support::put(mapAt(metadata, level), {key}, listValue());
    EXPECT_EQ(_plugin.send(Message(data_t(), std::move(metadata))), 0);
    const Answer answer = _plugin.waitForAnswers(++_sent).back();
    return lineOf(answer.payload(), answer.metadata());
  }

  ScriptedServer _server;
  PluginUnderTest _plugin;
  std::size_t _sent = 0;
  std::string _baseline;
};

void expectSameKeys(const std::set<std::string>& real, const std::vector<Row>& rows,
                    const std::string& where) {
  std::set<std::string> documented;
  for (const Row& row : rows) EXPECT_TRUE(documented.insert(row.name).second) << row.place;
  for (const auto& key : real) {
    EXPECT_TRUE(documented.contains(key)) << page().name << ": no row for " << key << where;
  }
  for (const auto& key : documented) {
    EXPECT_TRUE(real.contains(key)) << page().name << ": nothing reads or writes " << key << where;
  }
}

TEST(RequestKeys, AreExactlyThoseThatTheTransportReads) {
  KeyProbe probe;
  std::set<std::string> topLevel;
  std::set<std::string> inHttp;
  for (const std::string& key : keyLiteralsBelow({"plugins/http_client"})) {
    if (probe.isReadAtTopLevel(key)) topLevel.insert(key);
    if (probe.isReadInHttp(key)) inHttp.insert(key);
  }
  expectSameKeys(topLevel, keyRows(Level::Metadata), " at the top level of requests");
  expectSameKeys(inHttp, keyRows(Level::Http), " in http of requests");
}

TEST(RequestKeys, OfAnotherTypeAreRefused) {
  for (const Row& row : keyRows(Level::Http)) {
    SCOPED_TRACE(row.place);
    map_t metadata = baseMetadata();
    test_support::put(mapAt(metadata, Level::Http), {row.name}, listValue());
    const Exchange exchange(Message(data_t(), std::move(metadata)));
    std::string type = row.text("type").substr(0, row.text("type").find_first_of(" ,"));
    if (type == "int64") type = "integer";
    const bool saysType = exchange.line().find(" must be a " + type) != std::string::npos ||
                          exchange.line().find(" must be an " + type) != std::string::npos;
    const bool isPolicy = exchange.line().find("Invalid maxResponsePolicy") != std::string::npos;
    EXPECT_TRUE(saysType || isPolicy) << "the type is not " << type << ": " << exchange.line();
    EXPECT_NE(exchange.line().find(row.name), std::string::npos) << exchange.line();
  }
}

// --- Forms ---------------------------------------------------------------------------------------

const std::string fileOfAForm =
    R"({"requestId": 1, "http": {"method": "POST", "path": "/items", "form": {}}})";

data_t filePayload() {
  return jsonOf(R"({"data": {"$binary": {"base64": "AAEC", "subType": "00"}}})");
}

TEST(FormTable, RowsDoWhatTheySay) {
  for (const Row& row : page().table("Forms", 1).rows) {
    SCOPED_TRACE(row.place);
    const Example example(row);
    data_t metadata = jsonOf(fileOfAForm);
    map_t& form = get<map_t>(*get<map_t>(*get<map_t>(metadata).findText("http")).findText("form"));
    merge(form, example.fields);
    Exchange(messageFrom(filePayload(), get<map_t>(metadata))).expect(row, "what is seen");
    erase(form, row.name);
    if (data_t* own = form.findText("data")) erase(get<map_t>(*own), row.name);
    Exchange(messageFrom(filePayload(), get<map_t>(metadata))).expect(row, "when absent");
  }
}

TEST(FormTable, HasExactlyTheKeysThatAreReadAsTexts) {
  std::set<std::string> real;
  for (const std::string& key : keyLiteralsBelow({"plugins/http_client"})) {
    data_t metadata = jsonOf(fileOfAForm);
    test_support::put(get<map_t>(metadata), {"http", "form", key}, listValue());
    if (key == "data") continue;
    const Exchange exchange(messageFrom(jsonOf(R"({"a": "1"})"), get<map_t>(metadata)));
    if (exchange.line().find("http.form." + key + " must be") != std::string::npos) {
      real.insert(key);
    }
  }
  expectSameKeys(real, page().table("Forms", 1).rows, " in form metadata");
}

// --- Responses -----------------------------------------------------------------------------------

std::string withCarriageReturns(const std::string& text) {
  std::string wire;
  for (const char c : text.substr(0, text.size() - 1)) {
    if (c == '\n') wire += '\r';
    wire += c;
  }
  return wire;
}

const Fence& example(const std::string& name) {
  const auto fence = std::ranges::find(page().fences, name, &Fence::example);
  if (fence == page().fences.end()) throw std::runtime_error("no example: " + name);
  return *fence;
}

// The answer to the example request of a section, from a server that answers with these bytes.
data_t answerTo(const std::string& request, const std::string& wire) {
  ScriptedServer server([&](test_support::Connection& connection) {
    connection.readRequest();
    connection.send(wire);
  });
  PluginUnderTest plugin{Config(server.port())};
  plugin.send(messageOf(example(request).text));
  const Answer answer = plugin.waitForAnswers(1).front();
  return jsonOf(lineOf(answer.payload(), answer.metadata()));
}

bool isOfType(const data_t& value, const std::string& type) {
  if (type == "string") return value.isString();
  if (type == "int64") return value.tag() == QOR_INT64;
  if (type.starts_with("map")) return value.tag() == QOR_MAP;
  return type.starts_with("as given");
}

void expectAnswerTable(const data_t& line, const std::string& heading) {
  const map_t& metadata = get<map_t>(*get<map_t>(line).findText("metadata"));
  const map_t& http = get<map_t>(*metadata.findText("http"));
  std::set<std::string> real;
  for (const auto entry : metadata) real.insert(std::string("top level ") + entry.first.text());
  for (const auto entry : http) real.insert(std::string("in `http` ") + entry.first.text());
  for (const Row& row : page().table(heading).rows) {
    const map_t& map = row.text("where") == "top level" ? metadata : http;
    const data_t* value = map.findText(row.name.c_str());
    ASSERT_NE(value, nullptr) << row.place << ": not in the answer";
    EXPECT_TRUE(isOfType(*value, row.text("type"))) << row.place << ": " << host::toJson(*value);
    const data_t expected = jsonOf(row.codes("example").at(0));
    EXPECT_TRUE(holds(*value, *get<map_t>(expected).findText(row.name.c_str())))
        << row.place << ": " << host::toJson(*value);
    EXPECT_EQ(real.erase(row.text("where") + " " + row.name), 1U) << row.place << ": twice";
  }
  for (const auto& key : real) {
    ADD_FAILURE() << page().name << ": " << heading << ": no row for the key " << key;
  }
}

TEST(ResponseTable, IsTheAnswerToItsExample) {
  const data_t line =
      answerTo("response request", withCarriageReturns(example("response wire").text));
  expectAnswerTable(line, "Responses");
  EXPECT_STREQ(get<map_t>(line).findText("payload")->text(), "hello");
}

TEST(ErrorResponseTable, IsTheAnswerToItsExample) {
  expectAnswerTable(answerTo("error request", ""), "Error responses");
}

// --- Refusals ------------------------------------------------------------------------------------

TEST(RefusalTable, TextsAreTheAnswersToTheirExamples) {
  const auto literals = literalsBelow({"plugins/http_client"});
  for (const Row& row : page().table("Refusals").rows) {
    SCOPED_TRACE(row.place);
    if (row.codes("example").empty()) {
      EXPECT_NE(std::ranges::find(literals, row.name), literals.end()) << "no such text";
      continue;
    }
    const Example example(row);
    map_t metadata;
    if (!row.codes("example").at(0).starts_with("{")) {
      metadata.insert(data_t("requestId"), data_t(1));
    }
    merge(metadata, example.fields);
    Exchange(messageFrom(example.payload, metadata)).expectRefusal(row, row.name);
  }
}

// --- Control messages and lines ------------------------------------------------------------------

TEST(ControlTable, HasTheKeysOfAFlush) {
  std::set<std::string> real;
  for (const std::string& key : keyLiteralsBelow({"plugins/http_client"})) {
    if (key.starts_with("qor.")) real.insert(key);
  }
  expectSameKeys(real, page().table("Control messages").rows, " of control messages");
}

TEST(ControlTable, DescribesAFlushThatIsReleasedAndNotAnswered) {
  const auto& rows = page().table("Control messages").rows;
  ScriptedServer server(serveEverything);
  PluginUnderTest plugin(Config(server.port()).numClients(2));
  auto released = std::make_shared<test_support::Event>("the flush object's release");
  Message flush = test_support::flushMessage(released);
  const data_t type = jsonOf(rows.at(0).codes("example").at(0));
  EXPECT_TRUE(*flush.metadata.findText(rows.at(0).name.c_str()) == type) << rows.at(0).place;
  EXPECT_EQ(flush.metadata.findText(rows.at(1).name.c_str())->tag(),
            static_cast<std::uint32_t>(QOR_CUSTOM));
  EXPECT_EQ(plugin.send(std::move(flush)), 0);
  released->wait();
  plugin.shutdown();
  EXPECT_EQ(plugin.answerCount(), 0U);
}

TEST(ControlTable, TellsWhatBecomesOfAFlushWithoutAnObject) {
  const Row& row = page().table("Control messages").rows.at(1);
  ScriptedServer server(serveEverything);
  PluginUnderTest plugin{Config(server.port())};
  map_t metadata;
  metadata.insert(data_t("qor.control.type"), data_t("QueueFlush"));
  EXPECT_EQ(plugin.send(Message(data_t(), std::move(metadata))), 1);
  EXPECT_TRUE(plugin.log().contains(row.codes("when absent").at(0))) << row.place;
}

TEST(LineTable, ExamplesComeBackAsTheRowsSay) {
  ScriptedServer server(serveEverything);
  const test_support::TemporaryDirectory folder;
  const std::string chain =
      folder.write("chain.yaml",
                   "chains: [{id: a, name: b, transport: HTTPClient, config: {host: 127.0.0.1, "
                   "port: " +
                       std::to_string(server.port()) + "}}]\n");
  for (const Row& row : page().table("Messages as JSON", 1).rows) {
    SCOPED_TRACE(row.place);
    test_support::ChildProcess program({test_support::hostProgram(), "run", chain});
    program.write(row.codes("example").at(0) + "\n");
    program.closeInput();
    program.wait();
    EXPECT_TRUE(holds(jsonOf(program.output()), jsonOf(row.codes("comes back").at(0))))
        << program.output() << program.errors();
  }
}

// The text of the error of a line, or empty.
std::string errorOfLine(const std::string& line) {
  try {
    host::MessageReader(host::Codec::Text, true).read(line, 1);
    return {};
  } catch (const host::InvalidLine& error) {
    return error.what();
  }
}

TEST(LineTable, HasExactlyTheKeysThatTheProgramReads) {
  std::set<std::string> real{"error"};
  for (const std::string& key : keyLiteralsBelow({"host/messages"})) {
    const bool isUnknown =
        errorOfLine("{\"" + key + "\": 1}").find("holds only") != std::string::npos;
    const bool isUnknownInControl =
        key == "control" ||
        errorOfLine("{\"control\": \"flush\", \"" + key + "\": 1}").find("holds only") !=
            std::string::npos;
    if (!isUnknown || !isUnknownInControl) real.insert(key);
  }
  expectSameKeys(real, page().table("Messages as JSON", 1).rows, " of lines");
}

}  // namespace
}  // namespace docs_tests
