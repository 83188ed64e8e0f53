// What is wrong with a chain file, and where.
#pragma once

#include <stdexcept>
#include <string>

namespace host {

// what() is "FILE:LINE: KEY: text"; without a line (0) or a key, those parts are missing. Lines
// count from 1.
class ChainFileError : public std::runtime_error {
 public:
  ChainFileError(const std::string& file, int line, const std::string& key, const std::string& text)
      : std::runtime_error(file + (line > 0 ? ":" + std::to_string(line) : "") + ": " +
                           (key.empty() ? "" : key + ": ") + text) {}
};

}  // namespace host
