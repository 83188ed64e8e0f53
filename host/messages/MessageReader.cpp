#include "host/messages/MessageReader.hpp"

#include <string>
#include <utility>

#include "connectivity/value_access.hpp"

namespace host {

using connectivity::data_t;
using connectivity::map_t;
using connectivity::Message;

namespace {

// The value under the key, moved out, or an empty value; `count` counts what was there.
data_t take(map_t& fields, const char* key, std::uint64_t& count) {
  data_t* value = fields.findText(key);
  if (value == nullptr) return {};
  ++count;
  return std::move(*value);
}

bool isText(const data_t* value, std::string_view text) {
  return value != nullptr && value->isString() && value->text() == text;
}

data_t lineNumber(std::uint64_t number) { return data_t(static_cast<long long>(number)); }

FlushRequest flushFrom(map_t& fields, std::uint64_t number) {
  std::uint64_t known = 0;
  const data_t control = take(fields, "control", known);
  if (!isText(&control, "flush")) throw InvalidLine("control must be \"flush\"");
  const bool hasId = fields.findText("id") != nullptr;
  FlushRequest flush{take(fields, "id", known)};
  if (known != fields.size()) throw InvalidLine("a control line holds only control and id");
  if (!hasId) flush.id = lineNumber(number);
  return flush;
}

map_t metadataFrom(map_t& fields, std::uint64_t& known) {
  data_t value = take(fields, "metadata", known);
  if (known == 0) return {};
  if (value.tag() != QOR_MAP) throw InvalidLine("metadata must be an object");
  return std::move(connectivity::get<map_t>(value));
}

// What was taken is empty by now, or was; any key beside metadata and payload is one too many.
[[noreturn]] void throwUnknownKey(const map_t& fields) {
  std::string unknown;
  for (auto field = fields.begin(); !field.atEnd(); ++field) {
    const std::string key = field.key().isString() ? field.key().text() : "...";
    if (key != "metadata" && key != "payload" && (unknown.empty() || key < unknown)) unknown = key;
  }
  throw InvalidLine("a message holds only metadata and payload, not \"" + unknown +
                    "\" (method and path stand in metadata.http)");
}

}  // namespace

bool MessageReader::isBlank(std::string_view line) noexcept {
  return line.find_first_not_of(" \t\r") == std::string_view::npos;
}

MessageReader::Line MessageReader::read(std::string_view line, std::uint64_t number) {
  try {
    data_t value = _json.read(line);
    if (value.tag() != QOR_MAP) throw InvalidLine("a message must be an object");
    auto& fields = connectivity::get<map_t>(value);
    if (fields.findText("control") != nullptr) return flushFrom(fields, number);
    return messageFrom(fields, number);
  } catch (const JsonError& error) {
    throw InvalidLine(error.what());
  }
}

Message MessageReader::messageFrom(map_t& fields, std::uint64_t number) const {
  std::uint64_t known = 0;
  map_t metadata = metadataFrom(fields, known);
  data_t payload = take(fields, "payload", known);
  if (known != fields.size()) throwUnknownKey(fields);
  // The host could not tell when such a flush is complete.
  if (isText(metadata.findText("qor.control.type"), "QueueFlush")) {
    throw InvalidLine(R"(a queue flush is written as {"control": "flush"})");
  }
  if (metadata.table() == nullptr) metadata = map_t(qor_allocate_map(4));
  if (_assignRequestIds && metadata.findText("requestId") == nullptr) {
    metadata.insert(data_t("requestId"), lineNumber(number));
  }
  Message message(std::move(payload), std::move(metadata));
  encodePayload(_codec, message);
  return message;
}

}  // namespace host
