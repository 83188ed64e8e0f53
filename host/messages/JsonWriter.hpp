// Values of the data model as JSON text, the inverse of JsonReader with Forms::Extended.
//
// Compact (no white space); object keys in ascending order of their bytes, so that two texts can be
// compared. A map whose keys are all texts is an object; any other map is a $map, its pairs in
// ascending order of the keys' kind (as the tags are numbered), numbers among themselves by value
// and others by their JSON text. A double always has a fraction or an exponent, and is the shortest
// that reads back as the same; NaN and the infinities are $numberDouble. Bytes of a text that are
// not UTF-8 become U+FFFD. A custom value is the string of its text.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "connectivity/data_t.hpp"

namespace host {

// Appends to a text that belongs to somebody else. Keeps its working memory between values. Used by
// one thread at a time.
class JsonWriter {
 public:
  explicit JsonWriter(std::string& out) : _out(out) {}

  void write(const connectivity::data_t& value);
  void write(const connectivity::map_t& map);
  // The text as a JSON string.
  void writeString(std::string_view text);

 private:
  struct Entry {
    const connectivity::data_t* key;
    const connectivity::data_t* value;
  };

  void writeDouble(double value);
  void writeInteger(long long value);
  void writeDecimal(connectivity::decimal_t value);
  void writeBinary(std::string_view bytes);
  void writeList(const connectivity::list_t& list);
  void writeObject(std::size_t firstEntry);
  void writePairs(std::size_t firstEntry);
  void writeEscaped(unsigned char character);
  void writeNonAscii(std::string_view& rest);

  std::string& _out;
  std::vector<Entry> _entries;  // of the maps that are being written, the innermost last
};

// The value as JSON text.
std::string toJson(const connectivity::data_t& value);

}  // namespace host
