// One persistent session and the response that it received last, for the tests of sessions.
#pragma once

#include <istream>
#include <iterator>
#include <memory>
#include <string>
#include <utility>

#include <Poco/Net/HTTPRequest.h>
#include <Poco/Net/HTTPResponse.h>
#include <Poco/Timespan.h>

#include "plugins/http_client/wire/PersistentSession.hpp"

namespace connectivity::plugins {

// A whole response of two bytes.
inline constexpr const char* ok = "HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\nok";

inline std::string readAll(std::istream& stream) {
  return {std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()};
}

// As the transport sets its sessions up. The time-out is long for what must not happen; nothing
// waits for it.
inline void setUp(PersistentSession& session) {
  session.poco().setKeepAlive(true);
  session.poco().setTimeout(Poco::Timespan(30, 0));
}

struct SessionClient {
  explicit SessionClient(std::unique_ptr<PersistentSession> itsSession)
      : session(std::move(itsSession)) {
    setUp(*session);
  }

  ResponseBody& exchange(Poco::Net::HTTPRequest& request, const std::string& body = {}) {
    std::ostream& stream = session->sendRequest(request);
    if (!body.empty()) stream.write(body.data(), static_cast<std::streamsize>(body.size()));
    return session->receiveResponse(response);
  }
  ResponseBody& get(const std::string& target = "/", const std::string& method = "GET") {
    Poco::Net::HTTPRequest request(method, target, "HTTP/1.1");
    return exchange(request);
  }
  ResponseBody& post(const std::string& body) {
    Poco::Net::HTTPRequest request("POST", "/", "HTTP/1.1");
    request.setContentLength64(static_cast<Poco::Int64>(body.size()));
    return exchange(request, body);
  }

  std::unique_ptr<PersistentSession> session;
  Poco::Net::HTTPResponse response;
};

}  // namespace connectivity::plugins
