// Input lines as messages for the transport.
//
// A line is an object with the keys metadata (an object) and payload (any value), both optional; or
// the control line {"control": "flush", "id": ANY}. Line numbers count from 1.
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string_view>
#include <variant>

#include "connectivity/data_t.hpp"
#include "host/messages/JsonReader.hpp"
#include "host/messages/PayloadCodec.hpp"

namespace host {

// A line that is not a valid message; what() says why.
class InvalidLine : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// The request to flush the transport's queue, and the id to report it under.
struct FlushRequest {
  connectivity::data_t id;
};

// Used by one thread at a time.
class MessageReader {
 public:
  using Line = std::variant<connectivity::Message, FlushRequest>;

  // With `assignRequestIds`, a request without requestId gets the number of its line.
  MessageReader(Codec codec, bool assignRequestIds)
      : _codec(codec), _assignRequestIds(assignRequestIds), _json(JsonReader::Forms::Extended) {}

  // Throws InvalidLine. A message's metadata always has a table, so that one which the transport
  // has taken can be told from one which it has left.
  Line read(std::string_view line, std::uint64_t number);

  // Whether the line holds nothing but white space.
  static bool isBlank(std::string_view line) noexcept;

 private:
  connectivity::Message messageFrom(connectivity::map_t& fields, std::uint64_t number) const;

  const Codec _codec;
  const bool _assignRequestIds;
  JsonReader _json;
};

}  // namespace host
