// How a chain's payloads change on their way between lines of JSON and the transport.
//
//   text   a string payload becomes the buffer of its UTF-8 bytes; a response buffer that is valid
//          UTF-8 becomes a string, unless it holds U+0000, which a string value cannot
//   json   a payload that is no buffer becomes a buffer of its JSON text, and http.contentType
//          becomes "application/json" where the request names no content type; null is no body. A
//          response whose content type is JSON becomes the value that its body holds; a body that
//          is not JSON after all stays a buffer
//   none   nothing changes
//
// Under every codec a map payload with http.form or with the content type of a form stays as it is.
#pragma once

#include <optional>
#include <span>
#include <string_view>

#include "connectivity/data_t.hpp"
#include "host/messages/JsonReader.hpp"
#include "host/messages/JsonWriter.hpp"

namespace host {

enum class Codec { Text, Json, None };

std::span<const std::string_view> codecNames();
// The codec of that name, as the chain file has it.
std::optional<Codec> codecNamed(std::string_view name);

// Changes a request on its way to the transport.
void encodePayload(Codec codec, connectivity::Message& request);

// Writes the payload of responses. Used by one thread at a time.
class PayloadWriter {
 public:
  explicit PayloadWriter(Codec codec) : _codec(codec), _bodies(JsonReader::Forms::Plain) {}

  // Writes the payload as the codec has it.
  void write(const connectivity::Message& response, JsonWriter& writer);

 private:
  bool writeAsJson(const connectivity::Message& response, std::string_view body,
                   JsonWriter& writer);

  const Codec _codec;
  JsonReader _bodies;
};

}  // namespace host
