// orrery-host run and check with the transport that is built beside the program, against servers
// on 127.0.0.1: what a user's requests become, from the line on standard input to the answer.
#include <chrono>
#include <csignal>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/host/HostProgram.hpp"
#include "tests/support/Event.hpp"
#include "tests/support/RealServers.hpp"
#include "tests/support/ScriptedProxy.hpp"
#include "tests/support/ScriptedServer.hpp"

namespace host_tests {
namespace {

using test_support::base64;
using test_support::Connection;
using test_support::Event;
using test_support::RealNginx;
using test_support::RecordedRequest;
using test_support::ScriptedServer;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

// A chain file without `library`: the program finds the transport by its name.
class HttpChainFile {
 public:
  // `config` holds further entries of the transport's map, "key: value, ..."; `more` further lines
  // of the chain.
  explicit HttpChainFile(int port, const std::string& config = {}, const std::string& more = {})
      : _path(_directory.write("chain.yaml",
                               "chains:\n"
                               "  - id: jobs\n"
                               "    name: main\n"
                               "    transport: HTTPClient\n"
                               "    config: {host: 127.0.0.1, port: " +
                                   std::to_string(port) + (config.empty() ? "" : ", ") + config +
                                   "}\n" + more)) {}

  const std::string& path() const { return _path; }

 private:
  const test_support::TemporaryDirectory _directory;
  const std::string _path;
};

// One input line; `http` and `metadata` hold further entries, as JSON.
std::string line(const std::string& id, const std::string& method, const std::string& path,
                 const std::string& payload = "null", const std::string& http = {},
                 const std::string& metadata = {}) {
  return R"({"metadata":{"requestId":)" + id + metadata + R"(,"http":{"method":")" + method +
         R"(","path":")" + path + "\"" + http + R"(}},"payload":)" + payload + "}\n";
}

std::string keyed(const std::string& key) { return R"(,"concurrencyControlKey":")" + key + "\""; }

std::vector<std::string> linesOf(const std::string& text) {
  std::vector<std::string> lines;
  for (std::size_t begin = 0; begin < text.size();) {
    const std::size_t end = text.find('\n', begin);
    lines.push_back(text.substr(begin, end - begin));
    begin = end == std::string::npos ? text.size() : end + 1;
  }
  return lines;
}

// What an answer's line holds for its id. The keys are in ascending order, and another follows.
std::string idMark(const std::string& id) { return "\"requestId\":" + id + ","; }

// The one answer with that id; a failure and nothing where there is none, or more than one.
std::string answerTo(const std::string& id, const std::string& output) {
  std::vector<std::string> answers;
  for (const std::string& each : linesOf(output)) {
    if (each.find(idMark(id)) != std::string::npos) answers.push_back(each);
  }
  EXPECT_EQ(answers.size(), 1U) << "answers to " << id << " in\n" << output;
  return answers.size() == 1 ? answers.front() : std::string();
}

// The ids of the answers that are numbers, in their order.
std::vector<int> idsIn(const std::string& output) {
  constexpr std::string_view mark = "\"requestId\":";
  std::vector<int> ids;
  for (const std::string& each : linesOf(output)) {
    const std::size_t place = each.find(mark);
    if (place != std::string::npos) ids.push_back(std::stoi(each.substr(place + mark.size())));
  }
  return ids;
}

// Answers each request with its method, target and body.
void echo(Connection& connection) {
  while (const auto request = connection.readRequest()) {
    connection.sendResponse(200, {{"Content-Type", "text/plain"}},
                            request->method + " " + request->target + " " + request->body);
  }
}

// The same, but "/stall" waits for the event.
ScriptedServer::Script echoWithStall(const Event& release) {
  return [&release](Connection& connection) {
    while (const auto request = connection.readRequest()) {
      if (request->target == "/stall") connection.stallUntil(release);
      connection.sendResponse(200, {{"Content-Type", "text/plain"}}, request->target);
    }
  };
}

// --- Requests and answers -----------------------------------------------------------------------

