// A directory of its own for a test, removed with everything in it.
#pragma once

#include <filesystem>
#include <string>
#include <string_view>

namespace test_support {

class TemporaryDirectory {
 public:
  TemporaryDirectory();
  ~TemporaryDirectory();
  TemporaryDirectory(const TemporaryDirectory&) = delete;
  TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;

  const std::filesystem::path& path() const noexcept { return _path; }
  // The path of a file in it, whether it exists or not.
  std::string file(std::string_view name) const { return (_path / name).string(); }
  // Writes a file (and the folders above it) and gives its path.
  std::string write(std::string_view name, std::string_view content) const;

 private:
  std::filesystem::path _path;
};

// The whole content of a file. Throws std::runtime_error where it cannot be read.
std::string readFile(const std::string& path);

}  // namespace test_support
