#include "host/status/StatusJson.hpp"

#include "host/messages/JsonWriter.hpp"

namespace host {

std::string statusAsJson(const StatusItems& items) {
  std::string text = "{";
  JsonWriter writer(text);
  for (const auto& [key, value] : items) {
    if (text.size() > 1) text += ',';
    writer.writeString(key);
    text += ':';
    writer.writeString(value);
  }
  return text + "}";
}

}  // namespace host
