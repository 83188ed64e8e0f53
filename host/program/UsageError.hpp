// What is wrong with how the program was called: it ends with ExitStatus::WrongUsage.
#pragma once

#include <stdexcept>

namespace host {

// what() names the option or argument.
class UsageError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

}  // namespace host
