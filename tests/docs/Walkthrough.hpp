// One section of a page, performed as a reader would perform it: files are written, servers
// started, commands run, and what they print is compared with what the page shows.
//
// In front of a snippet stands a comment, <!-- example: VERB -->:
//
//   file NAME        the snippet is this file. *.yaml must pass `orrery-host check`, and every line
//                    of *.jsonl must be a message
//   server           a command that goes on running; its first output means that it is ready
//   server for all   the same for every section of the page
//   background       a command that goes on running, silently; "background until TEXT" waits for
//                    that text on its standard error
//   setup            put in front of every command of the page
//   run [exit N]     commands that end, with status 0 unless N is given
//   prints           the standard output of the last run, line by line, in any order. JSON lines
//   may
//                    show a part of their keys; "..." stands for anything
//   prints in order  the same, in this order
//   complains        lines that are among those on standard error
//   shows NAME       the content of a file, waited for
//
// Commands run in a Sandbox under bash. Pages name fixed ports; each stands for a free one here.
#pragma once

#include <list>
#include <map>
#include <string>
#include <vector>

#include "tests/docs/Markdown.hpp"
#include "tests/docs/Sandbox.hpp"
#include "tests/support/ChildProcess.hpp"
#include "tests/support/Descriptor.hpp"

namespace docs_tests {

// Free ports in place of those of the pages, kept from others while this lives.
class Ports {
 public:
  Ports();

  std::string toActual(std::string text) const;
  std::string toDocumented(std::string text) const;

 private:
  struct Held {
    std::string documented;
    std::string actual;
    test_support::Descriptor socket;
  };
  std::vector<Held> _held;
};

// A command of a page, and whatever it starts; all of it ends with this.
class Command {
 public:
  explicit Command(const std::string& script);
  ~Command();
  Command(const Command&) = delete;
  Command& operator=(const Command&) = delete;

  // Waits for its end.
  Outcome finish();
  // Waits until it has written something.
  void waitUntilReady() const;
  // Waits until this stands on its standard error.
  void waitUntilItSays(const std::string& text) const;

 private:
  void waitForTheOthers() const;

  test_support::ChildProcess _process;
};

class Walkthrough {
 public:
  // The page's own servers are started.
  explicit Walkthrough(const Page& page);

  void perform(const Fence& fence);

  // Whether perform() knows what to do with the verb.
  static bool knows(const std::string& example);

 private:
  void writeFile(const Fence& fence, const std::string& name);
  void start(const Fence& fence, bool isServer);
  void run(const Fence& fence, int status);
  void expectOutput(const Fence& fence, const std::string& output, bool inOrder) const;
  void expectComplaint(const Fence& fence) const;
  void expectFile(const Fence& fence, const std::string& name) const;

  const Sandbox _sandbox;
  const Ports _ports;
  std::string _setup;
  std::list<Command> _running;
  Outcome _last{};
};

}  // namespace docs_tests
