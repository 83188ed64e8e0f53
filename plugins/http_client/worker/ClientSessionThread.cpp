// The worker's life: its session, its loop, its end.
#include "plugins/http_client/worker/ClientSessionThread.hpp"

#include <exception>
#include <stdexcept>
#include <utility>

#include <Poco/Exception.h>

#include "orrery/Platform.hpp"
#include "plugins/http_client/worker/SigpipeBlocker.hpp"

namespace connectivity::plugins {

HTTPClient::ClientSessionThread::ClientSessionThread(HTTPClient& transport, unsigned workerNumber)
    : Thread("clientSessionThread"), owner(transport), index(workerNumber) {
  try {
    setSession(owner.options.host, static_cast<std::uint64_t>(owner.options.port));
  } catch (const Poco::Exception& failure) {
    // Only the long text says which file cannot be read, and create logs what().
    throw std::runtime_error(failure.displayText());
  }
}

HTTPClient::ClientSessionThread::~ClientSessionThread() {
  // A worker that has run has closed its sessions itself.
  const SigpipeBlocker blocked;
  closeSessions();
}

void HTTPClient::ClientSessionThread::run() {
  blockSigpipe();
  sourceThread.set(&owner);
  while (serveNext()) {
  }
  closeSessions();
}

// Serves one request. False once there will be no more. Survives whatever that request does.
bool HTTPClient::ClientSessionThread::serveNext() noexcept {
  try {
    Message message = owner.getNextMessageRequest(index);
    const orrery::SchedulableQueueGuard guard(schedulableQueue.load(std::memory_order_acquire));
    const double start = orrery::Platform::relativeHighResTimeFloat();
    processRequest(std::move(message));
    owner.metrics.addBusyTime(index, orrery::Platform::relativeHighResTimeFloat() - start);
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

void HTTPClient::ClientSessionThread::reportFailure(const char* text) const noexcept {
  try {
    transportLog(owner.isShuttingDown() ? Level::Debug : Level::Error,
                 "HTTPClient - Caught exception during processing - %s", text);
  } catch (...) {  // NOLINT(bugprone-empty-catch): nobody is left to tell
  }
}

void HTTPClient::ClientSessionThread::closeSessions() noexcept {
  session.reset();
  configuredSession.reset();
}

}  // namespace connectivity::plugins
