// One worker of the transport's fixed pool: a thread with one persistent HTTP session.
//
// The worker takes requests from the transport's queue, performs each on its session, and hands
// back exactly one answer for each. Everything below run() happens on the worker's own thread,
// except the constructor, which opens the first session on the host's control thread.
//
// The member functions stand in the files of this folder, one for each step of a request's way:
//   ClientSessionThread.cpp  the loop
//   SessionSetup.cpp         opening and resetting the session
//   RequestReading.cpp       message -> request record, or a refusal
//   Exchange.cpp             record -> HTTP exchange, with its one retry
//   RequestHeaders.cpp       cookies, credentials, default and user headers
//   ContentEncoding.cpp      the body, framed and coded (FormBody.cpp: forms)
//   ResponseReading.cpp      the response's body, decoded and limited
//   Redirects.cpp            following a Location
//   ResponseDelivery.cpp     the answer, or the error, towards the host
#pragma once

#include <atomic>
#include <cstdint>
#include <istream>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include <Poco/Net/HTTPRequest.h>
#include <Poco/Net/HTTPResponse.h>

#include "connectivity/data_t.hpp"
#include "orrery/SchedulableQueue.hpp"
#include "orrery/Thread.hpp"
#include "plugins/http_client/HTTPClient.hpp"
#include "plugins/http_client/MediaTypes.hpp"
#include "plugins/http_client/PersistentSession.hpp"

namespace connectivity::plugins {

class HTTPClient::ClientSessionThread final : public orrery::Thread {
 public:
  struct request;
  class ContentEncoding;

  // Opens the session; its failure is the constructor's.
  ClientSessionThread(HTTPClient& owner, unsigned index);
  ~ClientSessionThread() override;

  unsigned workerIndex() const noexcept { return index; }
  // The queue in which the host wants this worker's requests counted; null until the first batch.
  std::atomic<orrery::SchedulableQueue*> schedulableQueue{nullptr};

 protected:
  void run() override;

 private:
  friend class ContentEncoding;

  template <typename... Arguments>
  void transportLog(Level level, const char* format, Arguments... arguments) const {
    owner.getLogger().logForWorker(index, level, format, arguments...);
  }

  // SessionSetup.cpp. Opens a session to `host`; the old one stays where that fails.
  void setSession(const std::string& host, std::uint64_t port);
  // Drops the session's connection, and whatever it may still hold, before its next request.
  void resetSession();

  // RequestReading.cpp. Performs one request and answers it, whatever happens. Never throws.
  void processRequest(Message&& message) noexcept;
  request readRequest(Message& message, double startTime) const;

  // Exchange.cpp. Never throws: a failure becomes the request's error response.
  void handleRequest(request&& req) noexcept;
  void exchange(request& req);

  // RequestHeaders.cpp. Completes the header of `httpRequest` and logs it.
  void createRequest(Poco::Net::HTTPRequest& httpRequest, request& req, unsigned int bodySize);

  // ResponseReading.cpp. The bytes of `buffer` that are the body.
  unsigned int processResponse(Poco::Net::HTTPResponse& response, ResponseBody& body,
                               std::vector<char>& buffer, request& req);

  // Redirects.cpp. True when the redirect was followed, and so answered.
  bool processRedirectResponse(const Poco::Net::HTTPResponse& response, request& req);

  // ResponseDelivery.cpp.
  void sendResponse(const Poco::Net::HTTPResponse& response, buffer_t&& payload, request& req);
  void sendError(data_t&& requestId, const char* message, data_t&& path, data_t&& method,
                 double startTime, data_t&& requestSentTime, long long statusCode);
  void handleHTTPException(const char* name, const char* message, request&& req,
                           long long statusCode);

  HTTPClient& owner;
  std::unique_ptr<PersistentSession> session;
  std::string scheme = "http";
  const std::string userAgent = "Orrery/10.15 (armv7-debian10)";
  const std::set<std::string> methodsWithoutBody = {"DELETE", "HEAD", "TRACE"};
  const unsigned index;
  std::vector<char> responseBuffer;  // reused from response to response
};

}  // namespace connectivity::plugins
