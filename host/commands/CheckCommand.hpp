// orrery-host check: whether the chains of a chain file could start.
#pragma once

#include <string>

#include "host/program/ExitStatus.hpp"

namespace host {

// Reads the file, creates each transport without starting it, and destroys it. Prints "OK" to
// standard output, or what is wrong with its transports to standard error; std::runtime_error where
// something is wrong with the file.
ExitStatus check(const std::string& chainFile);

}  // namespace host
