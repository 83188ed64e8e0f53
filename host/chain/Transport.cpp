#include "host/chain/Transport.hpp"

#include <stdexcept>
#include <utility>

namespace host {

using connectivity::Message;

namespace {

Transport& transportAt(void* context) { return *static_cast<Transport*>(context); }

// The two are one layout (data_t.hpp holds them to it).
qor_message_t* asC(Message* message) { return reinterpret_cast<qor_message_t*>(message); }

}  // namespace

Transport::Transport(const PluginLibrary& library, const ChainDefinition& definition,
                     StatusTable& status, ResponseReceiver& receiver)
    : _entryPoints(library.entryPoints()),
      _receiver(receiver),
      _what("the transport " + definition.transport.text + " of chain " + definition.id),
      _hostServices{this, &enableFlushMessages, &answerShuttingDown, &noteBatchWaits} {
  qor_data_t configuration{};
  configuration.tag = QOR_MAP;
  configuration.value.map = definition.config.table();
  _plugin = _entryPoints.create(definition.name.c_str(), definition.id.c_str(), configuration,
                                status.handle(), &_hostServices);
  if (_plugin == nullptr) throw std::runtime_error(_what + " could not be created (see the log)");
  if (_entryPoints.setNextTowardsHost(_plugin, this, &deliver) != 0) {
    _entryPoints.destroy(_plugin);
    throw std::runtime_error(_what + " could not be connected (see the log)");
  }
}

Transport::~Transport() { _entryPoints.destroy(_plugin); }

void Transport::start() {
  if (_entryPoints.start(_plugin) != 0 || _entryPoints.hostReady(_plugin) != 0) {
    throw std::runtime_error(_what + " could not be started (see the log)");
  }
}

bool Transport::send(Message* begin, Message* end) {
  return _entryPoints.sendBatchTowardsTransport(_plugin, asC(begin), asC(end)) == 0;
}

bool Transport::shutdown() { return _entryPoints.shutdown(_plugin) == 0; }

int Transport::enableFlushMessages(void* context) {
  transportAt(context)._wantsFlushMessages.store(true);
  return 0;
}

int Transport::answerShuttingDown(void* context, bool* shuttingDown) {
  *shuttingDown = transportAt(context).isHostShuttingDown();
  return 0;
}

void Transport::noteBatchWaits(void* context, bool waiting) {
  transportAt(context)._receiver.batchWaits(waiting);
}

int Transport::deliver(void* context, qor_message_t* start, qor_message_t* end) {
  try {
    for (qor_message_t* message = start; message != end; ++message) {
      transportAt(context)._receiver.receive(*reinterpret_cast<Message*>(message));
    }
    return 0;
  } catch (...) {
    return 1;
  }
}

}  // namespace host
