// Every way in which a request ends without a response, and what follows from it: one table.
//
// Pure; any thread may call.
#pragma once

#include <string>

namespace connectivity::plugins {

enum class FailureKind {
  Refused,           // the request cannot be sent as it was given
  Unreachable,       // no connection was made, by no attempt
  TunnelRefused,     // the proxy opens no tunnel, and none was open before
  NoAnswer,          // a connection was made, and no byte of an answer came
  BadAnswer,         // an answer began, and cannot be used
  LimitExceeded,     // the response is over its limit under REJECT
  RedirectFailed,    // a redirect should have been followed, and could not be
  DeadlineExceeded,  // the request's time is up
};

// What follows from a kind of failure.
struct FailureRow {
  FailureKind kind;
  int status;            // of the error answer
  const char* line;      // what the log line begins with
  bool setsFailed;       // whether the transport's status becomes FAILED
  bool isRequestSample;  // whether the request counts among the sizes of requests
  const char* mark;      // http.failure, where failures are marked
};

const FailureRow& rowOf(FailureKind kind) noexcept;

struct Failure {
  FailureKind kind = FailureKind::BadAnswer;
  std::string name;     // of the library's exception; empty where there is none
  std::string message;  // valid UTF-8

  const FailureRow& row() const noexcept { return rowOf(kind); }
  // The reason and the payload of the error answer: "<name>: <message>", or the one that there is.
  std::string text() const;
};

// The failure that the exception being handled tells of. REQUIRES: called from a catch handler.
Failure currentFailure(FailureKind kind);

}  // namespace connectivity::plugins
