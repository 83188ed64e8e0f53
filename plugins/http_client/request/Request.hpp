// The record of one request while a worker performs it.
#pragma once

#include <map>
#include <string>
#include <utility>

#include "connectivity/data_t.hpp"
#include "plugins/http_client/worker/ClientSessionThread.hpp"

namespace connectivity::plugins {

// Move-only; owned by the worker that performs the request.
struct HTTPClient::ClientSessionThread::request {
  using Texts = std::map<std::string, std::string>;

  // Moves everything in, then checks the payload: a map or a buffer, else std::runtime_error
  // "HTTPClient payloads must be binary buffers or dictionary having string key and either string
  // or binary value (did you mean to use the StringCodec to encode a string to a buffer?)".
  request(data_t&& body, data_t&& id, data_t&& httpMethod, data_t&& requestPath,
          Texts&& headerTexts, Texts&& query, Texts&& cookieTexts, data_t&& formMetadata,
          double start, long long limitKB, std::string policy);

  // The method on the wire: the request's own, or what a redirect made of it.
  const std::string& methodText() const noexcept { return wireMethod; }
  const char* pathText() const noexcept { return path.text(); }
  static void checkPayload(const data_t& payload);

  data_t payload;             // a buffer, or the fields of a form
  data_t requestId;           // given back unchanged
  data_t method;              // a string, checked
  data_t path;                // a string, as the request gave it
  Texts headers;              // lower-case names, UTF-8 values
  Texts queryParameters;      // names and values as given, not encoded
  Texts cookies;              // for this request only
  std::string target;         // encoded path and query, once built
  data_t form;                // the form metadata: a map, or empty where the request is not a form
  bool formReported = false;  // what is odd about the form has been logged
  double startTime;           // seconds on the host's monotonic clock, read before anything else
  data_t requestSentTime;     // given back unchanged; empty where the request has none
  long long redirectLimit = 9;
  long long redirectsTaken = 0;
  long long maxResponseKB;        // kilobytes of 1000 bytes; negative: no limit
  std::string maxResponsePolicy;  // REJECT, TRUNCATE_END or TRUNCATE_START
  std::string wireMethod;         // upper case
  unsigned int bodySize = 0;      // bytes of the first exchange's body as sent, after compression
};

}  // namespace connectivity::plugins
