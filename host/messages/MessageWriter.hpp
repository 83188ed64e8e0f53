// Output lines: responses, invalid input lines, and completed flushes.
//
// Each function appends one whole line, line feed included, to the text given to the constructor.
// Used by one thread at a time.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "connectivity/data_t.hpp"
#include "host/messages/JsonWriter.hpp"
#include "host/messages/PayloadCodec.hpp"

namespace host {

class MessageWriter {
 public:
  MessageWriter(Codec codec, std::string& out) : _out(out), _json(out), _payload(codec) {}

  // {"metadata":{...},"payload":...}
  void writeResponse(const connectivity::Message& response);
  // {"error":{"line":7,"text":"..."}}
  void writeError(std::uint64_t line, std::string_view text);
  // {"control":"flushed","id":...}
  void writeFlushed(const connectivity::data_t& id);

 private:
  std::string& _out;
  JsonWriter _json;
  PayloadWriter _payload;
};

}  // namespace host
