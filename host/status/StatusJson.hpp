// Status items as JSON: one object, key to text, the keys in ascending order.
#pragma once

#include <string>

#include "host/status/StatusTable.hpp"

namespace host {

std::string statusAsJson(const StatusItems& items);

}  // namespace host
