// Reading values: the strict get<T>, the lenient convert_to<T>, and text for people.
//
// Failures are std::runtime_error with the texts given below; the value read is never changed. A
// value above the last tag is of the kind "unknown" and is nothing that can be read.
#pragma once

#include <string>
#include <type_traits>
#include <typeinfo>

#include "connectivity/data_t.hpp"

namespace connectivity {

namespace get_details {

// The names of alternatives in messages.
inline const char* nameOf(const bool*) noexcept { return "boolean"; }
inline const char* nameOf(const double*) noexcept { return "double"; }
inline const char* nameOf(const long long*) noexcept { return "integer"; }
inline const char* nameOf(const decimal_t*) noexcept { return "decimal"; }
inline const char* nameOf(const char* const*) noexcept { return "string"; }
inline const char* nameOf(const std::string*) noexcept { return "string"; }
inline const char* nameOf(const list_t*) noexcept { return "list"; }
inline const char* nameOf(const map_t*) noexcept { return "map"; }
inline const char* nameOf(const buffer_t*) noexcept { return "buffer"; }
inline const char* nameOf(const custom_t*) noexcept { return "custom"; }

[[noreturn]] void throwEmpty();
// Writes the line to standard error, then throws.
[[noreturn]] void throwIncorrectType(const std::type_info& asked, const char* askedName,
                                     const char* actualName);

// What get<T> gives: texts by value, because they must not be changed in place.
template <typename T, bool isConst>
using Result = std::conditional_t<std::is_same_v<T, std::string> || std::is_same_v<T, const char*>,
                                  T, std::conditional_t<isConst, const T&, T&>>;

// A string is held as const char*, also where a std::string is asked for.
template <typename T>
using Held = std::conditional_t<std::is_same_v<T, std::string>, const char*, T>;

template <typename T, bool isConst>
class GetVisitor {
 public:
  using Alternative = std::conditional_t<isConst, const Held<T>, Held<T>>;

  Result<T, isConst> operator()() const { throwEmpty(); }
  Result<T, isConst> operator()(Alternative& held) const { return Result<T, isConst>(held); }
  template <typename Other>
  Result<T, isConst> operator()(const Other&) const {
    return refuse(nameOf(static_cast<const Other*>(nullptr)));
  }
  Result<T, isConst> unknown() const { return refuse("unknown"); }

 private:
  [[noreturn]] static Result<T, isConst> refuse(const char* actualName) {
    throwIncorrectType(typeid(T), nameOf(static_cast<const T*>(nullptr)), actualName);
  }
};

}  // namespace get_details

// The held alternative. T is one of bool, double, long long, decimal_t, list_t, map_t, buffer_t,
// custom_t (a reference into the value), const char* (the value's text, of either kind of string,
// valid as long as the value) or std::string (a copy of the text). Errors:
//   "Get from empty"
//   "Incorrect type in get (you asked for integer but it's actually boolean)"; before it, one line
//   is written to standard error: "GetVisitor<x>.operator()(x)", x the type-information name of T.
// Names of alternatives: boolean, double, integer, decimal, string, list, map, buffer, custom.
template <typename T>
get_details::Result<T, false> get(data_t& value) {
  return value.apply_visitor(get_details::GetVisitor<T, false>());
}
template <typename T>
get_details::Result<T, true> get(const data_t& value) {
  return value.apply_visitor(get_details::GetVisitor<T, true>());
}
// A reference into a value that is about to end would dangle.
template <typename T>
void get(data_t&& value) = delete;

inline std::string getString(const data_t& value) { return get<std::string>(value); }

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
// and buffers as bufferToString has them. A list or map that changes meanwhile raises the errors of
// details::ListWalk and map_t's iterators.
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
// carriage return; otherwise "<N bytes>". "Out of bounds" where the block's length does not fit in
// 32 bits.
std::string bufferToString(const buffer_t& buffer);

}  // namespace connectivity
