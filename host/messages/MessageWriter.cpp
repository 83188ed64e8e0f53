#include "host/messages/MessageWriter.hpp"

namespace host {

void MessageWriter::writeResponse(const connectivity::Message& response) {
  _out += R"({"metadata":)";
  _json.write(response.metadata);
  _out += R"(,"payload":)";
  _payload.write(response, _json);
  _out += "}\n";
}

void MessageWriter::writeError(std::uint64_t line, std::string_view text) {
  _out += R"({"error":{"line":)" + std::to_string(line) + R"(,"text":)";
  _json.writeString(text);
  _out += "}}\n";
}

void MessageWriter::writeFlushed(const connectivity::data_t& id) {
  _out += R"({"control":"flushed","id":)";
  _json.write(id);
  _out += "}\n";
}

}  // namespace host
