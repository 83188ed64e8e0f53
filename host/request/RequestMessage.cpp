#include "host/request/RequestMessage.hpp"

#include <algorithm>
#include <array>
#include <string_view>
#include <utility>

#include <Poco/String.h>

#include "connectivity/value_access.hpp"
#include "host/program/NearestWord.hpp"
#include "host/program/UsageError.hpp"
#include "host/request/RequestFields.hpp"
#include "host/request/RequestUrl.hpp"

namespace host {

using connectivity::buffer_t;
using connectivity::data_t;
using connectivity::map_t;
using connectivity::Message;

namespace {

constexpr std::array<std::string_view, 6> methods{"GET", "PUT", "POST", "DELETE", "HEAD", "TRACE"};

std::string checkedMethod(const std::string& method) {
  if (std::find(methods.begin(), methods.end(), method) != methods.end()) return method;
  throw UsageError("METHOD " + method + ": must be GET, PUT, POST, DELETE, HEAD or TRACE" +
                   didYouMean(method, methods));
}

// Puts a value in place of what is under the key.
void put(map_t& map, const std::string& key, data_t&& value) {
  if (data_t* present = map.findText(key.c_str())) {
    *present = std::move(value);
  } else {
    map.insert(data_t(key), std::move(value));
  }
}

// The same in nested maps, whose keys are joined with "/"; what is missing on the way is made.
void putAt(map_t& map, std::string_view path, data_t&& value, const std::string& option) {
  const auto slash = path.find('/');
  const std::string key(path.substr(0, slash));
  if (key.empty()) throw UsageError(option + ": a key is empty");
  if (slash == std::string_view::npos) return put(map, key, std::move(value));
  if (map.findText(key.c_str()) == nullptr) put(map, key, data_t(map_t()));
  data_t& inner = *map.findText(key.c_str());
  if (inner.tag() != QOR_MAP) throw UsageError(option + ": " + key + " has a value of its own");
  putAt(connectivity::get<map_t>(inner), path.substr(slash + 1), std::move(value), option);
}

// --- The configuration ---------------------------------------------------------------------------

void putCredentials(map_t& config, const std::string& path, const Credentials& credentials) {
  map_t map;
  put(map, "authenticationType", data_t("HTTP_BASIC"));
  put(map, "username", data_t(credentials.user));
  put(map, "password", data_t(credentials.password));
  putAt(config, path, data_t(std::move(map)), "");
}

void putProxy(map_t& config, const ProxyAddress& proxy) {
  putAt(config, "proxy/host", data_t(proxy.host), "");
  putAt(config, "proxy/port", data_t(proxy.port), "");
  if (proxy.credentials) putCredentials(config, "proxy/authentication", *proxy.credentials);
}

// A setting wins over the options and the URL. Its value is a text: the transport reads numbers and
// booleans from texts.
map_t configFrom(const RequestOptions& options, const RequestUrl& url) {
  map_t config;
  put(config, "host", data_t(url.host));
  put(config, "tls", data_t(url.tls));
  if (url.port) put(config, "port", data_t(*url.port));
  if (options.caFile) put(config, "tlsCertificateAuthorityFile", data_t(*options.caFile));
  if (options.insecure) put(config, "tlsAcceptUnrecognizedCertificates", data_t(true));
  if (options.proxy) putProxy(config, parseProxyAddress(*options.proxy));
  if (options.user) {
    putCredentials(config, "authentication", parseCredentials("-u", *options.user));
  } else if (url.credentials) {
    putCredentials(config, "authentication", *url.credentials);
  }
  for (const std::string& setting : options.settings) {
    const auto [key, value] = parseSetting(setting);
    putAt(config, key, data_t(value), "--set " + key);
  }
  return config;
}

// --- The message ---------------------------------------------------------------------------------

const data_t* findHeader(const map_t& headers, const std::string& name) {
  const std::string lower = Poco::toLower(name);
  for (auto header = headers.begin(); !header.atEnd(); ++header) {
    if (Poco::toLower(std::string(header.key().text())) == lower) return &header.key();
  }
  return nullptr;
}

// A header that is given again continues the first (RFC 9110, 5.3).
void addHeader(map_t& headers, const std::string& name, const std::string& value) {
  const data_t* present = findHeader(headers, name);
  if (present == nullptr) return put(headers, name, data_t(value));
  data_t& first = *headers.findText(present->text());
  const char* between = Poco::toLower(name) == "cookie" ? "; " : ", ";
  first = data_t(first.text() + (between + value));
}

map_t headersFrom(const std::vector<std::string>& options) {
  map_t headers;
  for (const std::string& option : options) {
    const auto [name, value] = parseHeader(option);
    addHeader(headers, name, value);
  }
  return headers;
}

data_t bodyFrom(const std::vector<RequestOptions::Data>& data) {
  std::string body;
  for (const RequestOptions::Data& each : data) {
    if (&each != data.data()) body += '&';
    body += readData(each.binary ? "--data-binary" : "-d", each.text, each.binary);
  }
  return data_t(buffer_t::copyOf(body));
}

// What the transport is told of an upload, beside its content.
data_t uploadFrom(const FormField& field) {
  map_t upload;
  put(upload, "filename", data_t(field.fileName.value_or("")));
  if (field.type) put(upload, "contentType", data_t(*field.type));
  return data_t(std::move(upload));
}

data_t contentFrom(const FormField& field) {
  // A string value cannot hold U+0000; as a buffer it is sent as it is.
  const bool isText = !field.isUpload && field.content.find('\0') == std::string::npos;
  return isText ? data_t(field.content) : data_t(buffer_t::copyOf(field.content));
}

void addForm(const std::vector<std::string>& fields, map_t& http, data_t& payload) {
  map_t form;
  map_t contents;
  for (const std::string& option : fields) {
    const FormField field = readFormField(option);
    if (contents.findText(field.name.c_str()) != nullptr) {
      throw UsageError("-F " + field.name + ": a form has one field of each name");
    }
    put(contents, field.name, contentFrom(field));
    if (field.isUpload) put(form, field.name, uploadFrom(field));
  }
  put(http, "form", data_t(std::move(form)));
  put(http, "contentType", data_t("multipart/form-data"));
  payload = data_t(std::move(contents));
}

Message messageFrom(const RequestOptions& options, const std::string& target) {
  map_t http;
  data_t payload;
  map_t headers = headersFrom(options.headers);
  put(http, "method", data_t(checkedMethod(options.method)));
  put(http, "path", data_t(target));
  if (!options.fields.empty()) {
    if (!options.data.empty()) throw UsageError("-F: a form has no -d or --data-binary beside it");
    addForm(options.fields, http, payload);
  } else if (!options.data.empty()) {
    payload = bodyFrom(options.data);
    if (findHeader(headers, "content-type") == nullptr) {
      put(http, "contentType", data_t("application/x-www-form-urlencoded"));
    }
  }
  put(http, "headers", data_t(std::move(headers)));
  map_t metadata;
  put(metadata, "requestId", data_t(1));
  put(metadata, "http", data_t(std::move(http)));
  return {std::move(payload), std::move(metadata)};
}

}  // namespace

SingleRequest makeSingleRequest(const RequestOptions& options) {
  const RequestUrl url = parseRequestUrl(options.url);
  map_t config = configFrom(options, url);
  return {std::move(config), messageFrom(options, url.target)};
}

}  // namespace host
