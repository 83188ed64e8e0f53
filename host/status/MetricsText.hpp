// The status items in Prometheus' text exposition format 0.0.4, for /metrics.
//
// Keys end in the item's name, behind their last dot; what is in front is the label `transport`.
// The host knows no transport, but it knows names that transports commonly publish under: they get
// their type, a help line and base units (seconds, bytes, ratios). Any other item that is a number
// is there too, as it stands and untyped.
//
//   shop.orders.status ONLINE                    orrery_up{transport="shop.orders"} 1
//   shop.orders.requestLatencyEWMAShortMillis 12 orrery_request_latency_ewma_short_seconds{...}
//   0.012 shop.orders.cacheHits 7                      orrery_cache_hits{...} 7, untyped
#pragma once

#include <optional>
#include <string>

#include "host/status/StatusTable.hpp"

namespace host {

std::string statusAsMetrics(const StatusItems& items);

// The number that a whole text is; none for another text, an infinity or NaN.
std::optional<double> numberIn(const std::string& text);
// The shortest text that reads back as the number.
std::string textOf(double number);

}  // namespace host
