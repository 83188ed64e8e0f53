#include "plugins/http_client/request/RequestReading.hpp"

#include <algorithm>
#include <array>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "connectivity/nesting.hpp"
#include "connectivity/value_access.hpp"
#include "plugins/http_client/request/Refusal.hpp"
#include "plugins/http_client/text/Ascii.hpp"
#include "plugins/http_client/text/CharacterSets.hpp"
#include "plugins/http_client/text/HeaderRules.hpp"

namespace connectivity::plugins {

namespace {

using Texts = request::Texts;

constexpr std::array<std::string_view, 6> methods{"GET", "PUT", "POST", "DELETE", "HEAD", "TRACE"};

// An entry that is there and not empty: an optional key may be given as null.
const data_t* optionalEntry(const map_t* map, const Constant& key) {
  const data_t* value = map == nullptr ? nullptr : key.in(*map);
  return value == nullptr || value->empty() ? nullptr : value;
}

const char* textOf(const data_t& value, const std::string& name) {
  if (!value.isString()) throw RefusedRequest(name + " must be a string");
  return value.text();
}

const map_t& mapOf(const data_t& value, const std::string& name) {
  if (value.tag() != QOR_MAP) throw RefusedRequest(name + " must be a map");
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
    throw RefusedRequest(item.text() + " must not hold control characters");
  }
}

// The text in ISO-8859-1, as it goes out.
std::string toWire(std::string_view text, const std::string& item) {
  auto wire = tryHeaderToWire(text);
  if (!wire) throw RefusedRequest(item + " holds a character that ISO-8859-1 lacks");
  return *std::move(wire);
}

std::string wireValue(const char* text, const Item& item) {
  refuseControlCharacters(text, Tab::Allowed, item);
  return toWire(text, item.text());
}

// A path or a method, which must be there.
const char* pathOrMethod(const map_t* http, const Constant& key, const char* absent) {
  const data_t* value = http == nullptr ? nullptr : key.in(*http);
  if (value == nullptr) throw RefusedRequest(absent);
  const char* text = textOf(*value, std::string("http.") + key.text);
  if (hasAsciiControlCharacter(text)) {
    throw RefusedRequest(std::string("http.") + key.text + " must not hold control characters");
  }
  return text;
}

void refuseUnknownMethod(std::string_view method, const std::vector<std::string>& additional) {
  if (std::find(methods.begin(), methods.end(), method) != methods.end() ||
      std::find(additional.begin(), additional.end(), method) != additional.end()) {
    return;
  }
  throw RefusedRequest("Invalid method (must be GET, PUT, POST or DELETE): " + std::string(method));
}

// Calls visit(value, item) for each entry of an optional map of texts inside http.
template <typename Visit>
void forEachText(const map_t* http, const Constant& key, Visit&& visit) {
  const data_t* value = optionalEntry(http, key);
  if (value == nullptr) return;
  for (const auto entry : mapOf(*value, std::string("http.") + key.text)) {
    if (!entry.first.isString()) {
      throw RefusedRequest(std::string("The names in http.") + key.text + " must be strings");
    }
    const Item item{key.text, entry.first.text()};
    if (!entry.second.isString()) throw RefusedRequest(item.text() + " must be a string");
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
    if (!isToken(item.entry)) throw RefusedRequest(item.text() + " is not a valid cookie name");
    std::string wire = wireValue(value, item);
    if (wire.find(';') != std::string::npos) {
      throw RefusedRequest(item.text() + " must not hold a semicolon");
    }
    cookies[item.entry] = std::move(wire);
  });
  return cookies;
}

std::string readCharset(const map_t* http, const DataTConstants& constants) {
  const data_t* value = optionalEntry(http, constants.charset);
  if (value == nullptr) return "utf-8";
  const std::string charset = lowerCased(textOf(*value, "http.charset"));
  if (hasControlCharacter(charset, Tab::Refused)) {
    throw RefusedRequest("http.charset must not hold control characters");
  }
  std::string wire = toWire(charset, "http.charset");
  return wire == "utf8" ? "utf-8" : wire;
}

// The metadata's content type, with the character set behind it where it is a text type, whether or
// not the content type names one already.
std::optional<std::string> readContentType(const map_t* http, const DataTConstants& constants) {
  const std::string charset = readCharset(http, constants);
  const data_t* value = optionalEntry(http, constants.contentType);
  if (value == nullptr) return std::nullopt;
  const std::string contentType = textOf(*value, "http.contentType");
  if (contentType.empty()) return std::nullopt;
  if (hasControlCharacter(contentType, Tab::Allowed)) {
    throw RefusedRequest("http.contentType must not hold control characters");
  }
  std::string wire = toWire(contentType, "http.contentType");
  return wire.starts_with("text/") ? wire + ";charset=" + charset : wire;
}

long long readLimit(const map_t* http, const DataTConstants& constants, long long configured) {
  const data_t* value = optionalEntry(http, constants.maxResponseKB);
  if (value == nullptr) return configured;
  if (value->tag() != QOR_INT64) throw RefusedRequest("http.maxResponseKB must be an integer");
  return get<long long>(*value);
}

std::string readPolicy(const map_t* http, const DataTConstants& constants,
                       const std::string& configured) {
  const data_t* value = optionalEntry(http, constants.maxResponsePolicy);
  if (value == nullptr) return configured;
  const auto policies = responsePolicies{}();
  const std::string_view text = value->isString() ? value->text() : "";
  if (std::find(policies.begin(), policies.end(), text) == policies.end()) {
    throw RefusedRequest("Invalid maxResponsePolicy in request");
  }
  return std::string(text);
}

