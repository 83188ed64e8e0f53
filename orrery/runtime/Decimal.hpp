// Decimal numbers as text: IEEE 754-2008 decimal64 in its binary integer encoding.
//
// A decimal keeps its quantum: 1.5 and 1.50 are different decimals of one value. The text is the
// scientific string of the General Decimal Arithmetic (to-scientific-string), so that
// decimalFromText(decimalToText(x)) gives x for every finite number in canonical encoding.
// Free of dependencies; any thread.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace runtime {

// "1.50", "-0.00", "1.5E+20", "Infinity", "-Infinity"; every NaN is "NaN". A coefficient above
// 9999999999999999, which is not canonical, counts as 0.
std::string decimalToText(std::uint64_t bits);

// [sign] digits [. digits] [(e|E) [sign] digits], or "Infinity", "Inf" or "NaN" in any case. None
// where the text is anything else, or the number has more than 16 digits (leading zeros not
// counted) or does not fit without rounding.
std::optional<std::uint64_t> decimalFromText(std::string_view text);

}  // namespace runtime
