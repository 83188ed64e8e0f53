// The page at "/" of the status server: one document without any other file, put together from the
// sources in host/status/page/, which are built into the program.
#pragma once

#include <string>

namespace host {

struct StatusPage {
  std::string document;
  // The value of Content-Security-Policy: nothing but the document's own style and script, which
  // are named by their hashes, and requests to the server that it came from.
  std::string policy;
};

StatusPage statusPage();

}  // namespace host
