// UTF-8 (RFC 3629): no overlong forms, no surrogates, nothing above U+10FFFF.
#pragma once

#include <cstddef>
#include <string_view>

namespace runtime {

// The number of bytes of the valid sequence at the front of `text` (1 to 4), or 0 where there is
// none. REQUIRES: `text` is not empty.
std::size_t utf8SequenceLength(std::string_view text) noexcept;

// Whether the whole text is valid. The empty text is.
bool isUtf8(std::string_view text) noexcept;

}  // namespace runtime
