// A folder in which the examples of the documents run as they would in the project's, and the
// program on files in it.
#pragma once

#include <filesystem>
#include <string>
#include <string_view>

#include "tests/support/TemporaryDirectory.hpp"

namespace docs_tests {

// The working directory of the process while it lives, with build/release as this build, and the
// project's documents and sources beside it.
class Sandbox {
 public:
  Sandbox();
  ~Sandbox();
  Sandbox(const Sandbox&) = delete;
  Sandbox& operator=(const Sandbox&) = delete;

  std::string file(std::string_view name) const { return _directory.file(name); }
  std::string write(std::string_view name, std::string_view content) const {
    return _directory.write(name, content);
  }

 private:
  const test_support::TemporaryDirectory _directory;
  const std::filesystem::path _before;
};

struct Outcome {
  int status;
  std::string output;
  std::string errors;
};

// `orrery-host check` on a chain file of this text.
Outcome checkChainFile(const Sandbox& sandbox, const std::string& text);

}  // namespace docs_tests
