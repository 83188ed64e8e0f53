// The head of a request, as it is written for each server that the request meets.
#include "plugins/http_client/request/PreparedRequest.hpp"

#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "tests/plugins/http_client/TransportParts.hpp"

namespace connectivity::plugins {
namespace {

using test_support::Config;
using test_support::Request;

Destination home() {
  Destination destination;
  destination.hostField = "server.test:81";
  return destination;
}
Destination elsewhere() {
  Destination destination = home();
  destination.isConfiguredServer = false;
  destination.hostField = "other.test";
  return destination;
}
Destination behindAProxy(std::string authorization = {}) {
  Destination destination = home();
  destination.absolutePrefix = "http://server.test:81";
  destination.proxyReads = ProxyReads::EachRequest;
  destination.proxyAuthorization = std::move(authorization);
  return destination;
}
Destination throughATunnel() {
  Destination destination = home();
  destination.proxyReads = ProxyReads::Connect;
  destination.proxyAuthorization = "Basic configured";
  return destination;
}

class Head : public testing::Test {
 protected:
  PreparedRequest prepare(const Request& given, const Destination& destination = home(),
                          const RequestBody& body = RequestBody::none()) {
    request req = _parts->read(given);
    req.hop.target = req.pathText();
    return HeadWriter(_parts->options, _parts->cookies, _parts->log)
        .createRequest(req, body, destination);
  }
  std::string head(const Request& given, const Destination& destination = home(),
                   const RequestBody& body = RequestBody::none()) {
    return prepare(given, destination, body).head;
  }
  // The values of a field, in their order.
  static std::vector<std::string> values(const std::string& head, const std::string& name) {
    std::vector<std::string> found;
    const std::string start = "\r\n" + name + ": ";
    for (std::size_t at = head.find(start); at != std::string::npos;
         at = head.find(start, at + 1)) {
      const std::size_t begin = at + start.size();
      found.push_back(head.substr(begin, head.find("\r\n", begin) - begin));
    }
    return found;
  }
  using Values = std::vector<std::string>;

  void configure(const Config& config) {
    _parts.reset();
    _parts.emplace(config);
  }
  TransportParts& parts() { return *_parts; }

