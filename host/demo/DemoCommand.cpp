#include "host/demo/DemoCommand.hpp"

#include <chrono>
#include <cstdio>
#include <exception>
#include <map>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <unistd.h>
#include <utility>
#include <vector>

#include "connectivity/value_access.hpp"
#include "host/chain/ChainFile.hpp"
#include "host/chain/PluginLibrary.hpp"
#include "host/chain/Transport.hpp"
#include "host/commands/Complaint.hpp"
#include "host/commands/Progress.hpp"
#include "host/demo/DemoRequests.hpp"
#include "host/demo/DemoServer.hpp"
#include "host/log/HostLog.hpp"
#include "host/messages/MessageReader.hpp"
#include "host/status/StatusTable.hpp"
#include "orrery/Mutex.hpp"

namespace host {

using connectivity::data_t;
using connectivity::map_t;
using connectivity::Message;

namespace {

constexpr std::size_t howManyRequests = 1000;
constexpr std::size_t batchSize = 50;
constexpr std::size_t shownBodyLength = 48;

struct Answer {
  int count = 0;
  int status = 0;
  std::string body;
};

const data_t* find(const Message& message, const char* outer, const char* inner) {
  const data_t* value = message.metadata.findText(outer);
  if (value == nullptr || value->tag() != QOR_MAP) return nullptr;
  return connectivity::get<map_t>(*value).findText(inner);
}

// Collects the answers by request id.
class Answers : public ResponseReceiver {
 public:
  Answers(std::size_t howMany, HostLog& log) : _log(log), _answers(howMany) {}

  void receive(const Message& response) override {
    const orrery::AutoMutex lock(_mutex);
    record(response);
  }

  std::vector<Answer> take() {
    const orrery::AutoMutex lock(_mutex);
    return std::move(_answers);
  }

 private:
  void record(const Message& response) ORRERY_REQUIRES(_mutex) {
    const data_t* id = response.metadata.findText("requestId");
    if (id == nullptr || id->tag() != QOR_INT64) return;
    Answer& answer = _answers.at(static_cast<std::size_t>(connectivity::get<long long>(*id)));
    const data_t* status = find(response, "http", "statusCode");
    ++answer.count;
    if (status != nullptr && status->tag() == QOR_INT64) {
      answer.status = static_cast<int>(connectivity::get<long long>(*status));
    }
    if (response.payload.tag() == QOR_BUFFER) {
      answer.body = connectivity::get<connectivity::buffer_t>(response.payload).view();
    }
    showProgress(answer.status);
  }

  void showProgress(int status) ORRERY_REQUIRES(_mutex) {
    ++_counts.answered;
    _counts.sent = _answers.size();
    if (status < 200 || status > 399) ++_counts.failed;
    if (_showsProgress) {
      _log.showProgress(progressLine({_counts}, std::chrono::steady_clock::now() - _begin));
    }
  }

  HostLog& _log;
  const bool _showsProgress = ::isatty(STDERR_FILENO) != 0;
  const std::chrono::steady_clock::time_point _begin = std::chrono::steady_clock::now();
  orrery::Mutex _mutex{"DemoAnswers"};
  std::vector<Answer> _answers ORRERY_GUARDED_BY(_mutex);
  ChainCounts _counts ORRERY_GUARDED_BY(_mutex);
};

bool isExpected(const DemoRequest& request, const Answer& answer) {
  if (answer.count != 1 || answer.status != request.status) return false;
  return request.isWholeBody ? answer.body == request.body : answer.body.ends_with(request.body);
}

ChainDefinition demoChain(int port) {
  ChainDefinition chain;
  chain.id = "demo";
  chain.name = "http";
  chain.transport.text = "HTTPClient";
  chain.config.insert(data_t("host"), data_t("127.0.0.1"));
  chain.config.insert(data_t("port"), data_t(port));
  chain.config.insert(data_t("numClients"), data_t(4));
  return chain;
}

void sendAll(const std::vector<DemoRequest>& requests, Transport& transport) {
  MessageReader reader(Codec::Text, false);
  std::vector<Message> batch;
  for (std::size_t i = 0; i < requests.size(); ++i) {
    batch.push_back(std::get<Message>(reader.read(requests[i].line, i + 1)));
    if (batch.size() < batchSize && i + 1 < requests.size()) continue;
    if (!transport.send(batch.data(), batch.data() + batch.size())) {
      throw std::runtime_error("the transport refused a batch (see the log)");
    }
    batch.clear();
  }
}

std::string shown(const std::string& body) {
  std::string text = body.substr(0, shownBodyLength);
  if (body.size() > shownBodyLength) text += "... (" + std::to_string(body.size()) + " bytes)";
  return text;
}

void printSamples(const std::vector<DemoRequest>& requests, const std::vector<Answer>& answers) {
  std::puts("One answer of each kind:\n");
  std::set<std::string> seen;
  for (std::size_t i = 0; i < requests.size(); ++i) {
    if (!seen.insert(requests[i].kind).second) continue;
    std::printf("  %-38s %d  %s\n", requests[i].kind.c_str(), answers[i].status,
                shown(answers[i].body).c_str());
  }
}

void printItems(const std::map<std::string, std::string>& items) {
  std::puts("\nThe status items:\n");
  for (const auto& [key, text] : items) std::printf("  %-52s %s\n", key.c_str(), text.c_str());
}

// The number of requests that did not get exactly one answer, the expected one.
std::size_t printFaults(const std::vector<DemoRequest>& requests,
                        const std::vector<Answer>& answers) {
  std::size_t faults = 0;
  for (std::size_t i = 0; i < requests.size(); ++i) {
    if (isExpected(requests[i], answers[i])) continue;
    ++faults;
    std::fprintf(stderr, "orrery-host: request %zu (%s): %d answers, status %d, %s\n", i,
                 requests[i].kind.c_str(), answers[i].count, answers[i].status,
                 shown(answers[i].body).c_str());
  }
  return faults;
}

ExitStatus runDemo() {
  HostLog log(QOR_LOG_ERROR, {});
  const DemoServer server;
  const std::vector<DemoRequest> requests = makeDemoRequests(howManyRequests);
  const PluginLibrary library("HTTPClient", std::nullopt);
  StatusTable status;
  Answers collected(requests.size(), log);
  std::map<std::string, std::string> items;
  {
    Transport transport(library, demoChain(server.port()), status, collected);
    transport.start();
    sendAll(requests, transport);
    // Returns when everything has been answered; what is missing then will not come.
    if (!transport.shutdown()) {
      throw std::runtime_error("the transport could not be shut down (see the log)");
    }
    items = status.items();
  }
  log.showProgress({});
  const std::vector<Answer> answers = collected.take();
  printSamples(requests, answers);
  printItems(items);
  const std::size_t faults = printFaults(requests, answers);
  std::printf("\n%zu requests, %zu answered as expected\n", requests.size(),
              requests.size() - faults);
  return faults == 0 ? ExitStatus::Success : ExitStatus::CouldNotRun;
}

}  // namespace

ExitStatus demo() {
  try {
    return runDemo();
  } catch (const std::exception& error) {
    complain(error);
    return ExitStatus::CouldNotRun;
  }
}

}  // namespace host
