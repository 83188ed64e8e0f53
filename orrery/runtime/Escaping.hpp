// Text of any origin, made fit for a log or a terminal: one line stays one line, moves no cursor,
// and is valid UTF-8.
#pragma once

#include <string>
#include <string_view>

namespace runtime {

// Control characters as \n, \r, \t, \x1b or, from U+0080 to U+009F, \u0085; a byte that is not
// UTF-8 as \xff. Those of `kept` (ASCII) stay as they are. Any thread may call.
//   "a\nb\x1b[2J" -> "a\\nb\\x1b[2J"
std::string escaped(std::string_view text, std::string_view kept = {});

}  // namespace runtime
