#include "tests/support/TemporaryDirectory.hpp"

#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <system_error>

namespace test_support {

TemporaryDirectory::TemporaryDirectory() {
  std::string name = (std::filesystem::temp_directory_path() / "orrery-test-XXXXXX").string();
  if (::mkdtemp(name.data()) == nullptr) {
    throw std::system_error(errno, std::generic_category(), "mkdtemp");
  }
  _path = name;
}

TemporaryDirectory::~TemporaryDirectory() {
  std::error_code ignored;
  std::filesystem::remove_all(_path, ignored);
}

std::string TemporaryDirectory::write(std::string_view name, std::string_view content) const {
  const auto target = _path / name;
  std::filesystem::create_directories(target.parent_path());
  std::ofstream out(target, std::ios::binary);
  out.write(content.data(), static_cast<std::streamsize>(content.size()));
  out.close();
  if (!out) throw std::runtime_error("Cannot write " + target.string());
  return target.string();
}

std::string readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) throw std::runtime_error("Cannot read " + path);
  return {std::istreambuf_iterator<char>(in), {}};
}

}  // namespace test_support
