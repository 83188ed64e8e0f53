#include "plugins/http_client/request/FormBody.hpp"

#include <algorithm>
#include <array>
#include <optional>
#include <utility>

#include "connectivity/value_access.hpp"
#include "plugins/http_client/request/Refusal.hpp"
#include "plugins/http_client/text/Ascii.hpp"
#include "plugins/http_client/text/HeaderRules.hpp"

namespace connectivity::plugins {

namespace {

constexpr const char* fileNameKey = "filename";
constexpr const char* contentTypeKey = "contentType";
constexpr const char* charsetKey = "charset";
constexpr std::array metadataKeys{fileNameKey, contentTypeKey, charsetKey};

const data_t* given(const map_t& map, const char* key) {
  const data_t* value = map.findText(key);
  return value == nullptr || value->empty() ? nullptr : value;
}

// The form metadata: keys that stand for all files, and maps of the same keys under fields' names.
class FormMetadata {
 public:
  explicit FormMetadata(const data_t& metadata) {
    if (metadata.empty()) return;
    if (metadata.tag() != QOR_MAP) throw RefusedRequest("http.form must be a map");
    _map = &get<map_t>(metadata);
    for (const char* key : metadataKeys) {
      const data_t* value = given(*_map, key);
      // A map may also belong to a field of that name.
      if (value != nullptr && value->tag() != QOR_MAP) textOf(*value, key);
    }
  }

  // What stands under a field's name is of the right kind, also where nothing asks for it.
  void check(const char* field) const {
    const map_t* own = ownOf(field);
    if (own == nullptr) return;
    for (const char* key : metadataKeys) {
      const data_t* value = given(*own, key);
      if (value != nullptr) textOf(*value, std::string(field) + "." + key);
    }
  }

  // REQUIRES: check(field).
  std::optional<std::string_view> find(const char* field, const char* key) const {
    if (_map == nullptr) return std::nullopt;
    if (const map_t* own = ownOf(field)) {
      const data_t* value = given(*own, key);
      if (value != nullptr) return value->text();
    }
    const data_t* value = given(*_map, key);
    if (value == nullptr || !value->isString()) return std::nullopt;
    return value->text();
  }

 private:
  // The map under a field's name, or null.
  const map_t* ownOf(const char* field) const {
    const data_t* own = _map == nullptr ? nullptr : given(*_map, field);
    if (own == nullptr || isMetadataKey(field, *own)) return nullptr;
    if (own->tag() != QOR_MAP) {
      throw RefusedRequest("http.form." + std::string(field) + " must be a map");
    }
    return &get<map_t>(*own);
  }

  static std::string_view textOf(const data_t& value, const std::string& name) {
    if (!value.isString()) throw RefusedRequest("http.form." + name + " must be a string");
    if (hasControlCharacter(value.text(), Tab::Refused)) {
      throw RefusedRequest("http.form." + name + " must not hold control characters");
    }
    return value.text();
  }

  static bool isMetadataKey(std::string_view field, const data_t& value) {
    return value.isString() &&
           std::find(metadataKeys.begin(), metadataKeys.end(), field) != metadataKeys.end();
  }

  const map_t* _map = nullptr;
};

std::string contentTypeOf(const char* field, const FormMetadata& metadata) {
  std::string type(metadata.find(field, contentTypeKey).value_or("application/octet-stream"));
  if (const auto charset = metadata.find(field, charsetKey)) {
    type.append("; charset=").append(*charset);
  }
  return type;
}

FormField readField(const char* name, const data_t& value, const FormMetadata& metadata,
                    const ReportLine& report) {
  FormField field;
  field.name = name;
  if (hasControlCharacter(name, Tab::Refused)) {
    throw RefusedRequest("The name of a form field must not hold control characters");
  }
  metadata.check(name);
  if (value.isString()) {
    field.value = value.text();
    return field;
  }
  if (value.tag() != QOR_BUFFER) throw RefusedRequest(payloadRefusal);
  field.value = get<buffer_t>(value).view();
  if (const auto fileName = metadata.find(name, fileNameKey)) {
    field.isFile = true;
    field.fileName = *fileName;
    field.contentType = contentTypeOf(name, metadata);
  } else {
    report(
        "Can't find filename in the form metadata. Data will be send as a string not as a binary "
        "payload");
  }
  return field;
}

// All but the unreserved characters (RFC 3986, 2.3).
void appendFormEncoded(std::string& out, std::string_view text) {
  for (const char c : text) {
    if (isAlphanumeric(c) || c == '-' || c == '.' || c == '_' || c == '~') {
      out += c;
    } else {
      appendPercentEncoded(out, c);
    }
  }
}

// A name between double quotes. Nothing but the quote itself is escaped, as browsers have it.
void appendQuoted(std::string& out, std::string_view name) {
  out += '"';
  for (const char c : name) {
    if (c == '"') {
      out += "%22";
    } else {
      out += c;
    }
  }
  out += '"';
}

std::string partHead(const FormField& field, std::string_view delimiter) {
  std::string head(delimiter);
  head += "\r\nContent-Disposition: form-data; name=";
  appendQuoted(head, field.name);
  if (field.isFile) {
    head += "; filename=";
    appendQuoted(head, field.fileName);
    head.append("\r\nContent-Type: ").append(field.contentType);
  }
  return head += "\r\n\r\n";
}

}  // namespace

std::vector<FormField> readFormFields(const map_t& payload, const data_t& metadata,
                                      const ReportLine& report) {
  const FormMetadata files(metadata);
  std::vector<FormField> fields;
  fields.reserve(static_cast<std::size_t>(payload.size()));
  for (const auto entry : payload) {
    if (!entry.first.isString()) throw RefusedRequest(payloadRefusal);
    fields.push_back(readField(entry.first.text(), entry.second, files, report));
  }
  return fields;
}

std::string urlEncodedForm(const std::vector<FormField>& fields) {
  std::string text;
  for (const FormField& field : fields) {
    if (field.isFile) {
      throw RefusedRequest("HTTPClient form field " + std::string(field.name) +
                           " is a file, which only the body of a multipart/form-data request "
                           "carries");
    }
    if (!text.empty()) text += '&';
    appendFormEncoded(text, field.name);
    text += '=';
    appendFormEncoded(text, field.value);
  }
  return text;
}

RequestBody multipartForm(const std::vector<FormField>& fields, const std::string& boundary) {
  RequestBody body;
  std::string delimiter = "--" + boundary;
  bool first = true;
  for (const FormField& field : fields) {
    body.append(partHead(field, delimiter));
    body.appendBorrowed(field.value);
    if (std::exchange(first, false)) delimiter.insert(0, "\r\n");
  }
  body.append(delimiter + "--\r\n");
  return body;
}

}  // namespace connectivity::plugins
