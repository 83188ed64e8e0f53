#include "plugins/http_client/worker/ClientSessionThread.hpp"

#include <exception>
#include <optional>
#include <stdexcept>
#include <utility>

#include <Poco/Exception.h>

#include "connectivity/Plugin.hpp"
#include "orrery/Platform.hpp"
#include "plugins/http_client/request/Refusal.hpp"
#include "plugins/http_client/worker/SigpipeBlocker.hpp"

namespace connectivity::plugins {

namespace {

// The text for what was thrown but is no exception of the standard library's.
constexpr const char* unknownException = "Unknown exception";

// A name that no certificate can be verified for, say: the long text has the reason, and what() is
// what gets logged.
SessionHome openHome(const Workplace& workplace, const WorkerLog& log) {
  try {
    return {workplace.options, workplace.tlsContexts, workplace.resolver, log};
  } catch (const Poco::Exception& failure) {
    throw std::runtime_error(failure.displayText());
  }
}

}  // namespace

ClientSessionThread::ClientSessionThread(const Workplace& workplace, unsigned workerNumber)
    : Thread("clientSessionThread"),
      _workplace(workplace),
      _index(workerNumber),
      _log(workplace.logger, workerNumber),
      _home(openHome(workplace, _log)),
      _exchange(workplace.options, workplace.cookies, _home, _log),
      _reader(workplace.options, workplace.keys, _log),
      _answers(workplace.keys, workplace.cookies, workplace.options.markFailures, _log) {}

ClientSessionThread::~ClientSessionThread() {
  // A worker that has run has closed its sessions itself.
  const SigpipeBlocker blocked;
  _home.close();
}

void ClientSessionThread::run() {
  blockSigpipe();
  _workplace.owner.adoptCurrentThread();
  while (serveNext()) {
  }
  _home.close();
}

bool ClientSessionThread::serveNext() noexcept {
  try {
    Message message = _workplace.dispatcher.getNextMessageRequest(_index);
    const orrery::SchedulableQueueGuard guard(schedulableQueue.load(std::memory_order_acquire));
    const double start = orrery::Platform::relativeHighResTimeFloat();
    deliver(answerTo(std::move(message)));
    _workplace.metrics.addBusyTime(_index, orrery::Platform::relativeHighResTimeFloat() - start);
    return true;
  } catch (const QueueTerminated& exception) {
    reportFailure(exception.what());
    return false;
  } catch (const std::exception& exception) {
    reportFailure(exception.what());
  } catch (...) {
    reportFailure(unknownException);
  }
  return true;
}

Answer ClientSessionThread::answerTo(Message&& message) noexcept {
  const double startTime = orrery::Platform::relativeHighResTimeFloat();
  Answer answer;
  try {
    answer = processRequest(message, startTime);
  } catch (const std::exception& failure) {
    _log.transportLog(Level::Error, "A request could not be answered: %s", failure.what());
  } catch (...) {
    _log.transportLog(Level::Error, "A request could not be answered: %s", unknownException);
  }
  _home.returnHome();
  return answer;
}

Answer ClientSessionThread::processRequest(Message& message, double startTime) {
  std::optional<request> req;
  Failure refusal;
  try {
    req.emplace(_reader.readRequest(message, startTime));
  } catch (...) {
    refusal = currentFailure(FailureKind::Refused);
  }
  return req ? performed(*req) : _answers.refuse(refusal, message, startTime);
}

Answer ClientSessionThread::performed(request& req) {
  Outcome outcome = _exchange.handleRequest(req);
  Answer answer;
  if (outcome.response) {
    try {
      answer = _answers.sendResponse(*std::move(outcome.response), req);
    } catch (...) {
      outcome.failure = currentFailure(FailureKind::BadAnswer);
      outcome.response.reset();
    }
  }
  const bool failed = !outcome.response;
  if (failed) answer = _answers.handleHTTPException(outcome.failure, req);
  if (!failed || outcome.failure.row().isRequestSample) answer.requestBytes = outcome.requestBytes;
  return answer;
}

// No answer depends on the status items: what the host's status functions throw is logged.
void ClientSessionThread::deliver(Answer&& answer) noexcept {
  const auto update = [this](auto&& step) noexcept {
    try {
      step(_workplace.metrics);
    } catch (...) {
      handleException(_workplace.logger, Level::Error, "updateStatus");
    }
  };
  const char* const status = answer.transportStatus;
  const auto requestBytes = answer.requestBytes;
  if (status != nullptr) update([=](Metrics& items) { items.updateTransportStatus(status); });
  _workplace.owner.deliver(std::move(answer));
  if (requestBytes) update([=](Metrics& items) { items.updateRequestMetrics(*requestBytes); });
  _exchange.trim();
}

void ClientSessionThread::reportFailure(const char* text) const noexcept {
  try {
    _log.transportLog(_workplace.dispatcher.isShuttingDown() ? Level::Debug : Level::Error,
                      "HTTPClient - Caught exception during processing - %s", text);
  } catch (...) {  // NOLINT(bugprone-empty-catch): nobody is left to tell
  }
}

}  // namespace connectivity::plugins
