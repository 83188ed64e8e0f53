#include "host/request/RequestArguments.hpp"

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include "host/chain/ChainFile.hpp"
#include "host/program/NearestWord.hpp"

namespace host {

namespace {

constexpr const char* requestFooter =
    "Prints the answer's body. Exit status: 0 for a status of 200 to 399, 22 for any other and "
    "where\n"
    "there is no response (standard error says why), 1 the transport could not start, 2 wrong "
    "usage.\n"
    "\n"
    "Examples:\n"
    "  orrery-host request GET 'http://localhost:8080/items?x=1'\n"
    "  orrery-host request POST http://localhost:8080/orders -H 'Content-Type: application/json' "
    "\\\n"
    "      -d '{\"item\": 5}'\n"
    "  orrery-host request PUT https://files.example/a.bin --data-binary @a.bin -u me:secret -i\n"
    "  orrery-host request POST http://localhost:8080/upload -F title=Report -F file=@report.pdf\n"
    "  orrery-host request GET http://localhost:8080/ --set timeoutSecs=5 --set "
    "maxResponseKB=100\n";

const std::string levelNames = "error|warn|info|debug|trace";

// A repeated option that takes one text each time.
CLI::Option* addTexts(CLI::App& command, const std::string& names, std::vector<std::string>& texts,
                      const std::string& description, const std::string& type) {
  return command.add_option(names, texts, description)->type_name(type)->allow_extra_args(false);
}

CLI::Option* addText(CLI::App& command, const std::string& names, std::optional<std::string>& text,
                     const std::string& description, const std::string& type) {
  return command
      .add_option_function<std::string>(
          names, [&text](const std::string& given) { text = given; }, description)
      ->type_name(type);
}

// The two kinds of data in the order in which they were given.
class DataOptions {
 public:
  explicit DataOptions(CLI::App& command)
      : _command(command),
        _plain(addTexts(command, "-d,--data", _plainTexts,
                        "Send this; @FILE: what the file holds, without line ends. Several are "
                        "joined with &",
                        "DATA|@FILE")),
        _binary(addTexts(command, "--data-binary", _binaryTexts, "The same, but the file as it is",
                         "DATA|@FILE")) {}

  // REQUIRES: the command line has been parsed.
  std::vector<RequestOptions::Data> inOrder() const {
    std::vector<RequestOptions::Data> data;
    std::size_t plain = 0;
    std::size_t binary = 0;
    for (const CLI::Option* option : _command.parse_order()) {
      if (option == _plain) data.push_back({_plain->results().at(plain++), false});
      if (option == _binary) data.push_back({_binary->results().at(binary++), true});
    }
    return data;
  }

 private:
  CLI::App& _command;
  std::vector<std::string> _plainTexts;
  std::vector<std::string> _binaryTexts;
  CLI::Option* const _plain;
  CLI::Option* const _binary;
};

void addWhatIsSent(CLI::App& command, RequestOptions& options) {
  command.add_option("METHOD", options.method, "GET, PUT, POST, DELETE, HEAD or TRACE")->required();
  command.add_option("URL", options.url, "http://... or https://...")->required();
  addTexts(command, "-H,--header", options.headers, "Send this header", "'NAME: VALUE'");
  const auto data = std::make_shared<DataOptions>(command);
  command.callback([&options, data] { options.data = data->inOrder(); });
  addTexts(command, "-F,--form", options.fields,
           "Send a form (multipart/form-data) with this field or file; ;type= and ;filename= may "
           "follow",
           "NAME=VALUE|NAME=@FILE");
}

void addConnection(CLI::App& command, RequestOptions& options) {
  addText(command, "-u,--user", options.user, "Basic authentication", "USER:PASSWORD");
  addText(command, "-x,--proxy", options.proxy, "Go through this HTTP proxy (port: 1080)",
          "[http://][USER:PASSWORD@]HOST[:PORT]");
  command.add_flag("-k,--insecure", options.insecure, "Accept every certificate of the server");
  addText(command, "--cacert", options.caFile, "Trust the authorities in this file too", "FILE");
  addTexts(command, "--set", options.settings,
           "Any option of the transport's configuration; inner ones by path: proxy/host=...",
           "KEY=VALUE");
}

void addOutput(CLI::App& command, RequestOptions& options) {
  auto* include = command.add_flag("-i,--include", options.include,
                                   "Print the status line and the headers before the body");
  command.add_flag("--json", options.json, "Print the whole response message, as run writes it")
      ->excludes(include);
  addLogLevel(command, options.logLevel);
}

}  // namespace

void addRequestCommand(CLI::App& app, RequestOptions& options) {
  CLI::App* command = app.add_subcommand("request", "Send one request and print the answer");
  addWhatIsSent(*command, options);
  addConnection(*command, options);
  addOutput(*command, options);
  command->footer(requestFooter);
}

void addLogLevel(CLI::App& command, std::optional<int>& level) {
  command
      .add_option_function<std::string>(
          "--log-level", [&level](const std::string& name) { level = logLevelNamed(name); },
          "Log this much: " + levelNames)
      ->type_name("LEVEL")
      ->check([](const std::string& name) {
        if (logLevelNamed(name)) return std::string();
        return name + " must be one of " + levelNames + didYouMean(name, logLevelNames());
      });
}

}  // namespace host
