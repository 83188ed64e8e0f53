// JSON text (RFC 8259) as a value of the data model.
//
// null, true, false, strings, arrays and objects become the like-named values. A number without
// fraction or exponent that fits in a signed 64-bit integer becomes one, every other number a
// double (rounded to nearest). With Forms::Extended these objects stand for values that JSON lacks,
// in the notation of MongoDB Extended JSON v2:
//
//   {"$numberDouble": "NaN"}     "Infinity", "-Infinity", or a number    double
//   {"$numberDecimal": "1.50"}   at most 16 digits                      decimal
//   {"$binary": {"base64": "…", "subType": "00"}}                       buffer
//   {"$map": [[key, value], …]}  (this project's own)                   map with keys of any kind
//
// An object that holds one of these four keys must be exactly the form. Other keys that begin with
// "$" are ordinary.
//
// Refused: whatever is not JSON or not UTF-8; a repeated key; the character U+0000, which a string
// value cannot hold; a number too large for a double; more than 1000 levels; a $map of more than
// 10,000 keys that are no texts. Time goes with the length of the text, however keys stand in keys.
#pragma once

#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>

#include "connectivity/data_t.hpp"

namespace host {

class JsonError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// Keeps its working memory between texts. Used by one thread at a time.
class JsonReader {
 public:
  enum class Forms { Extended, Plain };

  explicit JsonReader(Forms forms);
  ~JsonReader();
  JsonReader(const JsonReader&) = delete;
  JsonReader& operator=(const JsonReader&) = delete;

  // The whole text is one value, with white space around it at most. JsonError tells what is wrong
  // and, where the text is not JSON, at which byte (counted from 1).
  connectivity::data_t read(std::string_view text);

 private:
  class Parser;
  std::unique_ptr<Parser> _parser;
};

}  // namespace host
