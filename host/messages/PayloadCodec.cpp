#include "host/messages/PayloadCodec.hpp"

#include <algorithm>
#include <array>
#include <string>

#include "connectivity/value_access.hpp"
#include "orrery/runtime/Utf8.hpp"

namespace host {

using connectivity::buffer_t;
using connectivity::data_t;
using connectivity::map_t;
using connectivity::Message;

namespace {

constexpr const char* jsonType = "application/json";

char lowerCase(char character) {
  return character >= 'A' && character <= 'Z' ? static_cast<char>(character - 'A' + 'a')
                                              : character;
}

std::string lowerCase(std::string_view text) {
  std::string lower(text);
  std::transform(lower.begin(), lower.end(), lower.begin(),
                 [](char character) { return lowerCase(character); });
  return lower;
}

// The media type in lower case, without parameters.
std::string mediaType(std::string_view contentType) {
  contentType = contentType.substr(0, contentType.find(';'));
  const auto first = contentType.find_first_not_of(" \t");
  if (first == std::string_view::npos) return {};
  const auto last = contentType.find_last_not_of(" \t");
  return lowerCase(contentType.substr(first, last - first + 1));
}

bool isJsonType(std::string_view contentType) {
  const std::string type = mediaType(contentType);
  return type == jsonType || type == "text/json" || type.ends_with("+json");
}

bool isFormType(std::string_view contentType) {
  const std::string type = mediaType(contentType);
  return type == "application/x-www-form-urlencoded" || type == "multipart/form-data";
}

const map_t* mapAt(const map_t& map, const char* key) {
  const data_t* value = map.findText(key);
  if (value == nullptr || value->tag() != QOR_MAP) return nullptr;
  return &connectivity::get<map_t>(*value);
}

bool holdsValue(const data_t* value) { return value != nullptr && !value->empty(); }

// The content-type among the request's headers, whatever the case of its name; or null.
const data_t* contentTypeHeader(const map_t& http) {
  const map_t* headers = mapAt(http, "headers");
  if (headers == nullptr) return nullptr;
  for (auto header = headers->begin(); !header.atEnd(); ++header) {
    if (header.key().isString() && lowerCase(header.key().text()) == "content-type") {
      return &header.value();
    }
  }
  return nullptr;
}

// What the request names as its content type, wherever it does; or null.
const data_t* contentTypeOf(const map_t& http) {
  const data_t* contentType = http.findText("contentType");
  return holdsValue(contentType) ? contentType : contentTypeHeader(http);
}

bool isForm(const Message& request) {
  if (request.payload.tag() != QOR_MAP) return false;
  const map_t* http = mapAt(request.metadata, "http");
  if (http == nullptr) return false;
  if (holdsValue(http->findText("form"))) return true;
  const data_t* contentType = contentTypeOf(*http);
  return contentType != nullptr && contentType->isString() && isFormType(contentType->text());
}

void nameJsonType(map_t& metadata) {
  data_t* value = metadata.findText("http");
  if (value == nullptr || value->tag() != QOR_MAP) return;
  auto& http = connectivity::get<map_t>(*value);
  if (contentTypeOf(http) != nullptr) return;
  if (data_t* empty = http.findText("contentType")) {
    *empty = data_t(jsonType);
  } else {
    http.insert(data_t("contentType"), data_t(jsonType));
  }
}

void encodeAsJson(Message& request) {
  if (request.payload.empty() || request.payload.tag() == QOR_BUFFER) return;
  request.payload = data_t(buffer_t::copyOf(toJson(request.payload)));
  nameJsonType(request.metadata);
}

}  // namespace

std::span<const std::string_view> codecNames() {
  static constexpr std::array<std::string_view, 3> names{"text", "json", "none"};
  return names;
}

std::optional<Codec> codecNamed(std::string_view name) {
  if (name == "text") return Codec::Text;
  if (name == "json") return Codec::Json;
  if (name == "none") return Codec::None;
  return std::nullopt;
}

void encodePayload(Codec codec, Message& request) {
  if (codec == Codec::None || isForm(request)) return;
  if (codec == Codec::Json) {
    encodeAsJson(request);
  } else if (request.payload.isString()) {
    request.payload = data_t(buffer_t::copyOf(request.payload.text()));
  }
}

void PayloadWriter::write(const Message& response, JsonWriter& writer) {
  if (_codec == Codec::None || response.payload.tag() != QOR_BUFFER) {
    return writer.write(response.payload);
  }
  const std::string_view body = connectivity::get<buffer_t>(response.payload).view();
  if (_codec == Codec::Json) {
    if (!writeAsJson(response, body, writer)) writer.write(response.payload);
  } else if (body.find('\0') == std::string_view::npos && runtime::isUtf8(body)) {
    writer.writeString(body);
  } else {
    writer.write(response.payload);
  }
}

// False where the response is not JSON; then nothing has been written.
bool PayloadWriter::writeAsJson(const Message& response, std::string_view body,
                                JsonWriter& writer) {
  const data_t* contentType = response.metadata.findText("contentType");
  if (contentType == nullptr || !contentType->isString() || !isJsonType(contentType->text())) {
    return false;
  }
  try {
    writer.write(_bodies.read(body));
    return true;
  } catch (const JsonError&) {
    return false;
  }
}

}  // namespace host
