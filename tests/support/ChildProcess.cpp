#include "tests/support/ChildProcess.hpp"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <system_error>

#include "tests/support/Event.hpp"

namespace test_support {

namespace {

[[noreturn]] void failed(int error, const std::string& what) {
  throw std::system_error(error, std::generic_category(), what);
}

struct Pipe {
  Descriptor read;
  Descriptor write;
};

Pipe makePipe() {
  std::array<int, 2> ends{};
  if (::pipe2(ends.data(), O_CLOEXEC) != 0) failed(errno, "pipe2");
  return {Descriptor(ends[0]), Descriptor(ends[1])};
}

// A stream socket, so that writing can go without SIGPIPE.
Pipe makeInput() {
  std::array<int, 2> ends{};
  if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()) != 0) {
    failed(errno, "socketpair");
  }
  ::shutdown(ends[0], SHUT_WR);
  return {Descriptor(ends[0]), Descriptor(ends[1])};
}

std::vector<char*> pointers(std::vector<std::string>& texts) {
  std::vector<char*> list;
  list.reserve(texts.size() + 1);
  for (auto& text : texts) list.push_back(text.data());
  list.push_back(nullptr);
  return list;
}

std::vector<std::string> environmentWith(const std::vector<std::string>& added) {
  std::vector<std::string> all(added);
  for (char** entry = environ; *entry != nullptr; ++entry) all.emplace_back(*entry);
  return all;
}

// What posix_spawn does to the child's descriptors and signals.
class SpawnPlan {
 public:
  explicit SpawnPlan(bool ownGroup) {
    posix_spawn_file_actions_init(&_actions);
    posix_spawnattr_init(&_attributes);
    sigset_t none;
    sigemptyset(&none);
    posix_spawnattr_setsigmask(&_attributes, &none);
    posix_spawnattr_setpgroup(&_attributes, 0);
    const int group = ownGroup ? POSIX_SPAWN_SETPGROUP : 0;
    posix_spawnattr_setflags(&_attributes, static_cast<short>(POSIX_SPAWN_SETSIGMASK | group));
  }
  ~SpawnPlan() {
    posix_spawn_file_actions_destroy(&_actions);
    posix_spawnattr_destroy(&_attributes);
  }
  SpawnPlan(const SpawnPlan&) = delete;
  SpawnPlan& operator=(const SpawnPlan&) = delete;

  void use(int fd, int as) { posix_spawn_file_actions_adddup2(&_actions, fd, as); }
  pid_t run(std::vector<std::string> arguments, std::vector<std::string> environment) {
    pid_t pid = -1;
    const int error = ::posix_spawn(&pid, arguments[0].c_str(), &_actions, &_attributes,
                                    pointers(arguments).data(), pointers(environment).data());
    if (error != 0) failed(error, arguments[0]);
    return pid;
  }

 private:
  posix_spawn_file_actions_t _actions{};
  posix_spawnattr_t _attributes{};
};

std::size_t countOf(std::string_view text, std::string_view part) {
  std::size_t found = 0;
  for (auto at = text.find(part); at != std::string_view::npos;
       at = text.find(part, at + part.size())) {
    ++found;
  }
  return found;
}

}  // namespace

ChildProcess::ChildProcess(const std::vector<std::string>& arguments, const Options& options)
    : _name(arguments.at(0)), _ownsGroup(options.ownGroup) {
  auto input = makeInput();
  auto output = makePipe();
  auto errors = makePipe();
  if (_ownsGroup) ::prctl(PR_SET_CHILD_SUBREAPER, 1);
  SpawnPlan plan(options.ownGroup);
  plan.use(input.read.get(), STDIN_FILENO);
  plan.use(output.write.get(), STDOUT_FILENO);
  plan.use(errors.write.get(), STDERR_FILENO);
  // Duplicating a descriptor onto itself makes it survive the exec.
  for (const int fd : options.inherited) plan.use(fd, fd);
  _pid = plan.run(arguments, environmentWith(options.environment));
  _end = Descriptor(static_cast<int>(::syscall(SYS_pidfd_open, _pid, 0)));
  _input = std::move(input.write);
  _output.pipe = std::move(output.read);
  _errors.pipe = std::move(errors.read);
  _output.reader = std::thread([this] { collect(_output); });
  _errors.reader = std::thread([this] { collect(_errors); });
}

ChildProcess::~ChildProcess() {
  _input.reset();
  if (_ownsGroup) ::kill(-_pid, SIGKILL);
  if (running()) {
    ::kill(_pid, SIGKILL);
    reap(0);
  }
  // Whoever of the group lost its parent has become this process's child.
  while (_ownsGroup && ::waitpid(-_pid, nullptr, 0) > 0) continue;
  _output.reader.join();
  _errors.reader.join();
}

void ChildProcess::collect(Stream& stream) {
  std::array<char, 4096> piece{};
  for (;;) {
    const auto got = ::read(stream.pipe.get(), piece.data(), piece.size());
    if (got < 0 && errno == EINTR) continue;
    const std::lock_guard lock(_mutex);
    if (got <= 0) break;
    stream.text.append(piece.data(), static_cast<std::size_t>(got));
    _changed.notify_all();
  }
  const std::lock_guard lock(_mutex);
  stream.ended = true;
  _changed.notify_all();
}

bool ChildProcess::write(std::string_view text) { return writeAll(_input.get(), text); }

void ChildProcess::closeInput() { _input.reset(); }

void ChildProcess::signal(int number) const {
  if (!_reaped) ::kill(_pid, number);
}

std::string ChildProcess::output() const {
  const std::lock_guard lock(_mutex);
  return _output.text;
}

std::string ChildProcess::errors() const {
  const std::lock_guard lock(_mutex);
  return _errors.text;
}

void ChildProcess::waitForOutput(std::string_view text, std::size_t howMany) const {
  waitFor(_output, text, howMany);
}

void ChildProcess::waitForErrors(std::string_view text, std::size_t howMany) const {
  waitFor(_errors, text, howMany);
}

void ChildProcess::waitFor(const Stream& stream, std::string_view text, std::size_t howMany) const {
  std::unique_lock lock(_mutex);
  const auto there = [&] { return countOf(stream.text, text) >= howMany; };
  _changed.wait_for(lock, patience, [&] { return there() || stream.ended; });
  if (!there()) {
    throw TimedOut(_name + " to write \"" + std::string(text) + "\"; it wrote \"" + stream.text +
                   "\"");
  }
}

bool ChildProcess::reap(int options) {
  if (_reaped) return true;
  if (::waitpid(_pid, &_status, options) == _pid) _reaped = true;
  return _reaped;
}

bool ChildProcess::running() { return !reap(WNOHANG); }

int ChildProcess::wait() {
  pollfd ended{_end.get(), POLLIN, 0};
  const auto limit = std::chrono::duration_cast<std::chrono::milliseconds>(patience).count();
  if (running() && ::poll(&ended, 1, static_cast<int>(limit)) <= 0) {
    throw TimedOut("the end of " + _name);
  }
  reap(0);
  std::unique_lock lock(_mutex);
  const auto all = [this] { return _output.ended && _errors.ended; };
  if (!_changed.wait_for(lock, patience, all)) throw TimedOut("the end of the output of " + _name);
  return WIFEXITED(_status) ? WEXITSTATUS(_status) : 128 + WTERMSIG(_status);
}

}  // namespace test_support
