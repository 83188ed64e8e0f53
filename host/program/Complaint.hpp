// How a command says on standard error that it cannot go on.
#pragma once

#include <cstdio>
#include <exception>

namespace host {

inline void complain(const char* text) { std::fprintf(stderr, "orrery-host: %s\n", text); }
inline void complain(const std::exception& error) { complain(error.what()); }

}  // namespace host
