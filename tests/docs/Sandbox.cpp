#include "tests/docs/Sandbox.hpp"

#include "tests/docs/Markdown.hpp"
#include "tests/support/ChildProcess.hpp"
#include "tests/support/PluginUnderTest.hpp"

namespace docs_tests {

namespace fs = std::filesystem;

Sandbox::Sandbox() : _before(fs::current_path()) {
  fs::create_directory(_directory.file("build"));
  fs::create_symlink(BUILD_FOLDER, _directory.file("build/release"));
  for (const char* name :
       {"README.md", "docs", "connectivity", "orrery", "host", "scripts", "examples"}) {
    fs::create_symlink(projectFile(name), _directory.file(name));
  }
  fs::current_path(_directory.path());
}

Sandbox::~Sandbox() {
  std::error_code ignored;
  fs::current_path(_before, ignored);
}

Outcome checkChainFile(const Sandbox& sandbox, const std::string& text) {
  test_support::ChildProcess program(
      {test_support::hostProgram(), "check", sandbox.write("example-chain.yaml", text)});
  program.closeInput();
  const int status = program.wait();
  return {status, program.output(), program.errors()};
}

}  // namespace docs_tests
