#include "host/request/RequestCommand.hpp"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <unistd.h>
#include <utility>

#include "connectivity/value_access.hpp"
#include "host/chain/ChainFile.hpp"
#include "host/chain/ChainStatistics.hpp"
#include "host/chain/PluginLibrary.hpp"
#include "host/chain/Transport.hpp"
#include "host/log/HostLog.hpp"
#include "host/messages/MessageWriter.hpp"
#include "host/program/Complaint.hpp"
#include "host/status/StatusTable.hpp"
#include "orrery/runtime/Escaping.hpp"

namespace host {

using connectivity::data_t;
using connectivity::map_t;
using connectivity::Message;

namespace {

const map_t* mapAt(const map_t& map, const char* key) {
  const data_t* value = map.findText(key);
  if (value == nullptr || value->tag() != QOR_MAP) return nullptr;
  return &connectivity::get<map_t>(*value);
}

std::string_view bodyOf(const Message& response) {
  if (response.payload.tag() != QOR_BUFFER) return {};
  return connectivity::get<connectivity::buffer_t>(response.payload).view();
}

std::string reasonOf(const map_t& http) {
  const data_t* reason = http.findText("statusReason");
  return reason != nullptr && reason->isString() ? reason->text() : "";
}

// What a server sent, as a terminal is to show it.
std::string forTerminal(std::string_view text) {
  std::string lines;
  lines.reserve(text.size());
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text.substr(i, 2) != "\r\n") lines += text[i];
  }
  return runtime::escaped(lines, "\n\t");
}

// The response has one of each name, in no order of its own. The version is the transport's.
std::string headOf(const Message& response, long long status) {
  const map_t* http = mapAt(response.metadata, "http");
  if (http == nullptr) return {};
  std::string head = "HTTP/1.1 " + std::to_string(status) + " " + reasonOf(*http) + "\r\n";
  std::map<std::string, std::string> sorted;
  if (const map_t* headers = mapAt(*http, "headers")) {
    for (auto header = headers->begin(); !header.atEnd(); ++header) {
      sorted[connectivity::toText(header.key())] = connectivity::toText(header.value());
    }
  }
  for (const auto& [name, value] : sorted) head.append(name).append(": ").append(value) += "\r\n";
  return head + "\r\n";
}

std::string asJson(const Message& response) {
  std::string line;
  MessageWriter(Codec::Text, line).writeResponse(response);
  return line;
}

// Prints the answer, on the transport's thread.
class Printer : public ResponseReceiver {
 public:
  explicit Printer(const RequestOptions& options) : _options(options) {}

  void receive(Message& response) override {
    _answered = true;
    const AnswerStatus status = AnswerReader().statusOf(response);
    _success = status.isSuccess();
    if (_options.json) {
      print(asJson(response));
    } else if (!status.isTransportError) {
      if (_options.include) print(headOf(response, status.status));
      print(bodyOf(response));
    }
    // One line stays one line: a server's words in it must not look like the program's.
    if (status.isTransportError) complain(runtime::escaped(bodyOf(response)));
    if (std::fflush(stdout) != 0) failWriting();
  }

  // REQUIRES: the transport has been shut down.
  ExitStatus result() const {
    if (!_answered) throw std::runtime_error("the transport gave no answer (see the log)");
    if (!_failure.empty()) throw std::runtime_error(_failure);
    return _success ? ExitStatus::Success : ExitStatus::NoSuccess;
  }

 private:
  void print(std::string_view text) {
    if (_onTerminal) return write(forTerminal(text));
    write(text);
  }

  void write(std::string_view text) {
    if (std::fwrite(text.data(), 1, text.size(), stdout) != text.size()) failWriting();
  }

  void failWriting() {
    if (_failure.empty())
      _failure = std::string("cannot write standard output: ") + std::strerror(errno);
  }

  const RequestOptions& _options;
  const bool _onTerminal = isatty(STDOUT_FILENO) == 1;
  bool _answered = false;
  bool _success = false;
  std::string _failure;
};

ExitStatus send(SingleRequest&& request, const RequestOptions& options) {
  const HostLog log(options.logLevel.value_or(QOR_LOG_WARN), {});
  ChainDefinition chain;
  chain.id = "request";
  chain.name = "http";
  chain.transport.text = "HTTPClient";
  chain.config = std::move(request.config);
  const PluginLibrary library(chain.transport.text, std::nullopt);
  StatusTable status;
  Printer printer(options);
  Transport transport(library, chain, status, printer);
  transport.start();
  if (!transport.send(&request.message, &request.message + 1) || !transport.shutdown()) {
    throw std::runtime_error("the transport failed (see the log)");
  }
  return printer.result();
}

}  // namespace

ExitStatus request(const RequestOptions& options) {
  return send(makeSingleRequest(options), options);
}

}  // namespace host