 private:
  std::optional<TransportParts> _parts{std::in_place};
};

Request get() { return {"GET", "/x"}; }

TEST_F(Head, HasTheDefaultsAndNoOtherField) {
  EXPECT_EQ(head(get()),
            "GET /x HTTP/1.1\r\n"
            "Host: server.test:81\r\n"
            "accept: */*\r\n"
            "accept-encoding: identity, gzip, deflate\r\n"
            "user-agent: Orrery/10.15 (armv7-debian10)\r\n"
            "accept-charset: utf-8\r\n"
            "\r\n");
}

TEST_F(Head, LetsTheUsersHeadersWinOverTheDefaults) {
  const std::string text = head(get()
                                    .header("Accept", "a/b")
                                    .header("User-Agent", "me")
                                    .header("Accept-Charset", "x")
                                    .header("Accept-Encoding", "br"));
  EXPECT_EQ(values(text, "accept"), Values{"a/b"});
  EXPECT_EQ(values(text, "user-agent"), Values{"me"});
  EXPECT_EQ(values(text, "accept-charset"), Values{"x"});
  EXPECT_EQ(values(text, "accept-encoding"), Values{"br"});
}

TEST_F(Head, AnnouncesTheLengthOfAFramedBodyAlone) {
  EXPECT_EQ(values(head(get(), home(), RequestBody::ofBytes("12345")), "Content-Length"),
            Values{"5"});
  EXPECT_EQ(values(head(get(), home(), RequestBody::ofBytes("")), "Content-Length"), Values{"0"});
  EXPECT_EQ(values(head(get()), "Content-Length"), Values());
}

TEST_F(Head, HasTheContentTypeOfTheBodyInPlaceOfTheUsers) {
  const RequestBody body = RequestBody::ofText("a=1", "multipart/form-data; boundary=b");
  const std::string text = head(get().contentType("multipart/form-data"), home(), body);
  EXPECT_EQ(values(text, "Content-Type"), Values{"multipart/form-data; boundary=b"});
  EXPECT_EQ(values(text, "content-type"), Values());
  EXPECT_EQ(values(head(get().contentType("a/b")), "content-type"), Values{"a/b"});
}

TEST_F(Head, HasTheFieldsOfAFormUnderGetInItsTarget) {
  const PreparedRequest prepared = prepare({"GET", "/x?a"}, home(), RequestBody::none("b=1"));
  EXPECT_EQ(prepared.target, "/x?a&b=1");
  EXPECT_TRUE(prepared.head.starts_with("GET /x?a&b=1 HTTP/1.1\r\n"));
}

TEST_F(Head, DoesNotAddAFormsFieldsToTheTargetOfARedirect) {
  request req = parts().read(get());
  req.hop.target = "/moved";
  req.redirectsTaken = 1;
  const RequestBody body = RequestBody::none("b=1");
  const HeadWriter writer(parts().options, parts().cookies, parts().log);
  EXPECT_EQ(writer.createRequest(req, body, home()).target, "/moved");
}

// --- For the configured server alone ------------------------------------------------------------

TEST_F(Head, HasTheConfiguredCredentials) {
  configure(Config(1).basicAuthentication("user", "pa:ss"));
  EXPECT_EQ(values(head(get()), "Authorization"), Values{"Basic dXNlcjpwYTpzcw=="});
}

TEST_F(Head, LetsTheUsersAuthorizationWin) {
  configure(Config(1).basicAuthentication("user", "pass"));
  const std::string text = head(get().header("Authorization", "Bearer t"));
  EXPECT_EQ(values(text, "authorization"), Values{"Bearer t"});
  EXPECT_EQ(values(text, "Authorization"), Values());
}

TEST_F(Head, HasTheUsersHostInPlaceOfTheComputedOne) {
  EXPECT_EQ(values(head(get().header("Host", "mine")), "Host"), Values{"mine"});
  EXPECT_EQ(values(head(get().header("Host", "mine")), "host"), Values());
}

TEST_F(Head, HasAllCookiesInOneLine) {
  parts().cookies.storeCookiesFromResponse(std::vector<std::string_view>{"jar=3", "given=0"});
  EXPECT_EQ(values(head(get().header("Cookie", "own=1").cookie("given", "2")), "Cookie"),
            Values{"own=1; given=2; jar=3"});
  EXPECT_EQ(values(head(get().header("Cookie", "own=1")), "cookie"), Values());
}

TEST_F(Head, ComparesCookiesWithThePathThatIsSentWithoutItsQuery) {
  parts().cookies.storeCookiesFromResponse(std::vector<std::string_view>{"jar=1; Path=/x"});
  EXPECT_EQ(values(head({"GET", "/x?a"}), "Cookie"), Values{"jar=1"});
  EXPECT_EQ(values(head({"GET", "/x/y"}), "Cookie"), Values());
}

TEST_F(Head, ForAnotherServerHasNothingThatIsMeantForTheConfiguredOne) {
  configure(Config(1).basicAuthentication("user", "pass"));
  parts().cookies.storeCookiesFromResponse(std::vector<std::string_view>{"jar=1"});
  const std::string text = head(get()
                                    .header("Authorization", "Bearer t")
                                    .header("Cookie", "own=1")
                                    .header("Host", "mine")
                                    .header("X-Else", "goes")
                                    .cookie("given", "2"),
                                elsewhere());
  for (const char* name : {"Authorization", "authorization", "Cookie", "cookie", "host"}) {
    EXPECT_EQ(values(text, name), Values()) << name;
  }
  EXPECT_EQ(values(head(get(), elsewhere()), "Authorization"), Values());
  EXPECT_EQ(values(text, "Host"), Values{"other.test"});
  EXPECT_EQ(values(text, "x-else"), Values{"goes"});
}

// --- For a proxy --------------------------------------------------------------------------------

TEST_F(Head, ForAProxyHasTheTargetInAbsoluteForm) {
  const PreparedRequest prepared = prepare(get(), behindAProxy());
  EXPECT_TRUE(prepared.head.starts_with("GET http://server.test:81/x HTTP/1.1\r\n"));
  EXPECT_EQ(prepared.target, "/x");
  EXPECT_EQ(values(prepared.head, "Proxy-Connection"), Values{"keep-alive"});
  EXPECT_EQ(values(prepared.head, "Proxy-Authorization"), Values());
  EXPECT_EQ(prepared.tunnelAuthorization, std::nullopt);
}

TEST_F(Head, ForAProxyHasTheConfiguredCredentialsOrTheUsers) {
  const auto destination = behindAProxy("Basic configured");
  EXPECT_EQ(values(head(get(), destination), "Proxy-Authorization"), Values{"Basic configured"});
  const std::string own = head(get().header("Proxy-Authorization", "Bearer own"), destination);
  EXPECT_EQ(values(own, "Proxy-Authorization"), Values{"Bearer own"});
  EXPECT_EQ(values(own, "proxy-authorization"), Values());
}

TEST_F(Head, ThroughATunnelHasNothingForTheProxy) {
  const PreparedRequest prepared =
      prepare(get().header("Proxy-Authorization", "Bearer own"), throughATunnel());
  EXPECT_EQ(prepared.head.find("roxy"), std::string::npos) << prepared.head;
  EXPECT_EQ(prepared.tunnelAuthorization, "Bearer own");
  EXPECT_EQ(prepare(get(), throughATunnel()).tunnelAuthorization, std::nullopt)
      << "the configured one";
}

TEST_F(Head, WithoutAProxyLeavesOutItsAuthorizationAndSaysSo) {
  const PreparedRequest prepared = prepare(get().header("Proxy-Authorization", "Bearer own"));
  EXPECT_EQ(prepared.head.find("roxy"), std::string::npos) << prepared.head;
  EXPECT_EQ(prepared.tunnelAuthorization, std::nullopt);
  EXPECT_TRUE(parts().logged(
      Level::Warn, "Ignoring HTTP header proxy-authorization because no proxy is configured"));
}

// --- The log ------------------------------------------------------------------------------------

TEST_F(Head, IsLoggedWithItsSecretsHidden) {
  configure(Config(1).basicAuthentication("user", "pass"));
  head(get().header("X-Caf", "caf\u00e9").cookie("a", "secret"), behindAProxy("Basic secret"));
  for (const char* line : {"Host = server.test:81", "x-caf = caf\u00e9", "Cookie = <hidden>",
                           "Authorization = <hidden>", "Proxy-Authorization = <hidden>"}) {
    EXPECT_TRUE(parts().logged(Level::Trace, std::string("   request header ") + line)) << line;
  }
  EXPECT_FALSE(parts().lines.contains("secret"));
  EXPECT_FALSE(parts().lines.contains("dXNlcjpwYXNz"));
}

TEST_F(Head, IsLoggedWithItsPayload) {
  head(get());
  EXPECT_TRUE(parts().logged(Level::Trace, "   request payload: <no payload>"));
  head(Request("POST", "/x").body("bytes"));
  EXPECT_TRUE(parts().logged(Level::Trace, "   request payload: bytes"));
}

TEST_F(Head, GivesTheBodyThatItWasMadeFor) {
  const RequestBody body = RequestBody::ofBytes("x");
  EXPECT_EQ(prepare(get(), home(), body).body, &body);
}

TEST(BasicAuthorization, IsTheBase64OfNameAndPassword) {
  EXPECT_EQ(basicAuthorization("user", "pass"), "Basic dXNlcjpwYXNz");
  EXPECT_EQ(basicAuthorization(std::string(200, 'u'), "").find_first_of("\r\n"), std::string::npos);
}

}  // namespace
}  // namespace connectivity::plugins
