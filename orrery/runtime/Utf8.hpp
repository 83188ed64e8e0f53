// UTF-8 (RFC 3629): no overlong forms, no surrogates, nothing above U+10FFFF.
//
// Pure functions; any thread may call them.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace runtime {

// The number of bytes of the valid sequence at the front of `text` (1 to 4), or 0 where there is
// none. REQUIRES: `text` is not empty.
std::size_t utf8SequenceLength(std::string_view text) noexcept;

// Whether the whole text is valid. The empty text is.
bool isUtf8(std::string_view text) noexcept;

// The text with its control characters written out, as a log or a terminal gets it: one line stays
// one line, and nothing moves a terminal's cursor. They are C0, DEL, and C1 (U+0080 to U+009F):
//   "a\n\x1B[2J\xC2\x9B" -> "a\\n\\x1b[2J\\u009b"
// What is no UTF-8 stays as it is.
std::string withoutControls(std::string_view text);

}  // namespace runtime
