// orrery-host request: one request without a chain file, for trying things out.
#pragma once

#include "host/program/ExitStatus.hpp"
#include "host/request/RequestMessage.hpp"

namespace host {

// Sends the request through the transport and prints the answer: its body; with `include` its
// status line and headers before it; with `json` the whole response message instead. What the
// transport says where there is no response goes to standard error.
//
// Success for a status of 200 to 399, else NoSuccess. UsageError where an option is wrong,
// std::runtime_error where the transport could not start or standard output could not be written.
ExitStatus request(const RequestOptions& options);

}  // namespace host
