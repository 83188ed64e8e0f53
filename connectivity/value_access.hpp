// Reading values: the strict get<T>, the lenient convert_to<T>, and text for people.
//
// Failures are std::runtime_error with the texts given below; the value read is never changed.
#pragma once

#include <string>

#include "connectivity/data_t.hpp"

namespace connectivity {

// A reference to the held alternative. T is one of bool, double, long long, decimal_t, list_t,
// map_t, buffer_t, custom_t; or const char* or std::string (both kinds of string; std::string is a
// copy, returned by value). Errors:
//   "Get from empty"
//   "Incorrect type in get (you asked for integer but it's actually boolean)"; before it, one line
//   is written to standard error: "GetVisitor<x>.operator()(x)", x the type-information name of T.
// Names of alternatives: boolean, double, integer, decimal, string, list, map, buffer, custom.
template <typename T>
T& get(data_t& value);
template <typename T>
const T& get(const data_t& value);
template <>
const std::string& get<std::string>(const data_t& value) = delete;
std::string getString(const data_t& value);

// To long long: an integer as it is, a string through strtoll (base 10, so text that is no number
// is 0). To std::string: a boolean as "true" or "false", a double by "%g", an integer by "%lld", a
// string as it is. Errors:
//   "Trying to parse from empty"
//   "Trying to parse from incorrect type (actually map)" (the names of get)
template <typename T>
T convert_to(const data_t& value);
template <>
long long convert_to<long long>(const data_t& value);
template <>
std::string convert_to<std::string>(const data_t& value);

// The name of the held alternative as in the messages above; "empty" for an empty value.
const char* kindOf(const data_t& value) noexcept;

// Text for logs: "(null)" for empty, strings bare, [a, b] for lists, {key=value, ...} for maps in
// iteration order, %g and %lld for numbers, a decimal as its number, "(custom)" for custom values,
// and buffers as bufferToString has them.
class Data_tToString {
 public:
  std::string operator()() const;
  std::string operator()(bool value) const;
  std::string operator()(double value) const;
  std::string operator()(long long value) const;
  std::string operator()(decimal_t value) const;
  std::string operator()(const char* text) const;
  std::string operator()(const list_t& list) const;
  std::string operator()(const map_t& map) const;
  std::string operator()(const buffer_t& buffer) const;
  std::string operator()(const custom_t&) const;
  std::string unknown() const;
};
inline std::string toText(const data_t& value) { return value.apply_visitor(Data_tToString()); }

// The bytes, when they are valid UTF-8 without control characters other than tab, line feed and
// carriage return; otherwise "<N bytes>". std::out_of_range "Out of bounds" where the block's
// length does not fit in 32 bits.
std::string bufferToString(const buffer_t& buffer);

}  // namespace connectivity
