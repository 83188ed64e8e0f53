// orrery-host demo: the transport at work against a server of the program's own.
#pragma once

#include "host/program/ExitStatus.hpp"

namespace host {

// Starts an HTTP server on a free loopback port, sends it requests of every kind through the
// transport, prints some of the responses and a table of the status items. Success only where every
// request got exactly one answer, and each the expected one. std::exception where it cannot start.
ExitStatus demo();

}  // namespace host
