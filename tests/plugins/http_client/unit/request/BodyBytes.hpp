// What a request's body sends.
#pragma once

#include <string>
#include <string_view>

#include "plugins/http_client/request/RequestBody.hpp"

namespace connectivity::plugins {

inline std::string bytesOf(const RequestBody& body) {
  std::string bytes;
  for (const std::string_view piece : body.pieces()) bytes += piece;
  return bytes;
}

}  // namespace connectivity::plugins
