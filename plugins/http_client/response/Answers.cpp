#include "plugins/http_client/response/Answers.hpp"

#include <utility>

#include "connectivity/value_access.hpp"
#include "plugins/http_client/text/Ascii.hpp"
#include "plugins/http_client/text/CharacterSets.hpp"
#include "plugins/http_client/text/ContentType.hpp"

namespace connectivity::plugins {

namespace {

// Enough slots for the keys of an answer, so that its maps never grow while they are filled.
map_t answerMap() { return map_t(qor_allocate_map(16)); }

void put(map_t& map, const Constant& key, data_t&& value) {
  map.insert({key.value.copy(), std::move(value)}, static_cast<long long>(key.hash));
}

// Bytes of the wire as a text value.
data_t textOf(std::string_view bytes) { return data_t(convertFromISO88591(std::string(bytes))); }

}  // namespace

Answer Answers::sendResponse(Response&& response, request& req) const {
  const ResponseHead& head = *response.head;
  logResponse(head, response.payload);
  const auto setCookies = head.findAll("Set-Cookie");
  const ContentType contentType = readContentType(head.find("Content-Type"));
  map_t headers = responseHeaders(head);
  map_t metadata = answerMap();
  map_t http = answerMap();
  put(http, _keys.statusCode, data_t(static_cast<long long>(head.status())));
  put(http, _keys.statusReason, data_t(shownFromWire(head.reason())));
  put(metadata, _keys.charset, textOf(contentType.charset));
  put(metadata, _keys.contentType, textOf(contentType.type));
  put(http, _keys.headers, data_t(std::move(headers)));
  put(http, _keys.cookies,
      data_t(response.fromConfiguredServer ? _cookies.setCookiesFromResponse(setCookies)
                                           : _cookies.cookiesOf(setCookies)));
  put(http, _keys.method, std::move(req.method));
  put(http, _keys.path, std::move(req.path));
  put(metadata, _keys.requestId, std::move(req.requestId));
  put(metadata, _keys.requestSentTime, std::move(req.requestSentTime));
  put(metadata, _keys.http, data_t(std::move(http)));

  Answer answer;
  answer.startTime = req.startTime;
  answer.status = head.status();
  answer.size = response.payload.size();
  answer.transportStatus = "ONLINE";
  answer.message = Message(data_t(std::move(response.payload)), std::move(metadata));
  _log.transportLog(Level::Debug, "Sending response towards host");
  return answer;
}

// Names in lower case. Of two headers with one name the first keeps its value.
map_t Answers::responseHeaders(const ResponseHead& head) const {
  map_t headers = answerMap();
  for (const ResponseHead::Field field : head) {
    const std::string lower = lowerCased(field.name);
    const bool isNew = headers.insert(data_t(lower), textOf(field.value)).second;
    if (!isNew) {
      _log.transportLog(Level::Debug,
                        "Ignoring HTTP header %s because it's duplicated in the message",
                        lower.c_str());
    }
  }
  return headers;
}

void Answers::logResponse(const ResponseHead& head, const buffer_t& payload) const {
  if (!_log.enabled(Level::Trace)) return;
  _log.transportLog(Level::Trace, "   response status = %lld",
                    static_cast<long long>(head.status()));
  for (const ResponseHead::Field field : head) {
    _log.transportLog(Level::Trace, "   response header %s = %s", lowerCased(field.name).c_str(),
                      convertFromISO88591(std::string(field.value)).c_str());
  }
  _log.transportLog(Level::Trace, "   response payload: %s",
                    payload.empty() ? "<no payload>" : bufferToString(payload).c_str());
}

Answer Answers::handleHTTPException(const Failure& failure, request& req) const {
  logFailure(failure);
  return sendError({std::move(req.requestId), std::move(req.requestSentTime), std::move(req.path),
                    std::move(req.method), req.startTime},
                   failure);
}

Answer Answers::refuse(const Failure& failure, Message& message, double startTime) const {
  logFailure(failure);
  const auto take = [](map_t* map, const Constant& key) {
    data_t* value = map == nullptr ? nullptr : key.in(*map);
    return value == nullptr ? data_t() : std::move(*value);
  };
  data_t* httpValue = _keys.http.in(message.metadata);
  map_t* http =
      httpValue != nullptr && httpValue->tag() == QOR_MAP ? &get<map_t>(*httpValue) : nullptr;
  return sendError(
      {take(&message.metadata, _keys.requestId), take(&message.metadata, _keys.requestSentTime),
       take(http, _keys.path), take(http, _keys.method), startTime},
      failure);
}

// "<line>: <name> (<message>)", or "<line>: <message>".
void Answers::logFailure(const Failure& failure) const {
  const char* line = failure.row().line;
  if (failure.name.empty()) {
    _log.transportLog(Level::Warn, "%s: %s", line, failure.message.c_str());
  } else {
    _log.transportLog(Level::Warn, "%s: %s (%s)", line, failure.name.c_str(),
                      failure.message.c_str());
  }
}

Answer Answers::sendError(Asked&& asked, const Failure& failure) const {
  const FailureRow& row = failure.row();
  const std::string text = failure.text();
  map_t metadata = answerMap();
  map_t http = answerMap();
  put(metadata, _keys.requestId, std::move(asked.requestId));
  put(metadata, _keys.requestSentTime, std::move(asked.requestSentTime));
  put(http, _keys.statusCode, data_t(static_cast<long long>(row.status)));
  put(http, _keys.statusReason, data_t(text));
  put(http, _keys.path, std::move(asked.path));
  put(http, _keys.method, std::move(asked.method));
  put(http, _keys.contentType, _keys.textPlain.value.copy());
  put(http, _keys.charset, _keys.utf8.value.copy());
  if (_marks) put(http, _keys.failure, data_t(row.mark));
  put(metadata, _keys.http, data_t(std::move(http)));
  buffer_t payload = buffer_t::copyOf(text);

  Answer answer;
  answer.startTime = asked.startTime;
  answer.status = row.status;
  answer.size = payload.size();
  if (row.setsFailed) answer.transportStatus = "FAILED";
  answer.message = Message(data_t(std::move(payload)), std::move(metadata));
  return answer;
}

}  // namespace connectivity::plugins
