// The requests of the demo, and the answer that each must get.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace host {

struct DemoRequest {
  std::string kind;  // what it shows
  std::string line;  // the request message, as a line of input
  int status;        // of the answer
  std::string body;  // of the answer: all of it, or how it ends
  bool isWholeBody;
};

// That many requests, all kinds in turn. The request ids are the positions.
std::vector<DemoRequest> makeDemoRequests(std::size_t howMany);

}  // namespace host
