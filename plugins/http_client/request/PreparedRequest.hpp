// A request as it goes to one server: what is sent, and sent again from for a second attempt.
//
// The body is made once for each request; the head once for each server that it meets, since
// cookies and credentials differ.
#pragma once

#include <optional>
#include <string>

#include "plugins/http_client/request/Destination.hpp"
#include "plugins/http_client/request/Request.hpp"
#include "plugins/http_client/request/RequestBody.hpp"
#include "plugins/http_client/shared/Cookies.hpp"
#include "plugins/http_client/shared/WorkerLog.hpp"

namespace connectivity::plugins {

struct ConfiguredOptions;

struct PreparedRequest {
  std::string target;  // as in the request line, without what a proxy needs in front
  std::string head;    // request line and fields, with the empty line
  const RequestBody* body = nullptr;
  // For the tunnel of a proxy, in place of the configured credentials.
  std::optional<std::string> tunnelAuthorization;
};

// Writes heads. One for each worker; its thread's. Everything given is borrowed.
class HeadWriter {
 public:
  HeadWriter(const ConfiguredOptions& options, Cookies& cookies, const WorkerLog& log);

  // The request with its cookies, credentials and default headers, for one server. Logs every
  // header and the payload at level 6; secrets are shown as "<hidden>".
  //
  // The configured server alone gets credentials, cookies, and the user's authorization, cookie and
  // host headers. A user's proxy-authorization goes only where a proxy reads it; where none does,
  // that is reported at level 3.
  PreparedRequest createRequest(const request& req, const RequestBody& body,
                                const Destination& destination) const;

 private:
  class Fields;

  void addCookies(Fields& fields, const request& req, const std::string& target) const;
  void addDefaults(Fields& fields, const request& req) const;
  void addUserHeaders(Fields& fields, const request& req, const RequestBody& body,
                      const Destination& destination) const;
  void addProxyFields(Fields& fields, const request& req, const Destination& destination,
                      PreparedRequest& prepared) const;
  void logRequest(const PreparedRequest& prepared, const request& req) const;

  const std::string _authorization;  // the server's, configured; empty: none
  const std::string _userAgent = "Orrery/10.15 (armv7-debian10)";
  Cookies& _cookies;
  const WorkerLog& _log;
};

// "Basic dXNlcjpwYXNz"
std::string basicAuthorization(const std::string& username, const std::string& password);

}  // namespace connectivity::plugins
