#include "tests/docs/Walkthrough.hpp"

#include <algorithm>
#include <arpa/inet.h>
#include <array>
#include <csignal>
#include <netinet/in.h>
#include <regex>
#include <sstream>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <system_error>
#include <variant>

#include <gtest/gtest.h>

#include "host/messages/JsonReader.hpp"
#include "host/messages/MessageReader.hpp"
#include "tests/docs/Values.hpp"
#include "tests/support/Event.hpp"

namespace docs_tests {

namespace {

constexpr std::string_view until = "until ";
constexpr std::array<const char*, 4> documentedPorts{"8080", "8443", "3128", "9090"};

// Bound, so that nobody else gets the port, but not listening: a server that reuses addresses, as
// servers do, can.
test_support::Descriptor boundSocket(int& port) {
  test_support::Descriptor socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  const int yes = 1;
  ::setsockopt(socket.get(), SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  auto* const any = reinterpret_cast<sockaddr*>(&address);
  if (::bind(socket.get(), any, length) != 0 || ::getsockname(socket.get(), any, &length) != 0) {
    throw std::system_error(errno, std::generic_category(), "bind");
  }
  port = ntohs(address.sin_port);
  return socket;
}

std::string replacedWords(const std::string& text, const std::string& from, const std::string& to) {
  return std::regex_replace(text, std::regex("\\b" + from + "\\b"), to);
}

std::vector<std::string> linesOf(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line);) lines.push_back(line);
  return lines;
}

bool isLine(const std::string& actual, const std::string& expected, const std::string& language) {
  if (language != "json") return matches(actual, expected);
  try {
    return holds(host::JsonReader(host::JsonReader::Forms::Extended).read(actual),
                 host::JsonReader(host::JsonReader::Forms::Extended).read(expected));
  } catch (const host::JsonError& error) {
    ADD_FAILURE() << error.what() << ": " << actual << "\nor\n" << expected;
    return false;
  }
}

std::string verbOf(const std::string& example) { return example.substr(0, example.find(' ')); }
std::string argumentOf(const std::string& example) {
  const auto space = example.find(' ');
  return space == std::string::npos ? "" : example.substr(space + 1);
}

}  // namespace

// --- Ports -------------------------------------------------------------------------------------

Ports::Ports() {
  for (const char* documented : documentedPorts) {
    int port = 0;
    auto socket = boundSocket(port);
    _held.push_back({documented, std::to_string(port), std::move(socket)});
  }
}

std::string Ports::toActual(std::string text) const {
  for (const Held& held : _held) text = replacedWords(text, held.documented, held.actual);
  return text;
}

std::string Ports::toDocumented(std::string text) const {
  for (const Held& held : _held) text = replacedWords(text, held.actual, held.documented);
  return text;
}

// --- Command -----------------------------------------------------------------------------------

namespace {

// timeout makes a process group of its own and passes signals on to all of it.
std::vector<std::string> bash(const std::string& script) {
  ::prctl(PR_SET_CHILD_SUBREAPER, 1);
  return {"/usr/bin/timeout", "300", "/bin/bash", "-e", "-o", "pipefail", "-c", script};
}

}  // namespace

Command::Command(const std::string& script) : _process(bash(script), {{"PYTHONUNBUFFERED=1"}, {}}) {
  _process.closeInput();
}

Command::~Command() {
  try {
    if (_process.running()) _process.signal(SIGTERM);
    _process.wait();
  } catch (const test_support::TimedOut& late) {
    ADD_FAILURE() << late.what();
    ::kill(-_process.pid(), SIGKILL);
  }
  waitForTheOthers();
}

// What outlives its shell becomes a child of this process, and is waited for here.
void Command::waitForTheOthers() const {
  while (::waitpid(-_process.pid(), nullptr, 0) > 0) {
  }
}

Outcome Command::finish() {
  const int status = _process.wait();
  waitForTheOthers();
  return {status, _process.output(), _process.errors()};
}

void Command::waitUntilReady() const { _process.waitForOutput("\n"); }
void Command::waitUntilItSays(const std::string& text) const { _process.waitForErrors(text); }

