// From a request message to the worker's request record. Whatever is wrong with a message is found
// here, before anything is sent, and answered with status 400.
#include <algorithm>
#include <array>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>

#include <Poco/Exception.h>

#include "connectivity/value_access.hpp"
#include "orrery/Platform.hpp"
#include "plugins/http_client/request/Refusal.hpp"
#include "plugins/http_client/request/Request.hpp"
#include "plugins/http_client/text/CharacterSets.hpp"
#include "plugins/http_client/text/HeaderRules.hpp"
#include "plugins/http_client/worker/ClientSessionThread.hpp"

namespace connectivity::plugins {

namespace {

using Texts = std::map<std::string, std::string>;

constexpr std::array<std::string_view, 6> methods{"GET", "PUT", "POST", "DELETE", "HEAD", "TRACE"};

// An entry that is there and not empty: an optional key may be given as null.
const data_t* given(const map_t* map, const Constant& key) {
  const data_t* value = map == nullptr ? nullptr : key.in(*map);
  return value == nullptr || value->empty() ? nullptr : value;
}

const char* textOf(const data_t& value, const std::string& name) {
  if (!value.isString()) throw std::runtime_error(name + " must be a string");
  return value.text();
}

const map_t& mapOf(const data_t& value, const std::string& name) {
  if (value.tag() != QOR_MAP) throw std::runtime_error(name + " must be a map");
  return get<map_t>(value);
}

// Names one entry of one of the maps inside http, for error texts: built only where it is needed.
struct Item {
  const char* map;
  const char* entry;
  std::string text() const { return std::string("http.") + map + "." + entry; }
};

void refuseControlCharacters(std::string_view text, Tab tab, const Item& item) {
  if (hasControlCharacter(text, tab)) {
    throw std::runtime_error(item.text() + " must not hold control characters");
  }
}

// The text in ISO-8859-1, as it goes out.
std::string wireValue(const char* text, const Item& item) {
  refuseControlCharacters(text, Tab::Allowed, item);
  auto wire = tryHeaderToWire(text);
  if (!wire) throw std::runtime_error(item.text() + " holds a character that ISO-8859-1 lacks");
  return *std::move(wire);
}

// A path or a method: absent, of the wrong kind, or a text.
const char* requiredText(const map_t* http, const Constant& key, const char* absent) {
  const data_t* value = http == nullptr ? nullptr : key.in(*http);
  if (value == nullptr) throw std::runtime_error(absent);
  const char* text = textOf(*value, std::string("http.") + key.text);
  if (hasControlCharacter(text, Tab::Refused)) {
    throw std::runtime_error(std::string("http.") + key.text + " must not hold control characters");
  }
  return text;
}

void refuseUnknownMethod(const char* method) {
  if (std::find(methods.begin(), methods.end(), method) == methods.end()) {
    throw std::runtime_error(
        std::string("Invalid method (must be GET, PUT, POST or DELETE): ").append(method));
  }
}

// Calls visit(value, item) for each entry of an optional map of texts inside http.
template <typename Visit>
void forEachText(const map_t* http, const Constant& key, Visit&& visit) {
  const data_t* value = given(http, key);
  if (value == nullptr) return;
  for (const auto entry : mapOf(*value, std::string("http.") + key.text)) {
    if (!entry.first.isString()) {
      throw std::runtime_error(std::string("The names in http.") + key.text + " must be strings");
    }
    const Item item{key.text, entry.first.text()};
    if (!entry.second.isString()) throw std::runtime_error(item.text() + " must be a string");
    visit(entry.second.text(), item);
  }
}

Texts readQuery(const map_t* http, const DataTConstants& constants) {
  Texts query;
  forEachText(http, constants.queryString,
              [&](const char* value, const Item& item) { query[item.entry] = value; });
  return query;
}

Texts readCookies(const map_t* http, const DataTConstants& constants) {
  Texts cookies;
  forEachText(http, constants.cookies, [&](const char* value, const Item& item) {
    refuseControlCharacters(item.entry, Tab::Refused, item);
    cookies[wireValue(item.entry, item)] = wireValue(value, item);
  });
  return cookies;
}

std::string readCharset(const map_t* http, const DataTConstants& constants) {
  const data_t* value = given(http, constants.charset);
  if (value == nullptr) return "utf-8";
  std::string charset = lowerCased(textOf(*value, "http.charset"));
  if (hasControlCharacter(charset, Tab::Refused)) {
    throw std::runtime_error("http.charset must not hold control characters");
  }
  return charset == "utf8" ? "utf-8" : charset;
}

// The metadata's content type, with the character set behind it where it is a text type, whether or
// not the content type names one already.
std::optional<std::string> readContentType(const map_t* http, const DataTConstants& constants) {
  const std::string charset = readCharset(http, constants);
  const data_t* value = given(http, constants.contentType);
  if (value == nullptr) return std::nullopt;
  std::string contentType = textOf(*value, "http.contentType");
  if (contentType.empty()) return std::nullopt;
  if (contentType.starts_with("text/")) {
    contentType += ";charset=" + charset;
  }
  if (hasControlCharacter(contentType, Tab::Allowed)) {
    throw std::runtime_error("http.contentType must not hold control characters");
  }
  return headerToWire(contentType, "http.contentType");
}

long long readLimit(const map_t* http, const DataTConstants& constants, long long configured) {
  const data_t* value = given(http, constants.maxResponseKB);
  if (value == nullptr) return configured;
  if (value->tag() != QOR_INT64) throw std::runtime_error("http.maxResponseKB must be an integer");
  return get<long long>(*value);
}

std::string readPolicy(const map_t* http, const DataTConstants& constants,
                       const std::string& configured) {
  const data_t* value = given(http, constants.maxResponsePolicy);
  if (value == nullptr) return configured;
  const auto policies = responsePolicies{}();
  const std::string_view text = value->isString() ? value->text() : "";
  if (std::find(policies.begin(), policies.end(), text) == policies.end()) {
    throw std::runtime_error("Invalid maxResponsePolicy in request");
  }
  return std::string(text);
}

}  // namespace

HTTPClient::ClientSessionThread::request::request(data_t&& body, data_t&& id, data_t&& httpMethod,
                                                  data_t&& requestPath, Texts&& headerTexts,
                                                  Texts&& query, Texts&& cookieTexts,
                                                  data_t&& formMetadata, double start,
                                                  long long limitKB, std::string policy)
    : payload(std::move(body)),
      requestId(std::move(id)),
      method(std::move(httpMethod)),
      path(std::move(requestPath)),
      headers(std::move(headerTexts)),
      queryParameters(std::move(query)),
      cookies(std::move(cookieTexts)),
      form(std::move(formMetadata)),
      startTime(start),
      maxResponseKB(limitKB),
      maxResponsePolicy(std::move(policy)),
      wireMethod(method.text()) {
  checkPayload(payload);
}

void HTTPClient::ClientSessionThread::request::checkPayload(const data_t& payload) {
  if (payload.tag() == QOR_MAP || payload.tag() == QOR_BUFFER) return;
  throw std::runtime_error(payloadRefusal);
}

std::map<std::string, std::string> HTTPClient::ClientSessionThread::readHeaders(
    const map_t* http) const {
  Texts headers;
  Texts givenNames;  // lower case -> as given
  forEachText(http, owner.constants.headers, [&](const char* value, const Item& item) {
    if (!isToken(item.entry)) {
      throw std::runtime_error(item.text() + " is not a valid header name");
    }
    std::string lower = lowerCased(item.entry);
    std::string wire = wireValue(value, item);
    if (belongsToTransport(lower)) {
      transportLog(Level::Warn, "Ignoring HTTP header %s because it belongs to the transport",
                   item.entry);
      return;
    }
    auto& seen = givenNames[lower];
    if (!seen.empty()) {
      transportLog(Level::Warn,
                   "Ignoring HTTP header %s because it was set multiple times (headers are "
                   "case-insensitive)",
                   seen.c_str());
    }
    seen = item.entry;
    headers[std::move(lower)] = std::move(wire);
  });
  if (auto contentType = readContentType(http, owner.constants)) {
    headers["content-type"] = std::move(*contentType);
  }
  return headers;
}

// Leaves the message as it was where it throws, so that the error response can name what is known.
HTTPClient::ClientSessionThread::request HTTPClient::ClientSessionThread::readRequest(
    Message& message, double startTime) const {
  const DataTConstants& keys = owner.constants;
  map_t& metadata = message.metadata;
  data_t* requestId = keys.requestId.in(metadata);
  if (requestId == nullptr) throw std::runtime_error("No request Id");

  data_t* httpValue = keys.http.in(metadata);
  if (httpValue != nullptr && !httpValue->empty()) static_cast<void>(mapOf(*httpValue, "http"));
  map_t* http = httpValue == nullptr || httpValue->empty() ? nullptr : &get<map_t>(*httpValue);
  const char* method = requiredText(http, keys.method, "No method");
  requiredText(http, keys.path, "No path");
  refuseUnknownMethod(method);

  const ConfiguredOptions& configured = owner.options;
  const long long limitKB = readLimit(http, keys, configured.maxResponseKB);
  std::string policy = readPolicy(http, keys, configured.maxResponsePolicy);
  Texts headers = readHeaders(http);
  Texts query = readQuery(http, keys);
  Texts cookieTexts = readCookies(http, keys);
  data_t* form = keys.form.in(*http);
  if (form != nullptr && !form->empty()) static_cast<void>(mapOf(*form, "http.form"));
  if (message.payload.empty()) message.payload = data_t(buffer_t());
  request::checkPayload(message.payload);

  request req(std::move(message.payload), std::move(*requestId), std::move(*keys.method.in(*http)),
              std::move(*keys.path.in(*http)), std::move(headers), std::move(query),
              std::move(cookieTexts), form == nullptr ? data_t() : std::move(*form), startTime,
              limitKB, std::move(policy));
  data_t* sentTime = keys.requestSentTime.in(metadata);
  if (sentTime != nullptr) req.requestSentTime = std::move(*sentTime);
  return req;
}

// Answers a message that could not be read, with whatever it told of itself.
void HTTPClient::ClientSessionThread::refuse(Message& message, const char* text,
                                             double startTime) noexcept {
  const DataTConstants& keys = owner.constants;
  const auto take = [](map_t* map, const Constant& key) {
    data_t* value = map == nullptr ? nullptr : key.in(*map);
    return value == nullptr ? data_t() : std::move(*value);
  };
  data_t* httpValue = keys.http.in(message.metadata);
  map_t* http =
      httpValue != nullptr && httpValue->tag() == QOR_MAP ? &get<map_t>(*httpValue) : nullptr;
  answerWithError(take(&message.metadata, keys.requestId), text, take(http, keys.path),
                  take(http, keys.method), startTime, take(&message.metadata, keys.requestSentTime),
                  400);
}

void HTTPClient::ClientSessionThread::processRequest(Message&& message) noexcept {
  const double startTime = orrery::Platform::relativeHighResTimeFloat();
  std::optional<request> req;
  try {
    req.emplace(readRequest(message, startTime));
  } catch (const Poco::Exception& exception) {
    transportLog(Level::Warn, "Caught exception processing a request: %s (%s)", exception.name(),
                 exception.message().c_str());
    refuse(message, exception.displayText().c_str(), startTime);
    return;
  } catch (const std::exception& exception) {
    transportLog(Level::Warn, "Caught exception processing a request: %s", exception.what());
    refuse(message, exception.what(), startTime);
    return;
  } catch (...) {
    transportLog(Level::Warn, "Caught exception processing a request: %s", unknownException);
    refuse(message, unknownException, startTime);
    return;
  }
  handleRequest(std::move(*req));
}

}  // namespace connectivity::plugins
