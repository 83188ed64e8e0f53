// What the files that a chain file names have to be.
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <unistd.h>

#include "host/chain/ChainFile.hpp"
#include "host/chain/ChainFileError.hpp"

namespace host {

namespace {

bool isStandard(const PlacedText& stream) { return stream.text == "-"; }

bool isSameFile(const std::string& left, const std::string& right) {
  std::error_code error;
  if (std::filesystem::equivalent(left, right, error)) return true;
  return std::filesystem::weakly_canonical(left, error) ==
         std::filesystem::weakly_canonical(right, error);
}

// Whether writing to the file replaces what it holds: devices and pipes may be shared.
bool isReplacedByWriting(const std::string& path) {
  std::error_code error;
  const auto type = std::filesystem::status(path, error).type();
  return type == std::filesystem::file_type::regular ||
         type == std::filesystem::file_type::not_found;
}

class FileCheck {
 public:
  explicit FileCheck(const ChainFile& file) : _file(file) {}

  void run() const {
    for (std::size_t i = 0; i < _file.chains.size(); ++i) {
      const ChainDefinition& chain = _file.chains[i];
      if (chain.library) requireReadable(*chain.library);
      if (!isStandard(chain.input)) requireReadable(chain.input);
      requireDirectoryOf(chain.output);
      for (std::size_t j = 0; j < _file.chains.size(); ++j) {
        if (j < i) compare(_file.chains[j], chain);
        requireUnreadOutput(chain.output, _file.chains[j].input);
      }
    }
  }

 private:
  [[noreturn]] void fail(const PlacedText& at, const std::string& text) const {
    if (at.at.line == 0) throw std::runtime_error(at.key + ": " + text);
    throw ChainFileError(_file.path, at.at, at.key, text);
  }

  void requireReadable(const PlacedText& path) const {
    if (::access(path.text.c_str(), R_OK) != 0) {
      fail(path, "cannot read " + path.text + ": " + std::strerror(errno));
    }
    if (std::filesystem::is_directory(path.text)) fail(path, path.text + " is a directory");
  }

  void requireDirectoryOf(const PlacedText& output) const {
    if (isStandard(output)) return;
    if (std::filesystem::is_directory(output.text)) fail(output, output.text + " is a directory");
    const auto directory = std::filesystem::absolute(output.text).parent_path();
    if (!std::filesystem::is_directory(directory)) {
      fail(output, "there is no directory " + directory.string());
    }
    const bool isThere = std::filesystem::exists(output.text);
    if (::access(isThere ? output.text.c_str() : directory.c_str(), W_OK) != 0) {
      fail(output, "cannot write " + output.text + ": " + std::strerror(errno));
    }
  }

  void compare(const ChainDefinition& earlier, const ChainDefinition& later) const {
    if (earlier.id == later.id && earlier.name == later.name) {
      throw ChainFileError(_file.path, later.transport.at, parentOf(later.transport.key),
                           "another chain has the same id and name");
    }
    if (isStandard(earlier.input) && isStandard(later.input)) {
      fail(blame(later.input, later, "input"), "two chains cannot share standard input");
    }
    if (isStandard(earlier.output) && isStandard(later.output)) {
      fail(blame(later.output, later, "output"), "two chains cannot share standard output");
    }
    if (!isStandard(earlier.output) && !isStandard(later.output) &&
        isReplacedByWriting(later.output.text) &&
        isSameFile(earlier.output.text, later.output.text)) {
      fail(later.output, "two chains cannot share the output " + later.output.text);
    }
  }

  void requireUnreadOutput(const PlacedText& output, const PlacedText& input) const {
    if (isStandard(output) || isStandard(input)) return;
    if (isReplacedByWriting(output.text) && isSameFile(output.text, input.text)) {
      fail(output, output.text + " is also an input");
    }
  }

  static std::string parentOf(const std::string& key) { return key.substr(0, key.rfind('.')); }

  // Where a stream was not given, the chain itself is named.
  static PlacedText blame(const PlacedText& stream, const ChainDefinition& chain,
                          const std::string& name) {
    if (!stream.key.empty()) return stream;
    return {stream.text, chain.transport.at, parentOf(chain.transport.key) + "." + name};
  }

  const ChainFile& _file;
};

}  // namespace

void checkFiles(const ChainFile& file) { FileCheck(file).run(); }

}  // namespace host
