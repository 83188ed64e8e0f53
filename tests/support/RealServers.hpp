// The distribution's nginx and squid, run for a test on 127.0.0.1 as the current user, with
// everything they need in a directory of their own. They end with their object.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "tests/support/ChildProcess.hpp"
#include "tests/support/TemporaryDirectory.hpp"

namespace test_support {

class RealNginx {
 public:
  // Whether it is installed.
  static bool available();

  // `directives` stand inside the one server block, whose root is an empty folder; see write().
  // `listenFlags`, for example "ssl", follow the address.
  explicit RealNginx(const std::string& directives, const std::string& listenFlags = "");

  int port() const noexcept { return _port; }
  // Writes a file to serve; "/name" fetches it.
  void write(const std::string& name, const std::string& content) const;
  // The access log so far: a line for each request that has ended.
  std::string accessLog() const;

 private:
  TemporaryDirectory _directory;
  int _port = 0;
  std::unique_ptr<ChildProcess> _process;
};

struct SquidOptions {
  std::optional<std::string> user;  // with it, requests need basic authentication
  std::string password;
};

class RealSquid {
 public:
  static bool available();

  explicit RealSquid(const SquidOptions& options = {});

  int port() const noexcept { return _port; }

 private:
  // Writes the files for the present port; the path of the configuration.
  std::string configure(const SquidOptions& options);

  TemporaryDirectory _directory;
  int _port = 0;
  std::unique_ptr<ChildProcess> _process;
};

}  // namespace test_support
