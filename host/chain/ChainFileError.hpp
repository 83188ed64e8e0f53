// What is wrong with a chain file, and where.
#pragma once

#include <stdexcept>
#include <string>

namespace host {

// Counted from 1; 0: unknown.
struct FilePosition {
  int line = 0;
  int column = 0;
};

// what() is "FILE:LINE:COLUMN: KEY: text"; without a position or a key, those parts are missing.
class ChainFileError : public std::runtime_error {
 public:
  ChainFileError(const std::string& file, FilePosition at, const std::string& key,
                 const std::string& text)
      : std::runtime_error(file + describe(at) + ": " + (key.empty() ? "" : key + ": ") + text) {}

 private:
  static std::string describe(FilePosition at) {
    if (at.line == 0) return {};
    return ":" + std::to_string(at.line) + ":" + std::to_string(at.column);
  }
};

}  // namespace host
