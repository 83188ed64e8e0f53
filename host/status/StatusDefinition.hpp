// Where the status server listens, as the chain file says it.
#pragma once

#include <string>

namespace host {

struct StatusDefinition {
  int port = 0;  // 0: the system picks one
  std::string address = "127.0.0.1";
};

}  // namespace host
