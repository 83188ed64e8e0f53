// The failure of a redirect that should have been followed.
#pragma once

#include <stdexcept>
#include <string>
#include <utility>

namespace connectivity::plugins {

// what() is the message of the failure; name() its kind, null where there is none beyond the
// message.
class RedirectFailed final : public std::runtime_error {
 public:
  explicit RedirectFailed(const std::string& message, std::string name = {})
      : std::runtime_error(message), _name(std::move(name)) {}
  const char* name() const noexcept { return _name.empty() ? nullptr : _name.c_str(); }

 private:
  std::string _name;
};

}  // namespace connectivity::plugins
