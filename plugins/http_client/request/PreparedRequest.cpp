#include "plugins/http_client/request/PreparedRequest.hpp"

#include <string_view>

#include <Poco/Net/HTTPBasicCredentials.h>
#include <Poco/Net/HTTPRequest.h>

#include "connectivity/value_access.hpp"
#include "plugins/http_client/config/ConfiguredOptions.hpp"
#include "plugins/http_client/request/RequestTarget.hpp"
#include "plugins/http_client/text/CharacterSets.hpp"
#include "plugins/http_client/text/HeaderRules.hpp"

namespace connectivity::plugins {

namespace {

constexpr const char* proxyAuthorizationName = "proxy-authorization";

const std::string* headerOf(const request& req, const char* name) {
  const auto found = req.headers.find(name);
  return found == req.headers.end() ? nullptr : &found->second;
}

}  // namespace

// The lines of a head, one behind the other.
class HeadWriter::Fields {
 public:
  explicit Fields(std::string& head) noexcept : _head(head) {}

  void add(std::string_view name, std::string_view value) {
    _head.append(name).append(": ").append(value).append("\r\n");
  }

 private:
  std::string& _head;
};

std::string basicAuthorization(const std::string& username, const std::string& password) {
  Poco::Net::HTTPRequest carrier;
  Poco::Net::HTTPBasicCredentials(username, password).authenticate(carrier);
  return carrier.get(Poco::Net::HTTPRequest::AUTHORIZATION);
}

HeadWriter::HeadWriter(const ConfiguredOptions& options, Cookies& cookies, const WorkerLog& log)
    : _authorization(
          options.authentication.used()
              ? basicAuthorization(options.authentication.username, options.authentication.password)
              : std::string()),
      _cookies(cookies),
      _log(log) {}

PreparedRequest HeadWriter::createRequest(const request& req, const RequestBody& body,
                                          const Destination& destination) const {
  PreparedRequest prepared;
  prepared.body = &body;
  // The target of a redirect stands for itself.
  const bool hasQuery = req.redirectsTaken == 0 && !body.query().empty();
  prepared.target = hasQuery ? withQuery(req.hop.target, body.query()) : req.hop.target;
  std::string& head = prepared.head;
  head.reserve(512);
  head.append(req.hop.method).append(" ").append(destination.absolutePrefix);
  head.append(prepared.target).append(" HTTP/1.1\r\n");
  Fields fields(head);
  const bool home = destination.isConfiguredServer;
  const std::string* host = home ? headerOf(req, "host") : nullptr;
  fields.add("Host", host == nullptr ? destination.hostField : *host);
  if (body.isFramed()) fields.add("Content-Length", std::to_string(body.size()));
  if (home) addCookies(fields, req, prepared.target);
  if (home && !_authorization.empty() && headerOf(req, "authorization") == nullptr) {
    fields.add("Authorization", _authorization);
  }
  addDefaults(fields, req);
  addUserHeaders(fields, req, body, destination);
  addProxyFields(fields, req, destination, prepared);
  head.append("\r\n");
  logRequest(prepared, req);
  return prepared;
}

// Cookies are compared with the path that is sent, without the query.
void HeadWriter::addCookies(Fields& fields, const request& req, const std::string& target) const {
  const std::string* own = headerOf(req, "cookie");
  const std::string line = _cookies.getCookiesFromRequest(
      req.cookies, own == nullptr ? std::string_view() : *own, target.substr(0, target.find('?')));
  if (!line.empty()) fields.add("Cookie", line);
}

void HeadWriter::addDefaults(Fields& fields, const request& req) const {
  const auto addDefault = [&](const char* name, std::string_view value) {
    if (headerOf(req, name) == nullptr) fields.add(name, value);
  };
  addDefault("accept", "*/*");
  addDefault("accept-encoding", "identity, gzip, deflate");
  addDefault("user-agent", _userAgent);
  addDefault("accept-charset", "utf-8");
}

void HeadWriter::addUserHeaders(Fields& fields, const request& req, const RequestBody& body,
                                const Destination& destination) const {
  // A form has completed its own content type, boundary included.
  if (!body.contentType().empty()) fields.add("Content-Type", body.contentType());
  for (const auto& [name, value] : req.headers) {
    const bool written = name == "host" || name == "cookie" || name == proxyAuthorizationName ||
                         (name == "content-type" && !body.contentType().empty());
    const bool withheld = !destination.isConfiguredServer && isForConfiguredServerOnly(name);
    if (!written && !withheld) fields.add(name, value);
  }
}

void HeadWriter::addProxyFields(Fields& fields, const request& req, const Destination& destination,
                                PreparedRequest& prepared) const {
  const std::string* own = headerOf(req, proxyAuthorizationName);
  switch (destination.proxyReads) {
    case ProxyReads::Nothing:
      if (own != nullptr) {
        _log.transportLog(Level::Warn, "Ignoring HTTP header %s because no proxy is configured",
                          proxyAuthorizationName);
      }
      break;
    case ProxyReads::Connect:
      if (own != nullptr) prepared.tunnelAuthorization = *own;
      break;
    case ProxyReads::EachRequest:
      fields.add("Proxy-Connection", "keep-alive");
      if (own != nullptr) {
        fields.add("Proxy-Authorization", *own);
      } else if (!destination.proxyAuthorization.empty()) {
        fields.add("Proxy-Authorization", destination.proxyAuthorization);
      }
      break;
  }
}

void HeadWriter::logRequest(const PreparedRequest& prepared, const request& req) const {
  if (!_log.enabled(Level::Trace)) return;
  std::string_view rest = prepared.head;
  rest.remove_prefix(rest.find("\r\n") + 2);
  for (std::size_t end = rest.find("\r\n"); end > 0; end = rest.find("\r\n")) {
    const std::string_view line = rest.substr(0, end);
    const std::string name(line.substr(0, line.find(':')));
    const std::string value(line.substr(name.size() + 2));
    _log.transportLog(Level::Trace, "   request header %s = %s", name.c_str(),
                      isSecret(name) ? "<hidden>" : convertFromISO88591(value).c_str());
    rest.remove_prefix(end + 2);
  }
  const bool empty = req.payload.tag() == QOR_BUFFER && get<buffer_t>(req.payload).empty();
  _log.transportLog(Level::Trace, "   request payload: %s",
                    empty ? "<no payload>" : toText(req.payload).c_str());
}

}  // namespace connectivity::plugins
