// A variable of the environment, set for as long as the object lives. Made before any thread that
// may read the environment.
#pragma once

#include <cstdlib>
#include <optional>
#include <string>

namespace test_support {

class EnvironmentVariable {
 public:
  EnvironmentVariable(const char* name, const std::string& value) : _name(name) {
    if (const char* const previous = std::getenv(name)) _previous = previous;
    setenv(name, value.c_str(), 1);
  }
  ~EnvironmentVariable() {
    if (_previous) {
      setenv(_name, _previous->c_str(), 1);
    } else {
      unsetenv(_name);
    }
  }
  EnvironmentVariable(const EnvironmentVariable&) = delete;
  EnvironmentVariable& operator=(const EnvironmentVariable&) = delete;

 private:
  const char* const _name;
  std::optional<std::string> _previous;
};

}  // namespace test_support
