#include "host/demo/DemoCommand.hpp"

#include <cstdio>
#include <map>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "connectivity/data_t.hpp"
#include "host/chain/ChainFile.hpp"
#include "host/chain/FlushMessage.hpp"
#include "host/chain/PluginLibrary.hpp"
#include "host/chain/Transport.hpp"
#include "host/demo/DemoAnswers.hpp"
#include "host/demo/DemoRequests.hpp"
#include "host/demo/DemoServer.hpp"
#include "host/log/HostLog.hpp"
#include "host/messages/MessageReader.hpp"
#include "host/status/StatusTable.hpp"
#include "orrery/runtime/Escaping.hpp"

namespace host {

using connectivity::data_t;
using connectivity::Message;

namespace {

constexpr std::size_t howManyRequests = 1000;
constexpr std::size_t batchSize = 50;
constexpr std::size_t flushInterval = 250;
constexpr std::size_t howManyFlushes = howManyRequests / flushInterval;
constexpr std::size_t shownBodyLength = 48;

bool isExpected(const DemoRequest& request, const DemoAnswer& answer) {
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

void send(std::vector<Message>& batch, Transport& transport) {
  if (!transport.send(batch.data(), batch.data() + batch.size())) {
    throw std::runtime_error("the transport refused a batch (see the log)");
  }
  batch.clear();
}

// A queue flush goes behind every `flushInterval` requests.
void sendAll(const std::vector<DemoRequest>& requests, Transport& transport, DemoAnswers& answers) {
  MessageReader reader(Codec::Text, false);
  std::vector<Message> batch;
  for (std::size_t i = 0; i < requests.size(); ++i) {
    batch.push_back(std::get<Message>(reader.read(requests[i].line, i + 1)));
    if ((i + 1) % flushInterval == 0) {
      const std::size_t barrier = i / flushInterval;
      batch.push_back(makeFlushMessage([&answers, barrier] { answers.flushed(barrier); }));
    }
    if (batch.size() >= batchSize) send(batch, transport);
  }
  if (!batch.empty()) send(batch, transport);
}

std::string shown(const std::string& body) {
  std::string text = body.substr(0, shownBodyLength);
  if (body.size() > shownBodyLength) text += "... (" + std::to_string(body.size()) + " bytes)";
  return runtime::escaped(text);
}

void printSamples(const std::vector<DemoRequest>& requests,
                  const std::vector<DemoAnswer>& answers) {
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
                        const std::vector<DemoAnswer>& answers) {
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

}  // namespace

ExitStatus demo() {
  HostLog log(QOR_LOG_ERROR, {});
  const DemoServer server;
  const std::vector<DemoRequest> requests = makeDemoRequests(howManyRequests);
  const PluginLibrary library("HTTPClient", std::nullopt);
  StatusTable status;
  DemoAnswers collected(requests.size(), flushInterval, log);
  std::map<std::string, std::string> items;
  std::size_t barriersHeld = 0;
  {
    Transport transport(library, demoChain(server.port()), status, collected);
    transport.start();
    sendAll(requests, transport, collected);
    // Returns when everything has been answered; what is missing then will not come.
    if (!transport.shutdown()) {
      throw std::runtime_error("the transport could not be shut down (see the log)");
    }
    items = status.items();
    // Before the transport ends: then it frees whatever it still has.
    barriersHeld = collected.barriersHeld();
  }
  log.showProgress({});
  const std::vector<DemoAnswer> answers = collected.take();
  printSamples(requests, answers);
  printItems(items);
  const std::size_t faults = printFaults(requests, answers);
  std::printf("\n%zu requests, %zu answered as expected\n", requests.size(),
              requests.size() - faults);
  std::printf("%zu queue flushes, %zu completed behind everything sent before them\n",
              howManyFlushes, barriersHeld);
  return faults == 0 && barriersHeld == howManyFlushes ? ExitStatus::Success
                                                       : ExitStatus::CouldNotRun;
}

}  // namespace host
