// How a command says on standard error that it cannot go on: one line, whatever its text holds, for
// some of it may be a server's.
#pragma once

#include <cstdio>
#include <exception>

#include "orrery/runtime/Utf8.hpp"

namespace host {

inline void complain(const char* text) {
  std::fprintf(stderr, "orrery-host: %s\n", runtime::withoutControls(text).c_str());
}
inline void complain(const std::exception& error) { complain(error.what()); }

}  // namespace host
