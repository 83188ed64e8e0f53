// Whom a request's head is written for. A head is made anew for each server that a request meets:
// nothing that is meant for one of them travels to another.
#pragma once

#include <string>

namespace connectivity::plugins {

// Where a proxy reads credentials.
enum class ProxyReads { Nothing, EachRequest, Connect };

struct Destination {
  bool isConfiguredServer = true;
  std::string hostField;       // the value of Host: "example.org:8080"
  std::string absolutePrefix;  // "http://example.org:8080" where the target is absolute, or ""
  ProxyReads proxyReads = ProxyReads::Nothing;
  std::string proxyAuthorization;  // configured; empty: none
};

}  // namespace connectivity::plugins