TEST(MainJob, AnswersEveryLineOnceAndTellsTheOneThatIsNoMessage) {
  ScriptedServer server(echo);
  const HttpChainFile chain(server.port());
  HostProgram program({"run", chain.path()});
  program.write(line("1", "GET", "/items?page=2") + "\n" +
                line("\"b\"", "POST", "/orders", "\"gr\xC3\xBC\xC3\x9F dich\"") + "   \n" +
                line("3", "PATCH", "/items") + "{\"metadata\":\n" +
                R"({"metadata":{"http":{"method":"DELETE","path":"/items/7"}}})" + "\n\n");
  EXPECT_EQ(program.finish(), 3);
  const std::string output = program.output();
  EXPECT_EQ(linesOf(output).size(), 5U) << output;
  EXPECT_THAT(answerTo("1", output), HasSubstr(R"("payload":"GET /items?page=2 ")"));
  EXPECT_THAT(answerTo("\"b\"", output),
              HasSubstr("\"payload\":\"POST /orders gr\xC3\xBC\xC3\x9F dich\""));
  const std::string refused = answerTo("3", output);
  EXPECT_THAT(refused, HasSubstr("\"statusCode\":400"));
  EXPECT_THAT(refused, HasSubstr("Invalid method (must be GET, PUT, POST or DELETE): PATCH"));
  EXPECT_THAT(output, HasSubstr(R"({"error":{"line":6,"text":"not valid JSON)"));
  EXPECT_THAT(answerTo("7", output), HasSubstr(R"("payload":"DELETE /items/7 ")"));
  EXPECT_EQ(server.requestCount(), 3U) << "a refused method is not sent";
  EXPECT_THAT(lastLine(program.errors()),
              HasSubstr("Done: sent 4, answered 4, failed 1, dropped 0, invalid lines 1"));
}

TEST(MainJob, RequestsOfOneKeyKeepTheirOrderAmongSeveralWorkers) {
  Event release("the end of the stall");
  ScriptedServer server(echoWithStall(release));
  const HttpChainFile chain(server.port(), "numClients: 4");
  HostProgram program({"run", chain.path()});
  std::vector<int> expected;
  std::string input;
  for (int i = 0; i < 200; ++i) {
    const std::string id = std::to_string(i);
    if (i < 4) {
      input += line(id, "GET", "/stall");
    } else if (i % 3 == 0) {
      expected.push_back(i);
      input += line(id, "GET", "/keyed/" + id, "null", "", keyed("order"));
    } else {
      input += line(id, "GET", "/free");
    }
  }
  program.write(input);
  // Each of the four is held by a worker of its own.
  server.waitForRequests(4);
  EXPECT_EQ(server.connectionCount(), 4U);
  release.set();
  EXPECT_EQ(program.finish(), 0);

  std::vector<int> received;
  for (const RecordedRequest& request : server.requests()) {
    if (request.target.starts_with("/keyed/"))
      received.push_back(std::stoi(request.target.substr(7)));
  }
  EXPECT_EQ(received, expected);
  std::vector<int> answered = idsIn(program.output());
  EXPECT_EQ(std::set<int>(answered.begin(), answered.end()).size(), 200U);
  EXPECT_EQ(answered.size(), 200U);
  std::erase_if(answered, [](int id) { return id < 4 || id % 3 != 0; });
  EXPECT_EQ(answered, expected);
}

TEST(MainJob, AFlushIsToldBehindTheAnswersToAllThatStoodBeforeIt) {
  Event release("the end of the stall");
  ScriptedServer server(echoWithStall(release));
  const HttpChainFile chain(server.port(), "numClients: 4");
  HostProgram program({"run", chain.path()});
  std::string input = line("0", "GET", "/stall");
  for (int i = 1; i < 8; ++i) input += line(std::to_string(i), "GET", "/before");
  input += "{\"control\":\"flush\",\"id\":\"hour\"}\n";
  for (int i = 8; i < 12; ++i) input += line(std::to_string(i), "GET", "/after");
  program.write(input);
  program.waitForOutput("\"payload\":\"/before\"", 7);
  EXPECT_THAT(program.output(), Not(HasSubstr("flushed")));
  EXPECT_THAT(program.output(), Not(HasSubstr("/after")));
  release.set();
  EXPECT_EQ(program.finish(), 0);

  const std::string output = program.output();
  const std::size_t flushed = output.find("{\"control\":\"flushed\",\"id\":\"hour\"}\n");
  ASSERT_NE(flushed, std::string::npos) << output;
  for (int i = 0; i < 8; ++i) {
    EXPECT_LT(output.find(idMark(std::to_string(i))), flushed) << i;
  }
  EXPECT_EQ(idsIn(output).size(), 12U);
}

TEST(MainJob, EveryOneOfThreeThousandRequestsIsAnsweredOnceByNginx) {
  if (!RealNginx::available()) GTEST_SKIP() << "nginx is not installed";
  const RealNginx nginx("location / { return 200 \"$request_uri\"; }");
  const HttpChainFile chain(nginx.port(), "numClients: 4");
  HostProgram program({"run", chain.path()});
  constexpr int howMany = 3000;
  for (int i = 0; i < howMany; ++i) {
    const std::string id = std::to_string(i);
    program.write(line(id, "GET", "/n/" + id, "null", "",
                       i % 2 == 0 ? keyed("customer " + std::to_string(i % 20)) : ""));
  }
  EXPECT_EQ(program.finish(), 0);
  const std::string output = program.output();
  const std::vector<int> ids = idsIn(output);
  const std::set<int> different(ids.begin(), ids.end());
  EXPECT_EQ(ids.size(), 3000U);
  EXPECT_EQ(different.size(), 3000U);
  for (const std::string& each : linesOf(output)) {
    const std::string id = std::to_string(idsIn(each).at(0));
    EXPECT_THAT(each, HasSubstr("\"payload\":\"/n/" + id + "\"}"));
  }
  EXPECT_THAT(lastLine(program.errors()),
              HasSubstr("Done: sent 3000, answered 3000, failed 0, dropped 0"));
}

// --- Codecs -------------------------------------------------------------------------------------

TEST(MainJobCodec, JsonPayloadsGoOutAsJsonTextAndComeBackParsed) {
  ScriptedServer server;
  server.answer("/x",
                {200, {{"Content-Type", "application/json"}}, R"({"b":[1, 2.5,null],"a":"x"})"});
  const HttpChainFile chain(server.port(), "", "    codec: json\n");
  HostProgram program({"run", chain.path()});
  program.write(line("1", "POST", "/x", R"({"item": 5, "all": [true, null]})"));
  EXPECT_EQ(program.finish(), 0);
  const RecordedRequest request = server.request(0);
  EXPECT_EQ(request.body, R"({"all":[true,null],"item":5})");
  EXPECT_EQ(request.header("content-type"), "application/json");
  EXPECT_THAT(answerTo("1", program.output()),
              HasSubstr(R"("payload":{"a":"x","b":[1,2.5,null]}})"));
}

TEST(MainJobCodec, NoneLeavesBuffersAsTheirBase64Form) {
  ScriptedServer server(echo);
  const HttpChainFile chain(server.port(), "", "    codec: none\n");
  HostProgram program({"run", chain.path()});
  program.write(line("1", "PUT", "/x", R"({"$binary":{"base64":"AAEC/w==","subType":"00"}})") +
                line("2", "PUT", "/x", "\"a text\""));
  EXPECT_EQ(program.finish(), 0);
  EXPECT_EQ(server.request(0).body, std::string("\0\x01\x02\xFF", 4));
  EXPECT_THAT(
      answerTo("1", program.output()),
      HasSubstr(R"("payload":{"$binary":{"base64":")" +
                base64(std::string("PUT /x \0\x01\x02\xFF", 11)) + R"(","subType":"00"}}})"));
  EXPECT_THAT(answerTo("2", program.output()), HasSubstr("did you mean to use the StringCodec"));
  EXPECT_EQ(server.requestCount(), 1U) << "a text is refused without a codec";
}

