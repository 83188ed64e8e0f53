// The record of one request while a worker performs it.
//
// Move-only; belongs to the worker that performs the request.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <utility>

#include "connectivity/data_t.hpp"

namespace connectivity::plugins {

// How much of a response is wanted.
struct ResponseLimit {
  long long maxResponseKB = -1;   // kilobytes of 1000 bytes; negative: no limit
  std::string maxResponsePolicy;  // REJECT, TRUNCATE_END or TRUNCATE_START
};

// What is asked next, and of whom: the request as it was given, or what a redirect made of it.
struct Hop {
  std::string method;  // upper case
  std::string target;  // encoded path and query; begins with "/"
};

struct request {
  using Texts = std::map<std::string, std::string>;
  using Deadline = std::chrono::steady_clock::time_point;

  // Moves everything in, then checks the payload: a map or a buffer, else RefusedRequest with the
  // text payloadRefusal. The method and the path are strings, checked by the caller.
  request(data_t&& body, data_t&& id, data_t&& httpMethod, data_t&& requestPath,
          Texts&& headerTexts, Texts&& query, Texts&& cookieTexts, data_t&& formMetadata,
          double start, ResponseLimit responseLimit);

  const char* pathText() const noexcept { return path.text(); }
  static void checkPayload(const data_t& payload);

  data_t payload;          // a buffer, or the fields of a form
  data_t requestId;        // given back unchanged
  data_t method;           // a string
  data_t path;             // a string, as the request gave it
  Texts headers;           // lower-case names, values as they go over the wire
  Texts queryParameters;   // names and values as given, not encoded
  Texts cookies;           // for this request only, as they go over the wire
  data_t form;             // the form metadata: a map, or empty where the request is not a form
  double startTime;        // seconds on the host's monotonic clock, read before anything else
  data_t requestSentTime;  // given back unchanged; empty where the request has none
  Hop hop;                 // its target is empty until it is built
  long long redirectLimit = 9;
  long long redirectsTaken = 0;
  ResponseLimit limit;
  std::optional<Deadline> deadline;
};

}  // namespace connectivity::plugins
