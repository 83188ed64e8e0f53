// Reads typed options out of a configuration map, and tells what nobody asked for.
//
// A reader works on a copy of the map and takes each option out of it as it is read; what is left
// at the end is unknown. Used by one thread. All errors are std::runtime_error and start, unless
// another text is given, with the subject that the constructor is given, a space, the option's path
// joined with "/" and a space; then one of:
//   must be a string|an integer|a boolean but it's actually <kind>    (null where there is no
//   value)
//   "<value>" is outside the range of 64 bits
//   "<value>" is not in the range between <least> and <most>
//   "<value>" is not in the range at least <least>
//   "<value>" is not in the enumeration <value>, <value> or <value>
//   "<value>" is not a bool
//   is an incorrectly nested map            (the path is that of the value that is no map)
#pragma once

#include <cstdint>
#include <limits>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "connectivity/data_t.hpp"
#include "connectivity/map_t.hpp"

namespace connectivity::plugins {

class OptionReader {
 public:
  // How an option is spelt: a path of map keys joined with "/", and perhaps an older one. Giving
  // both is the error "You cannot specify both <spelling> and <older>".
  struct Name {
    Name(const char* path) : spelling(path) {}  // NOLINT(google-explicit-constructor)
    Name(const char* path, const char* olderPath) : spelling(path), older(olderPath) {}
    std::string_view spelling;
    std::optional<std::string_view> older;
  };
  // Both ends belong to it. Without an upper end it is phrased "at least".
  struct Range {
    std::int64_t least = std::numeric_limits<std::int64_t>::min();
    std::int64_t most = std::numeric_limits<std::int64_t>::max();
  };

  // `subject` begins the error texts, as in "HTTPClient configuration".
  OptionReader(std::string subject, const map_t& configuration);

  // The option's value, or `absent`, which is not checked, where it is not given.

  // Takes numbers and booleans as their text, too.
  std::string text(const Name& name, std::string absent = {});
  // Takes a text that is an integer from end to end, too.
  std::int64_t integer(const Name& name, std::int64_t absent, const Range& range);
  std::int64_t integer(const Name& name, std::int64_t absent);
  // Takes the texts "true" and "false", too.
  bool boolean(const Name& name, bool absent);
  // One of `values`, spelt exactly so.
  std::string oneOf(const Name& name, std::span<const char* const> values, std::string absent);

  // The older spelling where the option is given under that, else the newer one; both for errors
  // that are found later. REQUIRES: the option has not been read, and is not nested.
  std::string_view spelling(const Name& name);

  // Throws where an entry has not been read: "Unknown configuration element <key>", with
  // " in <path>" where it is nested; all of them in ascending order, separated by "; ".
  void finish() const;

 private:
  std::optional<data_t> take(const Name& name, std::string& path);
  std::optional<data_t> take(std::string_view path);
  map_t* enter(map_t& map, std::string_view key, const std::string& path);
  void collectUnknown(const map_t& map, const std::string& path,
                      std::vector<std::string>& unknown) const;
  [[noreturn]] void fail(std::string_view path, const std::string& text) const;
  [[noreturn]] void failKind(std::string_view path, const char* expected,
                             const data_t& value) const;

  const std::string _subject;
  map_t _left;                    // what has not been read
  std::set<std::string> _nested;  // paths of the maps that options were looked for in
};

}  // namespace connectivity::plugins
