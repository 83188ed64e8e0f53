// The keys of the objects that stand for values which JSON lacks.
#pragma once

namespace host {

inline constexpr const char* numberDoubleKey = "$numberDouble";
inline constexpr const char* numberDecimalKey = "$numberDecimal";
inline constexpr const char* binaryKey = "$binary";
inline constexpr const char* mapKey = "$map";

}  // namespace host
