// What the steps of a request's way share in one transport, for tests of single steps: options,
// keys, a jar, and a worker's log that is recorded.
//
// One thread at a time uses it; one at a time lives in a process.
#pragma once

#include <stdexcept>
#include <string>
#include <string_view>

#include "connectivity/Logger.hpp"
#include "plugins/http_client/config/ConfiguredOptions.hpp"
#include "plugins/http_client/config/DataTConstants.hpp"
#include "plugins/http_client/request/Refusal.hpp"
#include "plugins/http_client/request/Request.hpp"
#include "plugins/http_client/request/RequestReading.hpp"
#include "plugins/http_client/shared/Cookies.hpp"
#include "plugins/http_client/shared/WorkerLog.hpp"
#include "tests/support/Messages.hpp"
#include "tests/support/ServiceDoubles.hpp"

namespace connectivity::plugins {

struct TransportParts {
  explicit TransportParts(const test_support::Config& config = test_support::Config(1))
      : options(ConfiguredOptions::parse(config.map())) {}

  // The request as a worker reads it from its message.
  request read(Message&& message) const {
    return RequestReader(options, keys, log).readRequest(message, 1.5);
  }
  request read(const test_support::Request& given) const { return read(given.message()); }

  // Whether the worker has logged exactly this text at this level.
  bool logged(Level level, std::string_view text) const {
    for (const auto& line : lines.lines()) {
      if (line.level == static_cast<int>(level) && line.text == "<test> {3} " + std::string(text)) {
        return true;
      }
    }
    return false;
  }

  test_support::LogDouble lines;
  const ConfiguredOptions options;
  const DataTConstants keys;
  const Logger logger{"test"};
  const WorkerLog log{logger, 3};
  Cookies cookies{options.cookieJar, logger};
};

// The text with which `step` refuses a request; "not refused" where it does not.
template <typename Step>
std::string refusalOf(Step&& step) {
  try {
    step();
  } catch (const RefusedRequest& refused) {
    return refused.what();
  }
  return "not refused";
}

}  // namespace connectivity::plugins
