// docs/operators-guide.md: the lines of the log, the texts of refused certificates, the arithmetic
// and the measured numbers.
#include <algorithm>
#include <cmath>
#include <functional>
#include <map>
#include <regex>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "tests/docs/Markdown.hpp"
#include "tests/docs/Texts.hpp"
#include "tests/docs/Values.hpp"
#include "tests/support/Certificates.hpp"
#include "tests/support/Descriptor.hpp"
#include "tests/support/PluginUnderTest.hpp"
#include "tests/support/ScriptedServer.hpp"

namespace docs_tests {
namespace {

using test_support::CertificateAuthority;
using test_support::CertificateFiles;
using test_support::Config;
using test_support::PluginUnderTest;
using test_support::Request;
using test_support::ScriptedServer;

const Page& page() {
  static const Page guide = readPage("docs/operators-guide.md");
  return guide;
}

// --- The lines of the log ------------------------------------------------------------------------

TEST(LogLineTable, HasOnlyLinesThatTheTransportWrites) {
  const auto formats = formatsBelow({"plugins/http_client", "connectivity"});
  for (const Row& row : page().table("What the log says", 0).rows) {
    EXPECT_TRUE(isMadeBy(formats, row.name)) << row.place << ": no such text in the sources";
  }
}

TEST(LogLineTable, HasOnlyLinesThatTheProgramWrites) {
  const auto formats = formatsBelow({"host"});
  for (const Row& row : page().table("What the log says", 1).rows) {
    EXPECT_TRUE(isMadeBy(formats, row.name)) << row.place << ": no such text in the sources";
  }
}

struct LoggedText {
  std::string level;
  std::string text;
};

// The texts of calls that log at a fixed level.
std::vector<LoggedText> loggedTexts(const std::string& folder) {
  static const std::regex call(
      R"re((?:Level::(Error|Warn|Info|Debug)[^"; ]* *|\.(error|warn|info|debug)\(\s*)(?:[^";(){}]*)((?:"(?:[^"\\]|\\.)*"\s*)+))re");
  std::vector<LoggedText> found;
  for (const std::string& source : sourcesBelow({folder})) {
    for (auto it = std::sregex_iterator(source.begin(), source.end(), call);
         it != std::sregex_iterator(); ++it) {
      std::string level = (*it)[1].matched ? (*it)[1].str() : (*it)[2].str();
      level.front() = static_cast<char>(std::tolower(static_cast<unsigned char>(level.front())));
      const std::string joined = std::regex_replace((*it)[3].str(), std::regex("\"\\s*\""), "");
      const auto end = joined.rfind('"');
      found.push_back({level, withGaps(joined.substr(1, end - 1))});
    }
  }
  return found;
}

// Every warning and error of the transport has its row, and every row its level.
TEST(LogLineTable, HasEveryWarningOfTheTransport) {
  const auto& rows = page().table("What the log says", 0).rows;
  std::size_t checked = 0;
  for (const LoggedText& logged : loggedTexts("plugins/http_client")) {
    // Single words are the names of entry points, for "Exception from …".
    if (!saysSomething(logged.text) || logged.text.find(' ') == std::string::npos) continue;
    const auto row = std::ranges::find(rows, logged.text, &Row::name);
    if (row != rows.end()) {
      EXPECT_NE(row->text("level").find(logged.level), std::string::npos)
          << row->place << ": the level is " << logged.level;
      ++checked;
    } else if (logged.level == "warn" || logged.level == "error") {
      ADD_FAILURE() << page().name << ": no row for the " << logged.level << ": " << logged.text;
    }
  }
  EXPECT_GE(checked, 15U) << "the sources are not read as they should be";
}

TEST(LogLineTable, SaysWhatToDoAboutEachLine) {
  for (const std::size_t table : {0U, 1U}) {
    std::set<std::string> lines;
    for (const Row& row : page().table("What the log says", table).rows) {
      EXPECT_TRUE(lines.insert(row.name).second) << row.place << ": twice";
      EXPECT_FALSE(row.text("meaning").empty()) << row.place;
      EXPECT_FALSE(row.text("what to do").empty()) << row.place;
    }
  }
}

// --- TLS -----------------------------------------------------------------------------------------

struct Refusal {
  std::function<CertificateFiles(CertificateAuthority&)> issue;
  bool trustsAuthority;
  std::string host;
};

const std::map<std::string, Refusal>& refusals() {
  static const std::map<std::string, Refusal> all{
      {"hostname mismatch",
       {[](CertificateAuthority& a) { return a.issueForOtherName(); }, true, "localhost"}},
      {"IP address mismatch",
       {[](CertificateAuthority& a) { return a.issueForOtherName(); }, true, "127.0.0.1"}},
      {"certificate has expired",
       {[](CertificateAuthority& a) { return a.issueExpired(); }, true, "localhost"}},
      {"self-signed certificate",
       {[](CertificateAuthority& a) { return a.issueSelfSigned(); }, true, "localhost"}},
      {"unable to get local issuer certificate",
       {[](CertificateAuthority& a) { return a.issue(); }, false, "localhost"}},
  };
  return all;
}

TEST(CertificateTexts, AreWhatRefusedCertificatesSay) {
  for (const Row& row : page().table("TLS").rows) {
    SCOPED_TRACE(row.place);
    ASSERT_TRUE(refusals().contains(row.name)) << "this test does not know how to make it";
    const Refusal& refusal = refusals().at(row.name);
    CertificateAuthority authority;
    ScriptedServer server(test_support::TlsOptions{refusal.issue(authority)});
    Config config(server.port());
    config.host(refusal.host).set("tls", true);
    if (refusal.trustsAuthority) config.set("tlsCertificateAuthorityFile", authority.caFile());
    PluginUnderTest plugin(config);
    EXPECT_EQ(plugin.request(Request("GET", "/x")).reason(),
              "SSL Exception: certificate verify failed: " + row.name);
  }
}

// --- What may be sent twice ----------------------------------------------------------------------

using test_support::Connection;

void sendRedirect(Connection& connection) {
  while (const auto request = connection.readRequest()) {
    const test_support::HeaderList location{{"Location", "/there"}};
    connection.sendResponse(request->target == "/x" ? 302 : 200, location);
  }
}

// More than the sockets' buffers hold.
const std::string bigBody(20'000'000, 'x');

struct Mishap {
  ScriptedServer::Script script;
  std::string body = "x";
};

// A script that answers a request with these bytes, and closes.
ScriptedServer::Script sending(const std::string& bytes) {
  return [bytes](Connection& connection) {
    connection.readRequest();
    connection.send(bytes);
  };
}

void answerEarly(Connection& connection) {
  connection.readHead();
  connection.sendResponse(413, {}, "too much");
}

// What the server does with a connection, by what the table says that happens.
const std::map<std::string, Mishap>& mishaps() {
  static const std::map<std::string, Mishap> all{
      {"the server closes the connection without an answer", {sending("")}},
      {"the connection is reset before the answer", {[](Connection& connection) {
         connection.readRequest();
         connection.reset();
       }}},
      {"the connection breaks while the body is being sent",
       {[](Connection& connection) {
          connection.readHead();
          connection.reset();
        },
        bigBody}},
      {"a time-out, of any kind", {[](Connection& connection) {
         connection.readRequest();
         connection.awaitPeerClose();
       }}},
      {"an interim response comes, and the connection closes",
       {sending("HTTP/1.1 102 Processing\r\n\r\n")}},
      {"the answer's head is malformed", {sending("HTTP/1.1 20 OK\r\n\r\n")}},
      {"the answer's head breaks off", {sending("HTTP/1.1 200 OK\r\nContent-")}},
      {"the answer's body breaks off",
       {sending("HTTP/1.1 200 OK\r\nContent-Length: 9\r\n\r\nshort")}},
      {"the answer is over its limit",
       {sending("HTTP/1.1 200 OK\r\nContent-Length: 3000\r\n\r\n" + std::string(3000, 'x'))}},
      {"an answer comes before the body is out",
       {[](Connection& connection) {
          answerEarly(connection);
          connection.awaitPeerClose();
        },
        bigBody}},
      {"an answer comes before the body is out, and then a reset",
       {[](Connection& connection) {
          answerEarly(connection);
          connection.reset();
        },
        bigBody}},
      {"an answer with status 503", {[](Connection& connection) {
         while (connection.readRequest()) connection.sendResponse(503);
       }}},
      {"a redirect", {sendRedirect}},
  };
  return all;
}

std::size_t connectionsOfProxy(const ScriptedServer::Script& script) {
  ScriptedServer proxy(script);
  PluginUnderTest plugin(Config(443).host("localhost").set("tls", true).proxy(proxy.port()));
  EXPECT_TRUE(plugin.request(Request("POST", "/x").body("x")).isError());
  return proxy.connectionCount();
}

std::size_t triesOverTls(ScriptedServer::Script script, const CertificateFiles& certificate,
                         CertificateAuthority& authority) {
  ScriptedServer server(std::move(script), test_support::TlsOptions{certificate});
  PluginUnderTest plugin(Config(server.port()).tls(authority.caFile()));
  EXPECT_TRUE(plugin.request(Request("POST", "/x").body("x")).isError());
  EXPECT_TRUE(server.handshakeFailures() > 0 || server.requestCount() == server.connectionCount());
  return server.connectionCount();
}

std::size_t triesWhereNobodyListens() {
  PluginUnderTest plugin{Config(test_support::unusedPort())};
  plugin.request(Request("POST", "/x").body("x"));
  return 1 + plugin.log().count("will retry once");
}

std::size_t triesUnder(const Config& config, ScriptedServer& server, const std::string& body) {
  PluginUnderTest plugin(config);
  plugin.request(Request("POST", "/x").body(body));
  return static_cast<std::size_t>(
      std::ranges::count(server.requests(), "/x", &test_support::RecordedRequest::target));
}

// How often the request for /x has been tried.
std::size_t triesAfter(const std::string& mishap) {
  CertificateAuthority authority;
  if (mishap == "the certificate is refused") {
    return triesOverTls(sending(""), authority.issueExpired(), authority);
  }
  if (mishap == "TLS breaks off before the answer") {
    const auto drop = [](Connection& connection) {
      connection.readRequest();
      connection.closeWithoutNotify();
    };
    return triesOverTls(drop, authority.issue(), authority);
  }
  if (mishap == "the proxy closes the connection without an answer to `CONNECT`") {
    return connectionsOfProxy([](Connection& connection) { connection.readHead(); });
  }
  if (mishap == "the proxy refuses a tunnel") {
    return connectionsOfProxy([](Connection& connection) {
      connection.readHead();
      connection.sendResponse(403);
    });
  }
  if (mishap == "nobody listens, or the name is unknown") return triesWhereNobodyListens();
  if (mishap == "the deadline passes") {
    ScriptedServer server(mishaps().at("a time-out, of any kind").script);
    return triesUnder(Config(server.port()).set("deadlineSecs", 1), server, "x");
  }
  const Mishap& found = mishaps().at(mishap);
  ScriptedServer server(found.script);
  return triesUnder(Config(server.port()).timeoutSecs(1).set("maxResponseKB", 2), server,
                    found.body);
}

TEST(TriesTable, CountsHowOftenARequestIsSent) {
  for (const Row& row : page().table("What may be sent twice").rows) {
    SCOPED_TRACE(row.place + row.text("what happens"));
    EXPECT_EQ(std::to_string(triesAfter(row.text("what happens"))), row.text("tries").substr(0, 1));
    EXPECT_FALSE(row.text("what the server may have seen").empty());
  }
}

// --- Numbers -------------------------------------------------------------------------------------

TEST(SizingTable, FollowsLittlesLaw) {
  for (const Row& row : page().table("How many workers").rows) {
    const double rate = std::stod(row.text("requests each second"));
    const double seconds = std::stod(row.text("latency")) / 1000;
    EXPECT_EQ(std::stol(row.text("busy workers")), std::lround(rate * seconds)) << row.place;
  }
}

TEST(MeasuredNumbers, StandInTheBenchmarks) {
  const std::string guide = test_support::readFile(projectFile(page().name));
  const std::string benchmarks = test_support::readFile(projectFile("benchmarks/README.md"));
  const std::regex sentence("one worker ([0-9,]+) requests a second, four workers ([0-9,]+)");
  std::smatch match;
  ASSERT_TRUE(std::regex_search(guide, match, sentence));
  for (const std::string& number : {match[1].str(), match[2].str()}) {
    EXPECT_NE(benchmarks.find(number), std::string::npos) << page().name << ": " << number;
  }
}

TEST(Alarms, NameItemsThatExist) {
  const Page items = readPage("docs/status-items.md");
  std::set<std::string> known;
  for (const Row& row : items.table("Status items").rows) known.insert(row.name);
  for (const Row& row : page().table("What to watch").rows) {
    EXPECT_TRUE(known.contains(row.codes("item").at(0))) << row.place;
  }
}

}  // namespace
}  // namespace docs_tests