// --- Walkthrough -------------------------------------------------------------------------------

Walkthrough::Walkthrough(const Page& page) : _setup("PATH=\"" BUILD_FOLDER "/bin:$PATH\"\n") {
  for (const Fence& fence : page.fences) {
    if (fence.example == "setup") _setup += fence.text;
    if (fence.example == "server for all") start(fence, true);
  }
}

bool Walkthrough::knows(const std::string& example) {
  static const std::array<const char*, 8> verbs{"file",   "server",    "background", "setup",
                                                "prints", "complains", "shows",      "run"};
  return std::ranges::find(verbs, verbOf(example)) != verbs.end();
}

void Walkthrough::perform(const Fence& fence) {
  const std::string verb = verbOf(fence.example);
  const std::string argument = argumentOf(fence.example);
  if (verb == "file") {
    writeFile(fence, argument);
  } else if (fence.example == "server" || verb == "background") {
    start(fence, verb == "server");
    if (argument.starts_with(until)) {
      _running.back().waitUntilItSays(argument.substr(until.size()));
    }
  } else if (verb == "run") {
    run(fence, argument.starts_with("exit ") ? std::stoi(argument.substr(5)) : 0);
  } else if (verb == "prints") {
    expectOutput(fence, _last.output, argument == "in order");
  } else if (verb == "complains") {
    expectComplaint(fence);
  } else if (verb == "shows") {
    expectFile(fence, argument);
  }
}

void Walkthrough::writeFile(const Fence& fence, const std::string& name) {
  const std::string text = _ports.toActual(fence.text);
  _sandbox.write(name, text);
  if (name.ends_with(".yaml")) {
    const Outcome outcome = checkChainFile(_sandbox, text);
    EXPECT_EQ(outcome.output, "OK\n") << fence.place << ": " << outcome.errors;
  } else if (name.ends_with(".jsonl")) {
    host::MessageReader reader(host::Codec::Json, true);
    for (const std::string& line : linesOf(text)) {
      EXPECT_NO_THROW(reader.read(line, 1)) << fence.place << ": " << line;
    }
  }
}

void Walkthrough::start(const Fence& fence, bool isServer) {
  _running.emplace_back(_ports.toActual(_setup + fence.text));
  if (isServer) _running.back().waitUntilReady();
}

void Walkthrough::run(const Fence& fence, int status) {
  _last = Command(_ports.toActual(_setup + fence.text)).finish();
  EXPECT_EQ(_last.status, status) << fence.place << ":\n" << _last.output << _last.errors;
}

void Walkthrough::expectOutput(const Fence& fence, const std::string& output, bool inOrder) const {
  auto actual = linesOf(_ports.toDocumented(output));
  const auto expected = linesOf(fence.text);
  EXPECT_EQ(actual.size(), expected.size()) << fence.place << ":\n" << output << _last.errors;
  for (const std::string& line : expected) {
    const auto end = inOrder && !actual.empty() ? actual.begin() + 1 : actual.end();
    const auto found = std::find_if(actual.begin(), end, [&](const std::string& candidate) {
      return isLine(candidate, line, fence.language);
    });
    if (found == end) {
      ADD_FAILURE() << fence.place << ": not printed: " << line << "\nbut\n" << output;
    } else {
      actual.erase(found);
    }
  }
}

void Walkthrough::expectComplaint(const Fence& fence) const {
  const auto errors = linesOf(_ports.toDocumented(_last.errors));
  for (const std::string& line : linesOf(fence.text)) {
    EXPECT_TRUE(
        std::ranges::any_of(errors, [&](const auto& error) { return matches(error, line); }))
        << fence.place << ": not on standard error: " << line << "\nbut\n"
        << _last.errors;
  }
}

void Walkthrough::expectFile(const Fence& fence, const std::string& name) const {
  const test_support::ChildProcess follower({"/usr/bin/tail", "-n", "+1", "-F", name});
  follower.waitForOutput("\n", linesOf(fence.text).size());
  expectOutput(fence, follower.output(), true);
}

}  // namespace docs_tests
