// What the tests of the program share: chain files that load the Echo plug-in, and the program run
// on them.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "tests/support/ChildProcess.hpp"
#include "tests/support/TemporaryDirectory.hpp"

namespace host_tests {

// Starts orrery-host with these arguments.
class HostProgram : public test_support::ChildProcess {
 public:
  explicit HostProgram(std::vector<std::string> arguments)
      : ChildProcess(withProgram(std::move(arguments))) {}
  HostProgram(std::vector<std::string> arguments, const Options& options)
      : ChildProcess(withProgram(std::move(arguments)), options) {}

  // Closes its input and waits for its end; the exit status.
  int finish() {
    closeInput();
    return wait();
  }

 private:
  static std::vector<std::string> withProgram(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), HOST_PROGRAM);
    return arguments;
  }
};

// One chain of a chain file that loads the Echo plug-in; `more` holds further lines.
inline std::string echoChain(const std::string& id, const std::string& more = {}) {
  return "  - id: " + id +
         "\n"
         "    name: test\n"
         "    transport: Echo\n"
         "    library: " ECHO_LIBRARY "\n" +
         more;
}

// A chain file with one such chain, and the directory that it is in.
class EchoChainFile {
 public:
  explicit EchoChainFile(const std::string& more = {})
      : _path(_directory.write("chain.yaml", "chains:\n" + echoChain("echo", more))) {}

  const std::string& path() const { return _path; }
  std::string file(std::string_view name) const { return _directory.file(name); }
  std::string write(std::string_view name, std::string_view content) const {
    return _directory.write(name, content);
  }

 private:
  const test_support::TemporaryDirectory _directory;
  const std::string _path;
};

inline std::string lastLine(const std::string& text) {
  const auto end = text.find_last_not_of('\n');
  const auto begin = text.rfind('\n', end);
  return text.substr(begin + 1, end - begin);
}

}  // namespace host_tests
