#include "plugins/http_client/request/RequestBody.hpp"

#include <utility>

#include "connectivity/value_access.hpp"

namespace connectivity::plugins {

RequestBody RequestBody::none(std::string query) {
  RequestBody body;
  body._query = std::move(query);
  return body;
}

RequestBody RequestBody::ofBytes(std::string_view bytes) {
  RequestBody body;
  body._framed = true;
  body.appendBorrowed(bytes);
  return body;
}

RequestBody RequestBody::ofBuffer(data_t&& buffer) {
  RequestBody body;
  body._framed = true;
  body._buffer = std::move(buffer);
  body.appendBorrowed(get<buffer_t>(body._buffer).view());
  return body;
}

RequestBody RequestBody::ofText(std::string text, std::string contentType) {
  RequestBody body;
  body._contentType = std::move(contentType);
  body.append(std::move(text));
  return body;
}

void RequestBody::append(std::string&& bytes) {
  _texts.push_back(std::move(bytes));
  appendBorrowed(_texts.back());
}

void RequestBody::appendBorrowed(std::string_view bytes) {
  _framed = true;
  if (bytes.empty()) return;
  _pieces.push_back(bytes);
  _size += bytes.size();
}

}  // namespace connectivity::plugins
