// How a command says on standard error that it cannot go on.
#pragma once

#include <cstdio>
#include <exception>
#include <string_view>

#include "orrery/runtime/Escaping.hpp"

namespace host {

// The text may be of any origin, a server's included. It may have several lines.
inline void complain(std::string_view text) {
  std::fprintf(stderr, "orrery-host: %s\n", runtime::escaped(text, "\n").c_str());
}
inline void complain(const std::exception& error) { complain(error.what()); }

}  // namespace host
