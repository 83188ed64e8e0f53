// A long run of requests of every kind, in which many go wrong on purpose, with several workers,
// several hundred keys and two senders. What each request looks like, what the server does with it
// and what must come back are computed from its number alone.
//
// ORRERY_MIXED_RUN_REQUESTS sets how many there are, for builds in which 20,000 take too long.
#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/Coders.hpp"
#include "tests/support/PluginUnderTest.hpp"
#include "tests/support/ScriptedServer.hpp"

namespace test_support {
namespace {

constexpr int defaultRequests = 20'000;
constexpr int senders = 2;
constexpr int keysOfASender = 150;
constexpr int batchSize = 250;
constexpr int workers = 6;

int requestsOfTheRun() {
  const char* const given = std::getenv("ORRERY_MIXED_RUN_REQUESTS");
  return given == nullptr ? defaultRequests : std::stoi(given);
}

// --- What follows from a number -----------------------------------------------------------------

// splitmix64
std::uint64_t mixed(std::uint64_t number) {
  number += 0x9E3779B97F4A7C15U;
  number = (number ^ (number >> 30U)) * 0xBF58476D1CE4E5B9U;
  number = (number ^ (number >> 27U)) * 0x94D049BB133111EBU;
  return number ^ (number >> 31U);
}

// 0 .. below-1; `salt` makes one number's choices independent.
int choice(int number, int salt, int below) {
  const auto seed = static_cast<std::uint64_t>(number) * 64 + static_cast<std::uint64_t>(salt);
  return static_cast<int>(mixed(seed) % static_cast<std::uint64_t>(below));
}

std::string text(int number) { return std::to_string(number); }

std::string lines(int number, int howMany) {
  std::string all;
  for (int line = 0; line < howMany; ++line) {
    all += "line " + text(line) + " of request " + text(number) + "\n";
  }
  return all;
}

// Mostly short, now and then some 100 kB.
std::string content(int number) {
  const bool large = choice(number, 1, 300) == 0;
  return lines(number, large ? 4000 : choice(number, 2, 40));
}

std::string bytes(int number) {
  std::string all(static_cast<std::size_t>(choice(number, 3, 2000)), '\0');
  auto state = static_cast<std::uint64_t>(number);
  for (char& byte : all) byte = static_cast<char>(state = mixed(state));
  return all;
}

// "/n/<number>", and a step behind it where a request has several.
std::string path(int number) { return "/n/" + text(number); }
std::string path(int number, int step) { return path(number) + "/" + text(step); }

// --- Kinds of request ---------------------------------------------------------------------------

// A request as it arrived at the server.
struct Arrival {
  int number;
  int step;
  int attempt;  // the how manieth arrival of this number, from 1
  const RecordedRequest& request;
};

struct Expected {
  int status = 200;
  std::string body;
  std::string reason = "OK";  // empty: any
  bool error = false;         // the transport's own answer, not the server's
  int arrivals = 1;
  std::string cookie = {};  // the answer's cookie "seen"
};

struct Kind {
  const char* name;
  int weight;
  Request (*request)(int number);
  // False where the connection ends with it.
  bool (*serve)(Connection& connection, const Arrival& arrival);
  Expected (*expected)(int number);
};

Expected success(std::string body) {
  Expected expected;
  expected.body = std::move(body);
  return expected;
}

Expected error(int status, const std::string& reason, int arrivals = 1) {
  return {status, reason, reason, true, arrivals};
}

HeaderList headersOf(int number, HeaderList more = {}) {
  more.emplace_back("X-Number", text(number));
  return more;
}

Request get(int number) { return {"GET", path(number).c_str()}; }
Request getSteps(int number) { return {"GET", path(number, 0).c_str()}; }
Request postSteps(int number) {
  return Request("POST", path(number, 0).c_str()).body(bytes(number));
}
Request post(int number) { return Request("POST", path(number).c_str()).body(bytes(number)); }
Request post1(int number) { return Request("POST", path(number).c_str()).body("1"); }

bool sendContent(Connection& connection, const Arrival& arrival) {
  connection.sendResponse(200, headersOf(arrival.number), content(arrival.number));
  return true;
}
bool echo(Connection& connection, const Arrival& arrival) {
  connection.sendResponse(200, headersOf(arrival.number), arrival.request.body);
  return true;
}
bool sendCookies(Connection& connection, const Arrival& arrival) {
  connection.sendResponse(200, headersOf(arrival.number),
                          arrival.request.header("cookie").value_or("none"));
  return true;
}
bool redirect(Connection& connection, int status, int step, HeaderList more = {}) {
  more.emplace_back("Location", text(step));
  connection.sendResponse(status, more, "moved");
  return true;
}
bool closeUnanswered(Connection& /*connection*/, const Arrival& /*arrival*/) { return false; }

Expected itsContent(int number) { return success(content(number)); }
Expected itsBytes(int number) { return success(bytes(number)); }
Expected cutShort(int /*number*/) {
  return error(400, "Error processing response stream: I/O error");
}

int redirectsOf(int number) { return 1 + choice(number, 4, 4); }

// Sent whole or as a form, coded or not.
void addUploads(std::vector<Kind>& all) {
  all.push_back({"Echo", 20, post, echo, itsBytes});
  all.push_back({"Put", 10, [](int n) { return Request("PUT", path(n).c_str()).body(bytes(n)); },
                 echo, itsBytes});
  all.push_back({"CodedUpload", 6, [](int n) { return post(n).header("Content-Encoding", "gzip"); },
                 [](Connection& connection, const Arrival& arrival) {
                   connection.sendResponse(200, headersOf(arrival.number),
                                           gunzip(arrival.request.body));
                   return true;
                 },
                 itsBytes});
  all.push_back({"UrlForm", 6,
                 [](int n) { return Request("POST", path(n).c_str()).form().field("n", text(n)); },
                 echo, [](int n) { return success("n=" + text(n)); }});
  all.push_back(
      {"MultipartForm", 6,
       [](int n) { return Request("POST", path(n).c_str()).form().file("f", bytes(n)); },
       [](Connection& connection, const Arrival& arrival) {
         const bool whole = arrival.request.body.find(bytes(arrival.number)) != std::string::npos;
         connection.sendResponse(200, headersOf(arrival.number), whole ? "whole" : "broken");
         return true;
       },
       [](int) { return success("whole"); }});
}

void addPlainAnswers(std::vector<Kind>& all) {
  all.push_back({"Get", 30, get, sendContent, itsContent});
  all.push_back({"Delete", 8, [](int n) { return Request("DELETE", path(n).c_str()); }, sendContent,
                 itsContent});
  all.push_back({"Head", 8, [](int n) { return Request("HEAD", path(n).c_str()); },
                 [](Connection& connection, const Arrival& arrival) {
                   connection.send(
                       responseHead(200, headersOf(arrival.number, {{"Content-Length", "12345"}})));
                   return true;
                 },
                 [](int) { return success(""); }});
  all.push_back({"NoContent", 5, get,
                 [](Connection& connection, const Arrival& arrival) {
                   connection.send(responseHead(204, headersOf(arrival.number)));
                   return true;
                 },
                 [](int) {
                   return Expected{204, "", "No Content"};
                 }});
  all.push_back({"ServerError", 6, get,
                 [](Connection& connection, const Arrival& arrival) {
                   connection.sendResponse(500, headersOf(arrival.number), "went wrong");
                   return true;
                 },
                 [](int) {
                   return Expected{500, "went wrong", "Internal Server Error"};
                 }});
  all.push_back({"Interim", 4, get,
                 [](Connection& connection, const Arrival& arrival) {
                   connection.send("HTTP/1.1 103 Early Hints\r\nLink: </x>\r\n\r\n");
                   return sendContent(connection, arrival);
                 },
                 itsContent});
}

void addFramingsAndCodings(std::vector<Kind>& all) {
  all.push_back({"Chunked", 10, get,
                 [](Connection& connection, const Arrival& arrival) {
                   connection.sendChunked(200, headersOf(arrival.number),
                                          {content(arrival.number) + "and", " then", " the end"},
                                          {{"T", "v"}});
                   return true;
                 },
                 [](int n) { return success(content(n) + "and then the end"); }});
  all.push_back({"Gzip", 10, get,
                 [](Connection& connection, const Arrival& arrival) {
                   connection.sendChunked(200,
                                          headersOf(arrival.number, {{"Content-Encoding", "gzip"}}),
                                          {gzip(content(arrival.number))});
                   return true;
                 },
                 itsContent});
  all.push_back({"Deflate", 5, get,
                 [](Connection& connection, const Arrival& arrival) {
                   connection.sendResponse(
                       200, headersOf(arrival.number, {{"Content-Encoding", "deflate"}}),
                       zlib(content(arrival.number)));
                   return true;
                 },
                 itsContent});
  all.push_back({"UnsupportedCoding", 2, get,
                 [](Connection& connection, const Arrival& arrival) {
                   connection.sendResponse(200,
                                           headersOf(arrival.number, {{"Content-Encoding", "br"}}),
                                           "HTTP/1.1 200 OK\r\nContent-Length: 6\r\n\r\nforged");
                   return true;
                 },
                 [](int) { return success("Unsupported Media Type: br"); }});
  all.push_back({"UntilTheEnd", 2, get,
                 [](Connection& connection, const Arrival& arrival) {
                   connection.send(responseHead(200, headersOf(arrival.number)) +
                                   content(arrival.number));
                   return false;
                 },
                 itsContent});
  all.push_back(
      {"LastOfItsConnection", 3, get,
       [](Connection& connection, const Arrival& arrival) {
         connection.sendResponse(200, headersOf(arrival.number, {{"Connection", "close"}}), "bye");
         return false;
       },
       [](int) { return success("bye"); }});
}

void addCookiesAndRedirects(std::vector<Kind>& all) {
  all.push_back({"Cookies", 6, [](int n) { return get(n).cookie("own", text(n)); },
                 [](Connection& connection, const Arrival& arrival) {
                   const std::string line =
                       "seen=" + text(arrival.number) + "; Path=" + path(arrival.number);
                   connection.sendResponse(200, headersOf(arrival.number, {{"Set-Cookie", line}}),
                                           arrival.request.header("cookie").value_or("none"));
                   return true;
                 },
                 [](int n) {
                   Expected expected = success("own=" + text(n));
                   expected.cookie = text(n);
                   return expected;
                 }});
  all.push_back({"CookieOfARedirect", 4, getSteps,
                 [](Connection& connection, const Arrival& arrival) {
                   if (arrival.step == 1) return sendCookies(connection, arrival);
                   // A name of its own: the jar holds one cookie of a name, whatever its path, and
                   // such requests run side by side.
                   const std::string line = "step" + text(arrival.number) + "=" +
                                            text(arrival.number) +
                                            "; Path=" + path(arrival.number, 1);
                   return redirect(connection, 302, 1, {{"Set-Cookie", line}});
                 },
                 [](int n) {
                   Expected expected = success("step" + text(n) + "=" + text(n));
                   expected.arrivals = 2;
                   return expected;
                 }});
  all.push_back({"Redirects", 6, getSteps,
                 [](Connection& connection, const Arrival& arrival) {
                   if (arrival.step == redirectsOf(arrival.number)) {
                     return sendContent(connection, arrival);
                   }
                   return redirect(connection, 301, arrival.step + 1);
                 },
                 [](int n) {
                   Expected expected = itsContent(n);
                   expected.arrivals = 1 + redirectsOf(n);
                   return expected;
                 }});
  all.push_back({"SeeOther", 4, postSteps,
                 [](Connection& connection, const Arrival& arrival) {
                   if (arrival.step == 0) return redirect(connection, 303, 1);
                   connection.sendResponse(200, headersOf(arrival.number),
                                           arrival.request.method + arrival.request.body);
                   return true;
                 },
                 [](int) {
                   Expected expected = success("GET");
                   expected.arrivals = 2;
                   return expected;
                 }});
  all.push_back({"RedirectedBody", 4, postSteps,
                 [](Connection& connection, const Arrival& arrival) {
                   if (arrival.step == 0) return redirect(connection, 307, 1);
                   return echo(connection, arrival);
                 },
                 [](int n) {
                   Expected expected = itsBytes(n);
                   expected.arrivals = 2;
                   return expected;
                 }});
  all.push_back(
      {"RedirectLoop", 1, getSteps,
       [](Connection& connection, const Arrival&) { return redirect(connection, 302, 0); },
       [](int) { return error(400, "Maximum redirects exceeded", 10); }});
}

void addLimits(std::vector<Kind>& all) {
  const auto sendLong = [](Connection& connection, const Arrival& arrival) {
    connection.sendResponse(200, headersOf(arrival.number), lines(arrival.number, 200));
    return true;
  };
  all.push_back({"Rejected", 4, [](int n) { return get(n).limit(1).policy("REJECT"); }, sendLong,
                 [](int) {
                   return error(413,
                                "Response exceeded maxResponseKB, with maxResponsePolicy set to "
                                "REJECT");
                 }});
  all.push_back({"CutAtTheEnd", 4, [](int n) { return get(n).limit(1).policy("TRUNCATE_END"); },
                 sendLong,
                 [](int n) {
                   std::string kept = lines(n, 200).substr(0, 1000);
                   if (!kept.ends_with('\n')) kept.resize(kept.rfind('\n'));
                   return success(kept + "[TRUNCATED]");
                 }});
  // To the letter of its arithmetic: what stood behind the tail in the read's buffer are zeros.
  all.push_back({"CutAtTheStart", 2, [](int n) { return get(n).limit(1).policy("TRUNCATE_START"); },
                 sendLong,
                 [](int n) {
                   const std::string whole = lines(n, 200);
                   const std::size_t dropped = whole.size() - 1000;
                   const std::string tail = whole.substr(dropped);
                   const std::string kept = tail.substr(tail.find('\n'));
                   return success("[TRUNCATED]" + kept + std::string(102'399 - whole.size(), '\0'));
                 }});
  all.push_back(
      {"TailOfALongBody", 1, [](int n) { return get(n).limit(1).policy("TRUNCATE_START"); },
       [](Connection& connection, const Arrival& arrival) {
         connection.sendResponse(200, headersOf(arrival.number), lines(arrival.number, 5000));
         return true;
       },
       [](int n) {
         const std::string whole = lines(n, 5000);
         const std::string tail = whole.substr(whole.size() - 1000);
         return success("[TRUNCATED]" + tail.substr(tail.find('\n')));
       }});
  all.push_back({"WithinItsLimit", 3, [](int n) { return get(n).limit(1000).policy("REJECT"); },
                 sendContent, itsContent});
}

void addFaults(std::vector<Kind>& all) {
  all.push_back({"ClosedOnce", 2, post,
                 [](Connection& connection, const Arrival& arrival) {
                   return arrival.attempt > 1 && echo(connection, arrival);
                 },
                 [](int n) {
                   Expected expected = itsBytes(n);
                   expected.arrivals = 2;
                   return expected;
                 }});
  all.push_back({"ResetOnce", 2, post1,
                 [](Connection& connection, const Arrival& arrival) {
                   if (arrival.attempt > 1) return echo(connection, arrival);
                   connection.reset();
                   return false;
                 },
                 [](int) {
                   Expected expected = success("1");
                   expected.arrivals = 2;
                   return expected;
                 }});
  all.push_back({"ClosedTwice", 1, get, closeUnanswered, [](int) { return error(400, "", 2); }});
  all.push_back({"ShortBody", 2, get,
                 [](Connection& connection, const Arrival&) {
                   connection.send("HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\ntoo short");
                   return false;
                 },
                 cutShort});
  all.push_back({"NoLastChunk", 2, get,
                 [](Connection& connection, const Arrival&) {
                   connection.send(
                       "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n3\r\nabc\r\n");
                   return false;
                 },
                 cutShort});
  all.push_back(
      {"CorruptGzip", 2, get,
       [](Connection& connection, const Arrival& arrival) {
         std::string body = gzip(std::string(3000, 'x') + "and an end");
         body[body.size() / 2] = static_cast<char>(~body[body.size() / 2]);
         connection.sendResponse(200, headersOf(arrival.number, {{"Content-Encoding", "gzip"}}),
                                 body);
         return true;
       },
       [](int) { return error(400, "Error processing response stream: Serious I/O error"); }});
}

void addRefusals(std::vector<Kind>& all) {
  const auto nobody = [](Connection& /*connection*/, const Arrival& arrival) {
    ADD_FAILURE() << "Request " << arrival.number << " should not have been sent";
    return false;
  };
  all.push_back({"UnknownMethod", 1, [](int n) { return Request("PATCH", path(n).c_str()); },
                 nobody,
                 [](int) {
                   return error(400, "Invalid method (must be GET, PUT, POST or DELETE): PATCH", 0);
                 }});
  all.push_back({"BrokenEscape", 1, [](int n) { return Request("GET", (path(n) + "%zz").c_str()); },
                 nobody, [](int) { return error(400, "", 0); }});
  all.push_back(
      {"UnsupportedUploadCoding", 1, [](int n) { return post(n).header("Content-Encoding", "br"); },
       nobody,
       [](int) { return error(400, "Unsupported Content-Encoding, dropping HTTP request.", 0); }});
}

std::vector<Kind> makeKinds() {
  std::vector<Kind> all;
  addUploads(all);
  addPlainAnswers(all);
  addFramingsAndCodings(all);
  addCookiesAndRedirects(all);
  addLimits(all);
  addFaults(all);
  addRefusals(all);
  return all;
}

const std::vector<Kind>& kinds() {
  static const std::vector<Kind> all = makeKinds();
  return all;
}

// Each kind as often as its weight says.
const Kind& kindOf(int number) {
  static const std::vector<const Kind*> weighted = [] {
    std::vector<const Kind*> all;
    for (const Kind& kind : kinds()) {
      all.insert(all.end(), static_cast<std::size_t>(kind.weight), &kind);
    }
    return all;
  }();
  return *weighted[static_cast<std::size_t>(choice(number, 5, static_cast<int>(weighted.size())))];
}

// --- The run ------------------------------------------------------------------------------------

// A sender's numbers and keys are its own: the even ones, or the odd ones.
int senderOf(int number) { return number % senders; }

// None for one request in eight.
std::optional<int> keyOf(int number) {
  if (choice(number, 6, 8) == 0) return std::nullopt;
  return choice(number, 7, keysOfASender) * senders + senderOf(number);
}

bool flushesFirst(int number) { return choice(number, 8, 500) == 0; }

Request requestOf(int number) {
  Request request = kindOf(number).request(number);
  request.id(number).set("requestSentTime", data_t(static_cast<long long>(number) * 3));
  if (const auto key = keyOf(number)) request.key("key " + text(*key));
  if (flushesFirst(number)) request.flush();
  return request;
}

// Answers each arrival as its number says, and notes when it came.
class MixedServer {
 public:
  explicit MixedServer(int requests)
      : _attempts(static_cast<std::size_t>(requests)),
        _places(static_cast<std::size_t>(requests)) {}

  int port() const { return _server.port(); }
  int arrivals(int number) const { return _attempts[static_cast<std::size_t>(number)].load(); }
  // The place of its first arrival among all first arrivals; 0: none.
  int place(int number) const { return _places[static_cast<std::size_t>(number)].load(); }

 private:
  void serve(Connection& connection) {
    while (const auto request = connection.readRequest()) {
      const Arrival arrival = read(*request);
      if (!kindOf(arrival.number).serve(connection, arrival)) return;
    }
  }

  Arrival read(const RecordedRequest& request) {
    std::istringstream target(request.target.substr(path(0).size() - 1));
    int number = -1;
    char slash = 0;
    int step = 0;
    target >> number >> slash >> step;
    const int attempt = ++_attempts.at(static_cast<std::size_t>(number));
    if (attempt == 1) _places.at(static_cast<std::size_t>(number)) = ++_lastPlace;
    return {number, step, attempt, request};
  }

  std::vector<std::atomic<int>> _attempts;
  std::vector<std::atomic<int>> _places;
  std::atomic<int> _lastPlace{0};
  ScriptedServer _server{[this](Connection& connection) { serve(connection); }};
};

class MixedRun : public ::testing::Test {
 protected:
  void run() {
    std::vector<std::thread> threads;
    threads.reserve(senders);
    for (int sender = 0; sender < senders; ++sender) {
      threads.emplace_back([this, sender] { sendAll(sender); });
    }
    for (std::thread& thread : threads) thread.join();
    // In steps, so that the patience of one wait is not that of the whole run.
    for (int some = 0; some < _requests; some += 500) {
      _plugin.waitForAnswers(static_cast<std::size_t>(some));
    }
    _answers = _plugin.waitForAnswers(static_cast<std::size_t>(_requests));
    EXPECT_EQ(_plugin.shutdown(), 0);
    EXPECT_EQ(_plugin.answerCount(), static_cast<std::size_t>(_requests));
  }

  // The place of each request's answer among all answers. Every request has exactly one.
  std::vector<int> placesOfAnswers() const {
    std::vector<int> places(static_cast<std::size_t>(_requests), -1);
    int place = 0;
    for (const Answer& answer : _answers) {
      int& its = places.at(static_cast<std::size_t>(answer.id()));
      EXPECT_EQ(its, -1) << answer.id() << " was answered twice";
      its = place++;
    }
    return places;
  }

  void expectAnswer(const Answer& answer) const {
    const int number = static_cast<int>(answer.id());
    const Kind& kind = kindOf(number);
    SCOPED_TRACE(std::string(kind.name) + " " + text(number));
    const Expected expected = kind.expected(number);
    EXPECT_EQ(answer.status(), expected.status) << answer.reason();
    const bool anyReason = expected.reason.empty();
    EXPECT_EQ(answer.reason(), anyReason ? answer.reason() : expected.reason);
    EXPECT_TRUE(answer.body() == (anyReason ? answer.reason() : expected.body));
    EXPECT_EQ(answer.isError(), expected.error);
    expectMetadata(answer, number, expected);
    EXPECT_EQ(_server.arrivals(number), expected.arrivals);
  }

  void expectOrderWithinEachKey(const std::function<int(int)>& placeOf) const {
    std::map<int, int> latest;
    for (int number = 0; number < _requests; ++number) {
      const auto key = keyOf(number);
      const int place = placeOf(number);
      if (!key || place < 0) continue;
      const auto [entry, isFirst] = latest.try_emplace(*key, place);
      EXPECT_TRUE(isFirst || entry->second < place) << "key " << *key << ", request " << number;
      entry->second = place;
    }
  }

  // The run is what it claims to be, unless it was shortened.
  void expectVariety() const {
    if (_requests < defaultRequests) return;
    std::set<std::string> names;
    std::set<int> keys;
    for (int number = 0; number < _requests; ++number) {
      names.insert(kindOf(number).name);
      keys.insert(keyOf(number).value_or(0));
    }
    EXPECT_EQ(names.size(), kinds().size());
    EXPECT_EQ(keys.size(), std::size_t{senders} * keysOfASender);
  }

  // A request that flushes first comes behind all that its sender has sent before it.
  void expectFlushesToHold(const std::vector<int>& places) const {
    std::vector<int> latest(senders, -1);
    for (int number = 0; number < _requests; ++number) {
      const int place = places[static_cast<std::size_t>(number)];
      int& before = latest[static_cast<std::size_t>(senderOf(number))];
      EXPECT_TRUE(!flushesFirst(number) || before < place) << number;
      before = std::max(before, place);
    }
  }

  void expectFiguresToAgree() const {
    long long errors = 0;
    for (const Answer& answer : _answers) errors += answer.status() < 200 || answer.status() > 399;
    EXPECT_EQ(_plugin.statusItem(".errorsTowardsHost"), std::to_string(errors));
    EXPECT_EQ(_plugin.statusItem(".responsesTowardsHost"), std::to_string(_requests - errors));
  }

  const std::vector<Answer>& answers() const { return _answers; }
  const MixedServer& server() const { return _server; }

 private:
  static PluginOptions options() {
    PluginOptions options;
    options.logLevel = QOR_LOG_INFO;
    return options;
  }

  void sendAll(int sender) {
    std::vector<Message> batch;
    for (int number = sender; number < _requests; number += senders) {
      batch.push_back(requestOf(number).message());
      if (batch.size() == batchSize || number + senders >= _requests) {
        EXPECT_EQ(_plugin.send(std::exchange(batch, {})), 0);
      }
    }
  }

  static void expectMetadata(const Answer& answer, int number, const Expected& expected) {
    const Message request = requestOf(number).message();
    for (const char* const key : {"http/method", "http/path", "requestSentTime"}) {
      const data_t* const given = find(request.metadata, keysOf(key));
      ASSERT_TRUE(answer.has(key)) << key;
      EXPECT_TRUE(*answer.find(key) == *given) << key;
    }
    if (expected.error) return;
    EXPECT_EQ(answer.header("x-number"), text(number));
    EXPECT_EQ(answer.cookie("seen").value_or(""), expected.cookie);
    EXPECT_EQ(answer.text("charset"), "utf-8");
    EXPECT_EQ(answer.text("contentType"), "");
  }

  const int _requests = requestsOfTheRun();
  MixedServer _server{_requests};
  PluginUnderTest _plugin{Config(_server.port()).numClients(workers).set("cookieJar", true),
                          options()};
  std::vector<Answer> _answers;
};

TEST_F(MixedRun, GivesEveryRequestItsOneRightAnswerInTheOrderOfItsKey) {
  run();
  for (const Answer& answer : answers()) expectAnswer(answer);
  const std::vector<int> places = placesOfAnswers();
  expectOrderWithinEachKey([&](int number) { return places[static_cast<std::size_t>(number)]; });
  expectOrderWithinEachKey([&](int number) { return server().place(number) - 1; });
  expectFlushesToHold(places);
  expectFiguresToAgree();
  expectVariety();
}

}  // namespace
}  // namespace test_support
