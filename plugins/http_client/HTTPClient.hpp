// The transport: takes batches of request messages from the host, spreads them over a fixed pool of
// workers, and hands back one answer for each.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <variant>
#include <vector>

#include <Poco/Net/HTTPResponse.h>

#include "connectivity/Plugin.hpp"
#include "orrery/Mutex.hpp"
#include "orrery/RefCountedObject.hpp"
#include "orrery/ThreadLocal.hpp"
#include "plugins/http_client/AffinityQueue.hpp"
#include "plugins/http_client/ConfiguredOptions.hpp"
#include "plugins/http_client/Cookies.hpp"
#include "plugins/http_client/DataTConstants.hpp"
#include "plugins/http_client/Metrics.hpp"
#include "plugins/http_client/Sentinel.hpp"

namespace connectivity::plugins {

class HTTPClient final : public AbstractTransport {
 public:
  class ClientSessionThread;
};

}  // namespace connectivity::plugins
