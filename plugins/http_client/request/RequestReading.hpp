// From a request message to the worker's request record. Whatever is wrong with a message is found
// here, or while its body is made, before anything is sent.
//
// Runs on the worker's thread; what is given is borrowed.
#pragma once

#include "connectivity/data_t.hpp"
#include "plugins/http_client/config/ConfiguredOptions.hpp"
#include "plugins/http_client/config/DataTConstants.hpp"
#include "plugins/http_client/request/Request.hpp"
#include "plugins/http_client/shared/WorkerLog.hpp"

namespace connectivity::plugins {

// Values nest this deep at the most, within the payload and within the metadata.
inline constexpr unsigned maxNesting = 1000;

class RequestReader {
 public:
  RequestReader(const ConfiguredOptions& options, const DataTConstants& keys, const WorkerLog& log)
      : _options(options), _keys(keys), _log(log) {}

  // Moves the message's parts into the record. Where it throws RefusedRequest, with the texts of
  // docs/message-format.md, the message is as it was, so that the answer can name what is known.
  request readRequest(Message& message, double startTime) const;

 private:
  const ConfiguredOptions& _options;
  const DataTConstants& _keys;
  const WorkerLog& _log;
};

}  // namespace connectivity::plugins
