// One worker of the transport's fixed pool: a thread with one persistent HTTP session.
//
// The loop takes a message, has it answered, counts and delivers the answer; each in one place.
// Everything below run() happens on the worker's own thread, except the constructor, which opens
// the first session on the host's control thread.
#pragma once

#include <atomic>

#include "orrery/SchedulableQueue.hpp"
#include "orrery/Thread.hpp"
#include "plugins/http_client/exchange/Exchange.hpp"
#include "plugins/http_client/exchange/SessionHome.hpp"
#include "plugins/http_client/request/RequestReading.hpp"
#include "plugins/http_client/response/Answers.hpp"
#include "plugins/http_client/shared/WorkerLog.hpp"
#include "plugins/http_client/worker/Workplace.hpp"

namespace connectivity::plugins {

class ClientSessionThread final : public orrery::Thread {
 public:
  // Opens the session; its failure is the constructor's. The workplace is borrowed.
  ClientSessionThread(const Workplace& workplace, unsigned workerNumber);
  ~ClientSessionThread() override;

  // The queue in which the host wants this worker's requests counted; null until the first batch.
  std::atomic<orrery::SchedulableQueue*> schedulableQueue{nullptr};

 protected:
  void run() override;

 private:
  // Serves one request. False once there will be no more. Survives whatever that request does.
  bool serveNext() noexcept;
  // The one answer of a message, whatever happens inside.
  Answer answerTo(Message&& message) noexcept;
  Answer processRequest(Message& message, double startTime);
  Answer performed(request& req);
  void deliver(Answer&& answer) noexcept;
  void reportFailure(const char* text) const noexcept;

  const Workplace& _workplace;
  const unsigned _index;
  const WorkerLog _log;
  SessionHome _home;
  Exchange _exchange;
  const RequestReader _reader;
  const Answers _answers;
};

}  // namespace connectivity::plugins