std::optional<request::Deadline> readDeadline(const map_t* http, const DataTConstants& constants,
                                              std::optional<std::int64_t> configured) {
  const data_t* value = optionalEntry(http, constants.deadlineSecs);
  std::optional<std::int64_t> seconds = configured;
  if (value != nullptr) {
    if (value->tag() != QOR_INT64) throw RefusedRequest("http.deadlineSecs must be an integer");
    seconds = get<long long>(*value);
    if (*seconds < 1) throw RefusedRequest("http.deadlineSecs must be at least 1");
  }
  if (!seconds) return std::nullopt;
  // So many seconds are further than any clock goes.
  constexpr std::int64_t mostSeconds = 2147483647;
  return std::chrono::steady_clock::now() + std::chrono::seconds(std::min(*seconds, mostSeconds));
}

// The user's headers, by lower-case name.
class HeaderReading {
 public:
  explicit HeaderReading(const WorkerLog& log) noexcept : _log(log) {}

  void take(const char* value, const Item& item) {
    if (!isToken(item.entry)) throw RefusedRequest(item.text() + " is not a valid header name");
    std::string lower = lowerCased(item.entry);
    std::string wire = wireValue(value, item);
    if (belongsToTransport(lower)) {
      _log.transportLog(Level::Warn, "Ignoring HTTP header %s because it belongs to the transport",
                        item.entry);
      return;
    }
    auto& seen = _namesAsGiven[lower];
    if (!seen.empty()) {
      _log.transportLog(Level::Warn,
                        "Ignoring HTTP header %s because it was set multiple times (headers are "
                        "case-insensitive)",
                        loser(seen, item.entry));
    }
    // Of two that differ in case the one whose name comes last in byte order keeps its value.
    if (!seen.empty() && seen > item.entry) return;
    seen = item.entry;
    _headers[std::move(lower)] = std::move(wire);
  }
  Texts& headers() noexcept { return _headers; }

 private:
  static const char* loser(const std::string& one, const char* other) noexcept {
    return one < other ? one.c_str() : other;
  }

  const WorkerLog& _log;
  Texts _headers;
  Texts _namesAsGiven;  // by lower-case name
};

Texts readHeaders(const map_t* http, const DataTConstants& constants, const WorkerLog& log) {
  HeaderReading reading(log);
  forEachText(http, constants.headers,
              [&](const char* value, const Item& item) { reading.take(value, item); });
  if (auto contentType = readContentType(http, constants)) {
    reading.headers()["content-type"] = std::move(*contentType);
  }
  return std::move(reading.headers());
}

// The http map; null where there is none.
map_t* httpOf(map_t& metadata, const DataTConstants& keys) {
  data_t* value = keys.http.in(metadata);
  if (value == nullptr || value->empty()) return nullptr;
  static_cast<void>(mapOf(*value, "http"));
  return &get<map_t>(*value);
}

}  // namespace

request::request(data_t&& body, data_t&& id, data_t&& httpMethod, data_t&& requestPath,
                 Texts&& headerTexts, Texts&& query, Texts&& cookieTexts, data_t&& formMetadata,
                 double start, ResponseLimit responseLimit)
    : payload(std::move(body)),
      requestId(std::move(id)),
      method(std::move(httpMethod)),
      path(std::move(requestPath)),
      headers(std::move(headerTexts)),
      queryParameters(std::move(query)),
      cookies(std::move(cookieTexts)),
      form(std::move(formMetadata)),
      startTime(start),
      hop{method.text(), {}},
      limit(std::move(responseLimit)) {
  checkPayload(payload);
}

void request::checkPayload(const data_t& payload) {
  if (payload.tag() == QOR_MAP || payload.tag() == QOR_BUFFER) return;
  throw RefusedRequest(payloadRefusal);
}

request RequestReader::readRequest(Message& message, double startTime) const {
  if (nestsDeeperThan(message, maxNesting)) {
    throw RefusedRequest("HTTPClient messages must not be nested deeper than 1000 levels");
  }
  map_t& metadata = message.metadata;
  data_t* requestId = _keys.requestId.in(metadata);
  if (requestId == nullptr) throw RefusedRequest("No request Id");
  map_t* http = httpOf(metadata, _keys);
  const char* method = pathOrMethod(http, _keys.method, "No method");
  pathOrMethod(http, _keys.path, "No path");
  refuseUnknownMethod(method, _options.additionalMethods);

  ResponseLimit limit{readLimit(http, _keys, _options.maxResponseKB),
                      readPolicy(http, _keys, _options.maxResponsePolicy)};
  const auto deadline = readDeadline(http, _keys, _options.deadlineSecs);
  Texts headers = readHeaders(http, _keys, _log);
  Texts query = readQuery(http, _keys);
  Texts cookies = readCookies(http, _keys);
  data_t* form = _keys.form.in(*http);
  if (form != nullptr && !form->empty()) static_cast<void>(mapOf(*form, "http.form"));
  if (message.payload.empty()) message.payload = data_t(buffer_t());
  request::checkPayload(message.payload);

  request req(std::move(message.payload), std::move(*requestId), std::move(*_keys.method.in(*http)),
              std::move(*_keys.path.in(*http)), std::move(headers), std::move(query),
              std::move(cookies), form == nullptr ? data_t() : std::move(*form), startTime,
              std::move(limit));
  req.deadline = deadline;
  data_t* sentTime = _keys.requestSentTime.in(metadata);
  if (sentTime != nullptr) req.requestSentTime = std::move(*sentTime);
  return req;
}

}  // namespace connectivity::plugins
