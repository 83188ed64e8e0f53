// What `orrery-host request` was told, as the transport's configuration and one request message.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "connectivity/data_t.hpp"

namespace host {

// As they stand on the command line.
struct RequestOptions {
  // One -d or --data-binary, in their order.
  struct Data {
    std::string text;
    bool binary = false;
  };

  std::string method;
  std::string url;
  std::vector<std::string> headers;
  std::vector<Data> data;
  std::vector<std::string> fields;
  std::optional<std::string> user;
  std::optional<std::string> proxy;
  std::optional<std::string> caFile;
  bool insecure = false;
  std::vector<std::string> settings;
  bool include = false;
  bool json = false;
  std::optional<int> logLevel;
};

struct SingleRequest {
  connectivity::map_t config;
  connectivity::Message message;
};

// Reads the files that the options name. UsageError names the option or argument that is wrong.
SingleRequest makeSingleRequest(const RequestOptions& options);

}  // namespace host
