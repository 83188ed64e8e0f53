// The environment variable that switches the iterator checks off, for the length of a test.
#pragma once

#include <cstdlib>
#include <optional>
#include <string>

namespace connectivity_test {

class IteratorChecks {
 public:
  IteratorChecks(const IteratorChecks&) = delete;
  IteratorChecks& operator=(const IteratorChecks&) = delete;

 protected:
  explicit IteratorChecks(const char* value) {
    if (const char* const before = std::getenv(variable); before != nullptr) _before = before;
    set(value);
  }
  ~IteratorChecks() { set(_before ? _before->c_str() : nullptr); }

 private:
  static constexpr const char* variable = "ZQ_SKIP_DATA_T_ITERATOR_CHECKS";
  static void set(const char* value) {
    if (value == nullptr) {
      unsetenv(variable);
    } else {
      setenv(variable, value, 1);
    }
  }
  std::optional<std::string> _before;
};

struct IteratorChecksOn : IteratorChecks {
  IteratorChecksOn() : IteratorChecks(nullptr) {}
};

// Any value switches them off, an empty one too.
struct IteratorChecksOff : IteratorChecks {
  IteratorChecksOff() : IteratorChecks("") {}
};

}  // namespace connectivity_test
