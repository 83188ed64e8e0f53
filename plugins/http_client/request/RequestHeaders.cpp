// The header of a request: cookies, credentials, defaults, and what the user gave.
#include <string>

#include <Poco/Net/HTTPBasicCredentials.h>
#include <Poco/Net/HTTPRequest.h>
#include <Poco/Net/NameValueCollection.h>

#include "connectivity/value_access.hpp"
#include "plugins/http_client/request/Request.hpp"
#include "plugins/http_client/text/CharacterSets.hpp"
#include "plugins/http_client/text/HeaderRules.hpp"
#include "plugins/http_client/worker/ClientSessionThread.hpp"

namespace connectivity::plugins {

namespace {

// The path that cookies are compared with: what is sent, without the query.
std::string cookiePath(const std::string& target) { return target.substr(0, target.find('?')); }

// "a=1; b=2", behind what the user's own header holds.
std::string cookieHeader(const std::string& own, const Poco::Net::NameValueCollection& cookies) {
  std::string line = own;
  for (const auto& [name, value] : cookies) {
    if (!line.empty()) line += "; ";
    line.append(name).append("=").append(value);
  }
  return line;
}

}  // namespace

void HTTPClient::ClientSessionThread::createRequest(Poco::Net::HTTPRequest& httpRequest,
                                                    request& req, unsigned int bodySize) {
  if (req.redirectsTaken == 0) req.bodySize = bodySize;
  const bool home = atConfiguredServer();
  if (home) addCookies(httpRequest, req);
  if (home && owner.options.useServerAuthentication && !req.headers.contains("authorization")) {
    Poco::Net::HTTPBasicCredentials(owner.options.username, owner.options.password)
        .authenticate(httpRequest);
  }
  const auto setDefault = [&](const char* name, const std::string& value) {
    if (!req.headers.contains(name)) httpRequest.set(name, value);
  };
  setDefault("accept", "*/*");
  setDefault("accept-encoding", "identity, gzip, deflate");
  setDefault("user-agent", userAgent);
  setDefault("accept-charset", "utf-8");
  for (const auto& [name, value] : req.headers) {
    if (name == "cookie" || (!home && isForConfiguredServerOnly(name))) continue;
    // A form has completed its own content type, boundary included.
    if (name == "content-type" && httpRequest.has(name)) continue;
    httpRequest.set(name, value);
  }
  logRequest(httpRequest, req);
}

void HTTPClient::ClientSessionThread::addCookies(Poco::Net::HTTPRequest& httpRequest,
                                                 const request& req) {
  const auto own = req.headers.find("cookie");
  const std::string line =
      cookieHeader(own == req.headers.end() ? std::string() : own->second,
                   owner.cookies.getCookiesFromRequest(req.cookies, cookiePath(req.target)));
  if (!line.empty()) httpRequest.set("Cookie", line);
}

void HTTPClient::ClientSessionThread::logRequest(const Poco::Net::HTTPRequest& httpRequest,
                                                 const request& req) const {
  if (!owner.getLogger().enabled(Level::Trace)) return;
  for (const auto& [name, value] : httpRequest) {
    transportLog(Level::Trace, "   request header %s = %s", name.c_str(),
                 isSecret(name) ? "<hidden>" : convertFromISO88591(value).c_str());
  }
  const bool empty = req.payload.tag() == QOR_BUFFER && get<buffer_t>(req.payload).empty();
  transportLog(Level::Trace, "   request payload: %s",
               empty ? "<no payload>" : toText(req.payload).c_str());
}

}  // namespace connectivity::plugins