TEST(MainJobCodec, AFormGoesOutUrlEncodedUnderCodecText) {
  ScriptedServer server(echo);
  const HttpChainFile chain(server.port());
  HostProgram program({"run", chain.path()});
  program.write(line("1", "POST", "/form", R"({"city":"Z\u00fcrich & Genf"})", R"(,"form":{})"));
  EXPECT_EQ(program.finish(), 0);
  EXPECT_THAT(server.request(0).header("content-type").value_or(""),
              StartsWith("application/x-www-form-urlencoded"));
  EXPECT_EQ(server.request(0).body, "city=Z%C3%BCrich%20%26%20Genf");
}

TEST(MainJobCodec, TextWritesABodyThatIsNoTextAsItsBase64Form) {
  ScriptedServer server;
  server.answer("/x", {200, {}, "\xFF\xFE"});
  const HttpChainFile chain(server.port());
  HostProgram program({"run", chain.path()});
  program.write(line("1", "GET", "/x"));
  EXPECT_EQ(program.finish(), 0);
  EXPECT_THAT(answerTo("1", program.output()),
              HasSubstr(R"("payload":{"$binary":{"base64":"//4=","subType":"00"}}})"));
}

// --- Signals ------------------------------------------------------------------------------------

TEST(MainJobSignals, TheFirstWaitsForTheAnswerThatIsStillToCome) {
  Event release("the end of the stall");
  ScriptedServer server(echoWithStall(release));
  const HttpChainFile chain(server.port());
  HostProgram program({"run", chain.path()});
  program.write(line("1", "GET", "/stall") + line("2", "GET", "/next"));
  server.waitForRequests(1);
  program.signal(SIGTERM);
  program.waitForErrors("Stopping: reading no further");
  EXPECT_TRUE(program.running());
  EXPECT_EQ(program.output(), "");
  release.set();
  // The input is still open.
  EXPECT_EQ(program.wait(), 0);
  EXPECT_THAT(answerTo("1", program.output()), HasSubstr("\"payload\":\"/stall\""));
  EXPECT_THAT(answerTo("2", program.output()), HasSubstr("\"payload\":\"/next\""));
  EXPECT_THAT(lastLine(program.errors()),
              HasSubstr("Done: sent 2, answered 2, failed 0, dropped 0"));
}

TEST(MainJobSignals, TheSecondDropsWhatIsQueuedBehindTheRequestUnderWay) {
  Event release("the end of the stall");
  ScriptedServer server(echoWithStall(release));
  // One worker has them all to do; the end of the other shows that the queue has ended.
  const HttpChainFile chain(server.port(), "numClients: 2");
  HostProgram program({"run", chain.path(), "--log-level", "debug"});
  std::string input = line("0", "GET", "/stall", "null", "", keyed("one"));
  for (int i = 1; i < 6; ++i) {
    input += line(std::to_string(i), "GET", "/queued", "null", "", keyed("one"));
  }
  program.write(input);
  server.waitForRequests(1);
  program.signal(SIGTERM);
  program.waitForErrors("Stopping: reading no further");
  program.signal(SIGTERM);
  program.waitForErrors("Stopping at once");
  program.waitForErrors("This queue has been terminated");
  release.set();
  EXPECT_EQ(program.wait(), 0);
  EXPECT_EQ(server.requestCount(), 1U);
  EXPECT_THAT(lastLine(program.errors()),
              HasSubstr("WARN  [host] Done: sent 6, answered 1, failed 0, dropped 5"));
}

// A byte now and then, so that no time-out ends it.
TEST(MainJobSignals, TheSecondGivesUpARequestWhoseServerTrickles) {
  ScriptedServer server([](Connection& connection) {
    if (!connection.readRequest()) return;
    connection.send("HTTP/1.1 200 OK\r\nContent-Length: 1000\r\n\r\n");
    connection.drip(std::string(1000, 'x'), std::chrono::milliseconds(100));
  });
  const HttpChainFile chain(server.port(), "numClients: 1");
  HostProgram program({"run", chain.path()});
  program.write(line("1", "GET", "/long") + line("2", "GET", "/queued"));
  server.waitForRequests(1);
  program.signal(SIGTERM);
  program.waitForErrors("Stopping: reading no further");
  const auto second = std::chrono::steady_clock::now();
  program.signal(SIGTERM);
  EXPECT_EQ(program.wait(), 0);
  EXPECT_LE(std::chrono::steady_clock::now() - second, std::chrono::seconds(5));
  EXPECT_EQ(program.output(), "");
  EXPECT_THAT(lastLine(program.errors()),
              HasSubstr("WARN  [host] Done: sent 2, answered 0, failed 0, dropped 2"));
}

// --- Check --------------------------------------------------------------------------------------

TEST(MainJobCheck, PrintsOkForAGoodChainWithoutCallingItsServer) {
  ScriptedServer server(echo);
  const HttpChainFile chain(server.port(), "numClients: 4, cookieJar: false");
  HostProgram program({"check", chain.path()});
  EXPECT_EQ(program.finish(), 0);
  EXPECT_EQ(program.output(), "OK\n");
  EXPECT_EQ(program.errors(), "");
  EXPECT_EQ(server.connectionCount(), 0U);
}

struct WrongOption {
  const char* config;
  const char* reason;
};

class MainJobCheckWrongOption : public testing::TestWithParam<WrongOption> {};

TEST_P(MainJobCheckWrongOption, EndsWith1AndTheReasonAndPrintsNoPassword) {
  const std::string password = "authentication: {username: u, password: topsecret}, ";
  const HttpChainFile chain(1, password + GetParam().config);
  HostProgram program({"check", chain.path()});
  EXPECT_EQ(program.finish(), 1);
  EXPECT_EQ(program.output(), "");
  EXPECT_THAT(program.errors(), HasSubstr(GetParam().reason));
  EXPECT_THAT(program.errors(), Not(HasSubstr("topsecret")));
}

INSTANTIATE_TEST_SUITE_P(
    Options, MainJobCheckWrongOption,
    testing::Values(WrongOption{"numClient: 4", "Unknown configuration element numClient"},
                    WrongOption{"numClients: 0", "numClients \"0\" is not in the range at least 1"},
                    WrongOption{"proxy: {host: p, port: 1, authentication: {passwort: topsecret}}",
                                "Unknown configuration element passwort"},
                    WrongOption{
                        "proxy: {host: p, port: 1, authentication: {password: [topsecret]}}",
                        "proxy/authentication/password must be a string but it's actually list"}));

// --- Passwords ----------------------------------------------------------------------------------

TEST(MainJobPasswords, AreNotInTheLogAtItsMostTalkativeLevel) {
  const std::string credentials = "Aladdin:open sesame!";
  const std::string proxyCredentials = "Ali:forty thieves";
  test_support::ProxyOptions options;
  options.credentials = proxyCredentials;
  const test_support::ScriptedProxy proxy(options);
  ScriptedServer server(echo);
  const HttpChainFile chain(server.port(),
                            "authentication: {authenticationType: HTTP_BASIC, username: Aladdin, "
                            "password: open sesame!}, proxy: {host: 127.0.0.1, port: " +
                                std::to_string(proxy.port()) +
                                ", authentication: {authenticationType: HTTP_BASIC, username: Ali, "
                                "password: forty thieves}}");
  HostProgram program({"run", chain.path(), "--log-level", "trace"});
  program.write(line("1", "POST", "/x", "\"body\"") + line("2", "PATCH", "/x"));
  EXPECT_EQ(program.finish(), 0);
  EXPECT_EQ(proxy.request(0).header("authorization"), "Basic " + base64(credentials));
  EXPECT_EQ(proxy.request(0).header("proxy-authorization"), "Basic " + base64(proxyCredentials));
  const std::string log = program.errors();
  EXPECT_THAT(log, HasSubstr("<hidden>")) << "headers are logged at this level";
  for (const std::string& secret :
       {std::string("open sesame!"), std::string("forty thieves"), base64(credentials),
        base64(proxyCredentials), base64("open sesame!")}) {
    EXPECT_THAT(log, Not(HasSubstr(secret)));
  }
}

}  // namespace
}  // namespace host_tests
