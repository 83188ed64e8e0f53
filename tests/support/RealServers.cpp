#include "tests/support/RealServers.hpp"

#include <chrono>
#include <fcntl.h>
#include <filesystem>
#include <poll.h>
#include <stdexcept>
#include <unistd.h>

#include "tests/support/Event.hpp"

namespace test_support {

namespace {

constexpr const char* nginxProgram = "/usr/sbin/nginx";
constexpr const char* squidProgram = "/usr/sbin/squid";

bool executable(const char* path) { return ::access(path, X_OK) == 0; }

std::string nginxConfiguration(const TemporaryDirectory& directory, int port,
                               const std::string& directives, const std::string& listenFlags) {
  const std::string user = ::geteuid() == 0 ? "user root;\n" : "";
  std::string temporary;
  for (const char* const kind : {"client_body", "proxy", "fastcgi", "uwsgi", "scgi"}) {
    temporary += std::string(kind) + "_temp_path " + directory.file(kind) + ";\n";
  }
  return user + "daemon off;\nmaster_process off;\npid " + directory.file("pid") +
         ";\nerror_log stderr;\nevents {}\nhttp {\naccess_log " + directory.file("access.log") +
         ";\n" + temporary + "server {\nlisten 127.0.0.1:" + std::to_string(port) + " " +
         listenFlags + ";\nroot " + directory.file("html") + ";\n" + directives + "\n}\n}\n";
}

}  // namespace

// --- nginx -------------------------------------------------------------------------------------

bool RealNginx::available() { return executable(nginxProgram); }

RealNginx::RealNginx(const std::string& directives, const std::string& listenFlags) {
  // nginx takes over a socket that listens already: the port is never free for anybody else, and
  // connections wait in its queue until nginx is up.
  const auto listener = listenOnLoopback();
  _port = localPort(listener);
  std::filesystem::create_directory(_directory.file("html"));
  const auto configuration = _directory.write(
      "nginx.conf", nginxConfiguration(_directory, _port, directives, listenFlags));
  ChildProcess::Options options;
  options.environment = {"NGINX=" + std::to_string(listener.get()) + ";"};
  options.inherited = {listener.get()};
  _process = std::make_unique<ChildProcess>(
      std::vector<std::string>{nginxProgram, "-p", _directory.path().string(), "-c", configuration,
                               "-e", "stderr"},
      options);
}

void RealNginx::write(const std::string& name, const std::string& content) const {
  _directory.write("html/" + name, content);
}

std::string RealNginx::accessLog() const { return readFile(_directory.file("access.log")); }

// --- squid -------------------------------------------------------------------------------------

bool RealSquid::available() { return executable(squidProgram); }

RealSquid::RealSquid(const SquidOptions& options) {
  // As root, squid becomes another user, who must be able to write its files.
  std::filesystem::permissions(_directory.path(), std::filesystem::perms::all);
  for (int attempt = 0; attempt < 5; ++attempt) {
    // squid cannot take a socket over; somebody else may be faster to the port.
    _port = unusedPort();
    _process = std::make_unique<ChildProcess>(
        std::vector<std::string>{squidProgram, "-N", "-f", configure(options)});
    if (waitUntilItAccepts()) return;
  }
  throw std::runtime_error("squid does not start: " + _process->errors());
}

std::string RealSquid::configure(const SquidOptions& options) {
  std::string access = "http_access allow all\n";
  if (options.user.has_value()) {
    const auto helper = _directory.write(
        "credentials.sh", "#!/bin/sh\nwhile read -r line; do\n[ \"$line\" = \"" + *options.user +
                              " " + options.password + "\" ] && echo OK || echo ERR\ndone\n");
    std::filesystem::permissions(helper, std::filesystem::perms::all);
    access = "auth_param basic program " + helper +
             "\nauth_param basic children 1\nacl known proxy_auth REQUIRED\n"
             "http_access allow known\nhttp_access deny all\n";
  }
  return _directory.write("squid.conf",
                          "http_port 127.0.0.1:" + std::to_string(_port) + "\n" + access +
                              "pid_filename none\ncache deny all\npinger_enable off\n"
                              "netdb_filename none\nshutdown_lifetime 0 seconds\naccess_log none\n"
                              "cache_log stdio:/dev/null\ncoredump_dir " +
                              _directory.path().string() + "\nvisible_hostname localhost\n");
}

bool RealSquid::waitUntilItAccepts() {
  const auto limit = std::chrono::steady_clock::now() + patience;
  while (_process->running()) {
    if (connectToLoopback(_port).valid()) return true;
    if (std::chrono::steady_clock::now() > limit) throw TimedOut("squid to listen");
    // The only sign that squid gives is its port.
    ::poll(nullptr, 0, 20);
  }
  return false;
}

}  // namespace test_support
