// docs/configuration.md, the transport's options: each example and error through the program and
// the transport.
#include <functional>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "connectivity/value_access.hpp"
#include "tests/docs/ConfigurationPage.hpp"
#include "tests/docs/Markdown.hpp"
#include "tests/docs/Sandbox.hpp"
#include "tests/docs/Values.hpp"
#include "tests/support/Certificates.hpp"
#include "tests/support/Descriptor.hpp"
#include "tests/support/PluginUnderTest.hpp"
#include "tests/support/ScriptedProxy.hpp"
#include "tests/support/ScriptedServer.hpp"

namespace docs_tests {
namespace {

using connectivity::data_t;
using connectivity::map_t;
using test_support::Answer;
using test_support::base64;
using test_support::CertificateAuthority;
using test_support::CertificateFiles;
using test_support::Config;
using test_support::PluginUnderTest;
using test_support::RecordedRequest;
using test_support::Request;
using test_support::ScriptedProxy;
using test_support::ScriptedServer;

// --- The examples --------------------------------------------------------------------------------

std::string chainFileWith(const std::string& example) {
  std::string config = example.starts_with("{") ? example.substr(1, example.size() - 2) : example;
  const map_t options = configOf("{" + config + "}");
  if (options.findText("host") == nullptr) config = "host: localhost, " + config;
  return "chains: [{id: docs, name: docs, transport: HTTPClient, config: {" + config + "}}]\n";
}

// The files that the page's examples name. The client's certificate is for this common name.
constexpr const char* clientName = "the client";

void writeClientFiles(const Sandbox& sandbox, CertificateAuthority& authority) {
  const CertificateFiles client = authority.issue({.commonName = clientName});
  sandbox.write("client.pem", test_support::readFile(client.certificate));
  sandbox.write("client.key", test_support::readFile(client.key));
  sandbox.write("locked.key", test_support::readFile(authority.encrypted(client, "s3cret").key));
  sandbox.write("other.key", test_support::readFile(authority.issue().key));
}

TEST(ConfigurationTable, ExamplesAreAcceptedByTheProgram) {
  const Sandbox sandbox;
  CertificateAuthority authority;
  sandbox.write("ca.pem", test_support::readFile(authority.caFile()));
  writeClientFiles(sandbox, authority);
  for (const auto* rows : {&optionRows(), &olderSpellingRows()}) {
    for (const Row& row : *rows) {
      for (const std::string& example : row.codes("example")) {
        const Outcome outcome = checkChainFile(sandbox, chainFileWith(example));
        EXPECT_EQ(outcome.status, 0) << row.place << ": " << outcome.errors;
        EXPECT_EQ(outcome.output, "OK\n") << row.place;
      }
    }
  }
}

TEST(ConfigurationTable, EveryExampleGivesItsOwnKey) {
  for (const auto* rows : {&optionRows(), &olderSpellingRows()}) {
    for (const Row& row : *rows) {
      ASSERT_EQ(row.codes("example").size(), 1U) << row.place;
      const map_t example = configOf(row.codes("example").front());
      EXPECT_NE(test_support::find(example, test_support::keysOf(row.name)), nullptr) << row.place;
    }
  }
}

// What an example does, seen from outside.
class Effect {
 public:
  explicit Effect(const Row& row) : _example(configOf(row.codes("example").front())) {}

  Config config(int port) const { return over(Config(port)); }
  Config over(Config config) const {
    for (const auto entry : _example) config.set(entry.first.text(), entry.second.copy());
    return config;
  }
  std::string text(const std::string& path) const {
    const data_t* value = test_support::find(_example, test_support::keysOf(path));
    return value == nullptr ? std::string() : connectivity::convert_to<std::string>(*value);
  }

