#include "tests/support/RealServers.hpp"

#include <chrono>
#include <filesystem>
#include <poll.h>
#include <stdexcept>
#include <unistd.h>
#include <vector>

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

// False where the server ends instead.
bool waitUntilItAccepts(ChildProcess& server, int port) {
  const auto limit = std::chrono::steady_clock::now() + patience;
  while (server.running()) {
    if (connectToLoopback(port).valid()) return true;
    if (std::chrono::steady_clock::now() > limit) throw TimedOut("a server to listen");
    // The only sign that these servers give is their port.
    ::poll(nullptr, 0, 20);
  }
  return false;
}

// Neither server can be handed a socket and still be one process: a port is chosen for it, and
// another one where somebody else was faster to that port. Both run as one process, so that
// killing it leaves nothing behind.
template <typename Arguments>
std::unique_ptr<ChildProcess> startOnFreePort(const char* name, int& port, Arguments arguments) {
  std::string errors;
  for (int attempt = 0; attempt < 5; ++attempt) {
    port = unusedPort();
    auto process = std::make_unique<ChildProcess>(arguments());
    if (waitUntilItAccepts(*process, port)) return process;
    process->wait();
    errors = process->errors();
  }
  throw std::runtime_error(std::string(name) + " does not start: " + errors);
}

}  // namespace

// --- nginx -------------------------------------------------------------------------------------

bool RealNginx::available() { return executable(nginxProgram); }

RealNginx::RealNginx(const std::string& directives, const std::string& listenFlags) {
  std::filesystem::create_directory(_directory.file("html"));
  _process = startOnFreePort("nginx", _port, [&] {
    const auto text = nginxConfiguration(_directory, _port, directives, listenFlags);
    const auto configuration = _directory.write("nginx.conf", text);
    return std::vector<std::string>{
        nginxProgram, "-p", _directory.path().string(), "-c", configuration, "-e", "stderr"};
  });
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
  _process = startOnFreePort("squid", _port, [&] {
    return std::vector<std::string>{squidProgram, "-N", "-f", configure(options)};
  });
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

}  // namespace test_support
