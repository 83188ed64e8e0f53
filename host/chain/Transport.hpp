// One transport plug-in, driven through its entry points in their order: create, connect, start,
// any number of batches, shutdown, destroy.
#pragma once

#include <atomic>
#include <string>

#include "connectivity/data_t.hpp"
#include "host/chain/ChainFile.hpp"
#include "host/chain/PluginLibrary.hpp"
#include "host/status/StatusTable.hpp"

namespace host {

// Who receives a transport's responses, and hears of its back pressure.
class ResponseReceiver {
 public:
  virtual ~ResponseReceiver() = default;
  // Called on the transport's threads, one response at a time. What is left in the response, or
  // put in its place, goes back to the transport afterwards.
  virtual void receive(connectivity::Message& response) = 0;
  // A batch begins or ends to wait for space in the transport's queue: called inside send(), on its
  // thread, by a transport that tells it.
  virtual void batchWaits(bool /*waiting*/) noexcept {}
};

class Transport {
 public:
  // Creates the plug-in and connects it to `receiver`. All but `definition` are borrowed and
  // outlive the transport. std::runtime_error where the plug-in refuses; the log holds its reason.
  Transport(const PluginLibrary& library, const ChainDefinition& definition, StatusTable& status,
            ResponseReceiver& receiver);
  // Destroys the plug-in; no thread of it is left afterwards.
  ~Transport();
  Transport(const Transport&) = delete;
  Transport& operator=(const Transport&) = delete;

  // std::runtime_error where the plug-in fails.
  void start();
  // Hands messages over, and waits while the transport's queue is full. Those that it took are
  // empty afterwards. False where the transport reports a failure. From any thread.
  bool send(connectivity::Message* begin, connectivity::Message* end);
  // Returns when every message that was taken has been answered, or dropped after hostShutsDown().
  // False where the transport reports a failure.
  bool shutdown();

  // From now on the host answers that it is shutting down itself. From any thread.
  void hostShutsDown() noexcept { _shuttingDown.store(true); }
  bool isHostShuttingDown() const noexcept { return _shuttingDown.load(); }
  // Whether the transport has asked for queue-flush messages.
  bool wantsFlushMessages() const noexcept { return _wantsFlushMessages.load(); }

 private:
  static int enableFlushMessages(void* context);
  static int answerShuttingDown(void* context, bool* shuttingDown);
  static void noteBatchWaits(void* context, bool waiting);
  static int deliver(void* context, qor_message_t* start, qor_message_t* end);

  const PluginLibrary::EntryPoints& _entryPoints;
  ResponseReceiver& _receiver;
  const std::string _what;  // for errors: the transport and its chain
  qor_host_services_t _hostServices;
  std::atomic<bool> _shuttingDown{false};
  std::atomic<bool> _wantsFlushMessages{false};
  void* _plugin = nullptr;
};

}  // namespace host
