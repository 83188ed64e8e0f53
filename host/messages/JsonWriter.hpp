// Values of the data model as JSON text, the inverse of JsonReader with Forms::Extended.
//
// Compact (no white space); object keys in ascending order of their bytes, so that two texts can be
// compared. A map whose keys are all texts is an object; any other map is a $map, its pairs in
// ascending order of the keys' kind (as the tags are numbered), numbers among themselves by value
// and others by their JSON text. A double always has a fraction or an exponent, and is the shortest
// that reads back as the same; NaN and the infinities are $numberDouble. Bytes of a text that are
// not UTF-8 become U+FFFD. Control characters are escaped, U+007F to U+009F too: the text may be
// shown on a terminal. A custom value is the string of its text.
//
// Depth costs no stack, and time goes with the length of the text, however keys stand in keys: each
// is written once.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "connectivity/data_t.hpp"
#include "host/messages/KeyTexts.hpp"

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
  // One of a map. Key and value are those of the map, which owns them: in the order in which
  // entries are written, the map's slots lie all over memory.
  struct Entry {
    qor_data_t key;
    qor_data_t value;
    std::uint64_t bytes = 0;   // by which an object's entries are ordered first
    KeyTexts::Text keyText{};  // of a pair's key
  };

  // A list or a map that is being written. A map that is no object is gone through twice: its keys
  // are written aside, to be ordered, and then the pairs.
  struct Level {
    enum class Kind { List, Object, Keys, Pairs };
    Kind kind;
    const connectivity::data_t* element = nullptr;  // the list's next, and its end
    const connectivity::data_t* end = nullptr;
    std::size_t first = 0;   // the map's entries stand from here to the end of _entries
    std::size_t next = 0;    // the next of them; of a list, how many have been begun
    KeyTexts::Text outer{};  // the text of the key that the map stands in, so far
    KeyTexts::Mark mark{};
  };

  void reset();
  void run();
  void begin(const connectivity::data_t& value);
  void begin(const connectivity::map_t& map);
  static constexpr std::size_t textsAhead = 8;
  static void prefetchText(std::span<const Entry> entries, std::size_t index) noexcept;
  static void orderTexts(std::span<Entry> entries);
  void continueList(Level& level);
  void continueObject(Level& level);
  void beginKeys(Level& level);
  void continueKeys(Level& level);
  void continuePairs(Level& level);
  void writeKey(const Entry& entry);
  void endMap(const Level& level, std::string_view closing);
  // Where to write now: within keys, aside.
  std::string& text() noexcept { return _keysAround == 0 ? _out : _keys.end(); }

  std::string& _out;
  std::vector<Level> _levels;    // the innermost last
  std::vector<Entry> _entries;   // of the maps among them
  std::size_t _keysAround = 0;   // levels whose keys are being written
  KeyTexts _keys;                // the texts of keys
  KeyTexts::Text _currentKey{};  // the innermost key that is being written, so far
};

// The value as JSON text.
std::string toJson(const connectivity::data_t& value);

}  // namespace host
