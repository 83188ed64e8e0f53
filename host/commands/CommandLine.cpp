#include "host/commands/CommandLine.hpp"

#include <algorithm>
#include <cstddef>
#include <exception>
#include <iostream>
#include <map>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include <CLI/CLI.hpp>

#include "host/commands/CheckCommand.hpp"
#include "host/commands/RunCommand.hpp"
#include "host/commands/Version.hpp"
#include "host/demo/DemoCommand.hpp"
#include "host/program/Complaint.hpp"
#include "host/program/ExitStatus.hpp"
#include "host/program/NearestWord.hpp"
#include "host/program/UsageError.hpp"
#include "host/request/RequestArguments.hpp"
#include "host/request/RequestCommand.hpp"

namespace host {

namespace {

constexpr const char* exitStatuses =
    "Exit status: 0 everything read was valid and answered (whatever the HTTP status), 1 a chain\n"
    "could not start or its input, output or transport failed, 2 wrong usage, 3 some input lines\n"
    "were not valid messages; request: 22 no response, or a status outside 200 to 399.";

constexpr const char* runFooter =
    "Each input line is a request: {\"metadata\": {\"http\": {\"method\": \"GET\", \"path\": "
    "\"/\"}},\n"
    "\"payload\": null}; or the control line {\"control\": \"flush\", \"id\": ANY}. Each answer is "
    "one\n"
    "output line. SIGINT or SIGTERM stops reading and waits for the answers still to come; a "
    "second\n"
    "one drops what is queued; a third ends the program at once.\n";

// One subcommand at most has been given; what it does is left to `chosen`.
struct Arguments {
  RunOptions run;
  std::string checkedFile;
  RequestOptions request;
};

void addSummary(CLI::App& run, RunOptions& options) {
  const std::map<std::string, SummaryForm> forms{{"text", SummaryForm::Text},
                                                 {"json", SummaryForm::Json}};
  auto* summary = run.add_option_function<std::string>(
      "--summary", [&options, forms](const std::string& name) { options.summary = forms.at(name); },
      "Tell at the end what has been done: in lines of the log, or in one line of JSON");
  summary->type_name("text|json")->check([forms](const std::string& name) {
    return forms.contains(name) ? std::string() : name + " must be text or json";
  });
  run.add_flag_callback(
         "--quiet",
         [&options] {
           options.showsProgress = false;
           options.summary = SummaryForm::None;
         },
         "Neither progress nor summary")
      ->excludes(summary);
}

void addRun(CLI::App& app, Arguments& arguments) {
  CLI::App* run = app.add_subcommand("run", "Send requests read from files or pipes");
  run->add_option("CHAIN.yaml", arguments.run.chainFile, "The chain file")->required();
  run->add_option("--input", arguments.run.input, "Read this file (-: standard input)")
      ->type_name("FILE");
  run->add_option("--output", arguments.run.output, "Write this file (-: standard output)")
      ->type_name("FILE");
  addLogLevel(*run, arguments.run.logLevel);
  run->add_option("--status-port", arguments.run.statusPort,
                  "Serve the status items on this port (0: one that the system picks)")
      ->type_name("PORT")
      ->check(CLI::Range(0, 65535));
  addSummary(*run, arguments.run);
  run->footer(std::string(runFooter) + "\n" + exitStatuses);
}

void addCheck(CLI::App& app, Arguments& arguments) {
  CLI::App* check = app.add_subcommand(
      "check", "Read a chain file and create its transports, without starting them");
  check->add_option("CHAIN.yaml", arguments.checkedFile, "The chain file")->required();
  check->footer("Prints OK and exits with 0, or says what is wrong and exits with 1.");
}

ExitStatus perform(const CLI::App& app, const Arguments& arguments) {
  if (app.got_subcommand("run")) return run(arguments.run);
  if (app.got_subcommand("check")) return check(arguments.checkedFile);
  if (app.got_subcommand("request")) return request(arguments.request);
  return demo();
}

std::vector<std::string_view> commandNames(const CLI::App& app) {
  std::vector<std::string_view> names;
  for (const CLI::App* command : app.get_subcommands(nullptr)) names.push_back(command->get_name());
  return names;
}

// Where the first argument was to be a command and is none.
std::string describeUnknownCommand(const CLI::App& app, const std::string& word) {
  const auto names = commandNames(app);
  const bool isCommand = std::find(names.begin(), names.end(), word) != names.end();
  if (isCommand || word.starts_with('-')) return {};
  std::string text = word + " is no command" + didYouMean(word, names);
  if (word.ends_with(".yaml") || word.ends_with(".yml")) {
    text += " (did you mean orrery-host run " + word + "?)";
  }
  return text + "\n";
}

// Where an option is none that the command has, but near one.
std::string describeUnknownOption(const CLI::App& command, const std::string& argument) {
  if (!argument.starts_with("--")) return {};
  const std::string word = argument.substr(2, argument.find('=') - 2);
  std::vector<std::string_view> names;
  for (const CLI::Option* option : command.get_options()) {
    for (const std::string& name : option->get_lnames()) names.push_back(name);
  }
  if (std::find(names.begin(), names.end(), word) != names.end()) return {};
  const std::string_view nearest = nearestWord(word, names);
  if (nearest.empty()) return {};
  return "--" + word + ": did you mean --" + std::string(nearest) + "?\n";
}

// What was probably meant, a line each.
std::string describeMistakes(const CLI::App& app, std::span<const char* const> arguments) {
  std::string text;
  if (!arguments.empty()) text += describeUnknownCommand(app, arguments.front());
  for (const CLI::App* command : app.get_subcommands()) {
    for (const char* argument : arguments) text += describeUnknownOption(*command, argument);
  }
  return text;
}

}  // namespace

int runCommandLine(int argc, const char* const* argv) {
  CLI::App app("Loads a transport, feeds it request messages, and writes its responses.",
               "orrery-host");
  Arguments arguments;
  addRun(app, arguments);
  addCheck(app, arguments);
  addRequestCommand(app, arguments.request);
  app.add_subcommand("demo", "Show the transport at work against a server of the program's own");
  app.set_version_flag("--version", std::string("orrery-host ") + versionText());
  app.set_help_all_flag("--help-all", "Print the help of every command and exit");
  app.require_subcommand(1);
  app.footer(exitStatuses);
  try {
    app.parse(argc, argv);
    return static_cast<int>(perform(app, arguments));
  } catch (const CLI::ParseError& error) {
    const bool isMistake = error.get_exit_code() != 0;
    const std::span<const char* const> given(argv, static_cast<std::size_t>(argc));
    if (isMistake && argc > 1) std::cerr << describeMistakes(app, given.subspan(1));
    const bool isHelp = app.exit(error, std::cout, std::cerr) == 0;
    return static_cast<int>(isHelp ? ExitStatus::Success : ExitStatus::WrongUsage);
  } catch (const UsageError& error) {
    complain(error);
    return static_cast<int>(ExitStatus::WrongUsage);
  } catch (const std::exception& error) {
    complain(error);
    return static_cast<int>(ExitStatus::CouldNotRun);
  }
}

}  // namespace host