 private:
  const map_t _example;
};

// What a server that answers everything with 200 receives.
RecordedRequest sent(const Effect& effect) {
  ScriptedServer server;
  server.answer("/x", {});
  server.answer(effect.text("basePath") + "/x", {});
  PluginUnderTest plugin(effect.config(server.port()));
  const Answer answer = plugin.request(Request("GET", "/x"));
  EXPECT_EQ(answer.status(), 200) << answer.reason();
  return server.request(0);
}

void expectHostOnTheWire(const Effect& effect) {
  const auto host = sent(effect).header("host").value_or("");
  EXPECT_TRUE(host.starts_with(effect.text("host") + ":")) << host;
}

void expectPortInTheLog(const Effect& effect) {
  PluginUnderTest plugin(effect.config(1));
  plugin.log().waitForLine("Connecting to http://127.0.0.1:" + effect.text("port"));
}

// The server never answers.
void expectTimeOut(const Effect& effect) {
  ScriptedServer server([](test_support::Connection& connection) {
    connection.readRequest();
    connection.awaitPeerClose();
  });
  PluginUnderTest plugin(effect.config(server.port()));
  EXPECT_EQ(plugin.request(Request("GET", "/x")).reason(),
            "Timeout: The server sent nothing within the time-out");
}

void expectTls(const Effect& effect) {
  CertificateAuthority authority;
  ScriptedServer server(test_support::TlsOptions{authority.issue()});
  server.answer("/x", {});
  Config config = effect.config(server.port());
  config.set("tls", true).set("tlsAcceptUnrecognizedCertificates", true);
  PluginUnderTest plugin(config);
  EXPECT_EQ(plugin.request(Request("GET", "/x")).status(), 200);
}

void expectTrustInTheFile(const Effect& effect) {
  const Sandbox sandbox;
  CertificateAuthority authority;
  sandbox.write("ca.pem", test_support::readFile(authority.caFile()));
  ScriptedServer server(test_support::TlsOptions{authority.issue()});
  server.answer("/x", {});
  PluginUnderTest plugin(effect.config(server.port()).set("tls", true));
  const Answer answer = plugin.request(Request("GET", "/x"));
  EXPECT_EQ(answer.status(), 200) << answer.reason();
}

void expectAcceptedCertificate(const Effect& effect) {
  CertificateAuthority authority;
  ScriptedServer server(test_support::TlsOptions{authority.issueSelfSigned()});
  server.answer("/x", {});
  PluginUnderTest plugin(effect.config(server.port()).set("tls", true));
  const Answer answer = plugin.request(Request("GET", "/x"));
  EXPECT_EQ(answer.status(), 200) << answer.reason();
}

void expectCredentials(const Effect& effect) {
  const std::string user =
      effect.text("authentication/username") + effect.text("authentication/user");
  EXPECT_EQ(sent(effect).header("authorization"),
            "Basic " + base64(user + ":" + effect.text("authentication/password")));
}

void expectBasePathOnTheWire(const Effect& effect) {
  EXPECT_EQ(sent(effect).target, effect.text("basePath") + "/x");
}

void expectProxyInTheLog(const Effect& effect) {
  PluginUnderTest plugin(effect.config(1));
  plugin.log().waitForLine("Connecting via proxy server http://" + effect.text("proxy/host") + ":" +
                           effect.text("proxy/port"));
}

void expectProxyCredentials(const Effect& effect) {
  const std::string place = "proxy/authentication/";
  const std::string user = effect.text(place + "username") + effect.text(place + "user");
  ScriptedServer server;
  server.answer("/x", {});
  test_support::ProxyOptions options;
  options.credentials = user + ":" + effect.text(place + "password");
  const ScriptedProxy proxy(options);
  PluginUnderTest plugin(effect.config(server.port()).set("proxy/port", proxy.port()));
  const Answer answer = plugin.request(Request("GET", "/x"));
  EXPECT_EQ(answer.status(), 200) << answer.reason();
  EXPECT_EQ(proxy.requests().size(), 1U);
}

void expectRedirectDelivered(const Effect& effect) {
  ScriptedServer server;
  server.answer("/x", {302, {{"Location", "/y"}}, ""});
  PluginUnderTest plugin(effect.config(server.port()));
  EXPECT_EQ(plugin.request(Request("GET", "/x")).status(), 302);
}

void expectNoCookieBack(const Effect& effect) {
  ScriptedServer server;
  server.answer("/x", {200, {{"Set-Cookie", "a=b; Path=/"}}, ""});
  PluginUnderTest plugin(effect.config(server.port()));
  plugin.request(Request("GET", "/x"));
  plugin.request(Request("GET", "/x"));
  EXPECT_EQ(server.request(1).header("cookie"), std::nullopt);
}

void expectWorkers(const Effect& effect) {
  PluginUnderTest plugin(effect.config(1));
  EXPECT_EQ(plugin.statusItem(".numClients"), effect.text("numClients"));
}

Answer bigAnswer(const Effect& effect) {
  ScriptedServer server;
  server.answer("/x", {200, {}, std::string(3000, 'x')});
  PluginUnderTest plugin(effect.config(server.port()));
  return plugin.request(Request("GET", "/x"));
}

void expectLimit(const Effect& effect) { EXPECT_EQ(bigAnswer(effect).status(), 413); }

void expectCutEnd(const Effect& effect) {
  EXPECT_EQ(bigAnswer(effect).body(), std::string(1000, 'x') + "[TRUNCATED]");
}

// The server never ends its answer, however long each wait is.
void expectDeadline(const Effect& effect) {
  ScriptedServer server([](test_support::Connection& connection) {
    connection.readRequest();
    connection.send("HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\nx");
    connection.awaitPeerClose();
  });
  PluginUnderTest plugin(effect.config(server.port()));
  EXPECT_EQ(plugin.request(Request("GET", "/x")).reason(), "Deadline exceeded");
}

void expectClientCertificate(const Effect& effect) {
  const Sandbox sandbox;
  CertificateAuthority authority;
  writeClientFiles(sandbox, authority);
  test_support::TlsOptions tls{authority.issue()};
  tls.askForCertificate = true;
  ScriptedServer server(tls);
  server.answer("/x", {});
  PluginUnderTest plugin(
      effect.config(server.port()).set("tlsCertificateAuthorityFile", authority.caFile()));
  const Answer answer = plugin.request(Request("GET", "/x"));
  EXPECT_EQ(answer.status(), 200) << answer.reason();
  ASSERT_EQ(server.clientHellos().size(), 1U);
  EXPECT_EQ(server.clientHellos().front().certificate, clientName);
}

void expectFurtherMethods(const Effect& effect) {
  ScriptedServer server;
  server.answer("/x", {});
  PluginUnderTest plugin(effect.config(server.port()));
  std::istringstream methods(effect.text("additionalMethods"));
  std::size_t accepted = 0;
  for (std::string method; std::getline(methods >> std::ws, method, ','); ++accepted) {
    EXPECT_EQ(plugin.request(Request(method.c_str(), "/x").body("a")).status(), 200) << method;
    EXPECT_EQ(server.request(accepted).method, method);
    EXPECT_EQ(server.request(accepted).body, "a");
  }
  EXPECT_GE(accepted, 2U);
}

void expectMark(const Effect& effect) {
  PluginUnderTest plugin(effect.config(test_support::unusedPort()));
  EXPECT_EQ(plugin.request(Request("GET", "/x")).text("http/failure"), "unreachable");
}

const std::map<std::string, std::function<void(const Effect&)>>& effects() {
  static const std::map<std::string, std::function<void(const Effect&)>> all{
      {"host", expectHostOnTheWire},
      {"port", expectPortInTheLog},
      {"timeoutSecs", expectTimeOut},
      {"tls", expectTls},
      {"tlsCertificateAuthorityFile", expectTrustInTheFile},
      {"tlsAcceptUnrecognizedCertificates", expectAcceptedCertificate},
      {"authentication/authenticationType", expectCredentials},
      {"authentication/username", expectCredentials},
      {"authentication/password", expectCredentials},
      {"basePath", expectBasePathOnTheWire},
      {"proxy/host", expectProxyInTheLog},
      {"proxy/port", expectProxyInTheLog},
      {"proxy/authentication/authenticationType", expectProxyCredentials},
      {"proxy/authentication/username", expectProxyCredentials},
      {"proxy/authentication/password", expectProxyCredentials},
      {"followRedirects", expectRedirectDelivered},
      {"cookieJar", expectNoCookieBack},
      {"numClients", expectWorkers},
      {"maxResponseKB", expectLimit},
      {"maxResponsePolicy", expectCutEnd},
      {"deadlineSecs", expectDeadline},
      {"tlsClientCertificateFile", expectClientCertificate},
      {"tlsClientKeyFile", expectClientCertificate},
      {"tlsClientKeyPassword", expectClientCertificate},
      {"additionalMethods", expectFurtherMethods},
      {"markFailures", expectMark},
  };
  return all;
}

void expectEffect(const Row& row, const std::string& key) {
  SCOPED_TRACE(row.place);
  const auto effect = effects().find(key);
  ASSERT_NE(effect, effects().end()) << "this test does not know what the option does";
  effect->second(Effect(row));
}

TEST(ConfigurationTable, ExamplesTakeEffect) {
  for (const Row& row : optionRows()) expectEffect(row, row.name);
}

TEST(ConfigurationTable, OlderSpellingsTakeTheSameEffect) {
  for (const Row& row : olderSpellingRows()) expectEffect(row, row.codes("key").front());
}

TEST(ConfigurationErrors, AreWhatTheProgramSays) {
  const Sandbox sandbox;
  CertificateAuthority authority;
  writeClientFiles(sandbox, authority);
  const Page& page = configurationPage();
  for (const Row& row : page.table("Errors").rows) {
    ASSERT_EQ(row.codes("example").size(), 1U) << row.place;
    const Outcome outcome = checkChainFile(sandbox, chainFileWith(row.codes("example").front()));
    EXPECT_EQ(outcome.status, 1) << row.place;
    EXPECT_NE(outcome.errors.find("Exception from create: " + row.name), std::string::npos)
        << row.place << ": " << outcome.errors;
  }
}

}  // namespace
}  // namespace docs_tests
