// The failure of a redirect that should have been followed.
#pragma once

#include <stdexcept>
#include <string>
#include <utility>

namespace connectivity::plugins {

// what() is the error text for the host; name() the kind of failure behind it, null where there is
// none beyond the text.
class RedirectFailed final : public std::runtime_error {
 public:
  explicit RedirectFailed(const std::string& text, std::string name = {})
      : std::runtime_error(text), _name(std::move(name)) {}
  const char* name() const noexcept { return _name.empty() ? nullptr : _name.c_str(); }

 private:
  std::string _name;
};

}  // namespace connectivity::plugins
