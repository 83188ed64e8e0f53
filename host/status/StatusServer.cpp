#include "host/status/StatusServer.hpp"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <cstdint>
#include <stdexcept>
#include <utility>

#include <Poco/Exception.h>
#include <Poco/Net/HTTPRequestHandler.h>
#include <Poco/Net/HTTPRequestHandlerFactory.h>
#include <Poco/Net/HTTPServer.h>
#include <Poco/Net/HTTPServerParams.h>
#include <Poco/Net/HTTPServerRequest.h>
#include <Poco/Net/HTTPServerResponse.h>
#include <Poco/Net/ServerSocket.h>
#include <Poco/Timespan.h>

#include "host/messages/JsonWriter.hpp"

namespace host {

using Poco::Net::HTTPResponse;
using Poco::Net::HTTPServerRequest;
using Poco::Net::HTTPServerResponse;

namespace {

bool isInteger(const std::string& text) {
  std::int64_t ignored = 0;
  const auto result = std::from_chars(text.data(), text.data() + text.size(), ignored);
  return result.ec == std::errc() && result.ptr == text.data() + text.size();
}

// "requestLatencyEWMAShortMillis" as "orrery_request_latency_ewma_short_millis".
std::string metricName(std::string_view item) {
  const auto isUpper = [](char c) { return std::isupper(static_cast<unsigned char>(c)) != 0; };
  std::string name = "orrery";
  for (std::size_t i = 0; i < item.size(); ++i) {
    const bool nextIsLower = i + 1 < item.size() && !isUpper(item[i + 1]);
    const bool startsWord = i == 0 || (isUpper(item[i]) && (!isUpper(item[i - 1]) || nextIsLower));
    if (startsWord) name += '_';
    const auto byte = static_cast<unsigned char>(item[i]);
    name += std::isalnum(byte) != 0 ? static_cast<char>(std::tolower(byte)) : '_';
  }
  return name;
}

std::string labelValue(std::string_view text) {
  std::string value;
  for (const char character : text) {
    if (character == '\\' || character == '"') value += '\\';
    if (character == '\n') {
      value += "\\n";
    } else {
      value += character;
    }
  }
  return value;
}

struct Source {
  const StatusTable& table;
  const std::vector<std::string> prefixes;
};

void respond(HTTPServerResponse& response, const std::string& type, const std::string& body) {
  response.setContentType(type);
  response.set("Cache-Control", "no-store");
  response.sendBuffer(body.data(), body.size());
}

void respondWith(HTTPServerResponse& response, HTTPResponse::HTTPStatus status) {
  response.setStatusAndReason(status);
  respond(response, "text/plain; charset=utf-8", response.getReason() + "\n");
}

class Handler : public Poco::Net::HTTPRequestHandler {
 public:
  explicit Handler(const Source& source) : _source(source) {}

  void handleRequest(HTTPServerRequest& request, HTTPServerResponse& response) override {
    const std::string& uri = request.getURI();
    const std::string path = uri.substr(0, uri.find('?'));
    const StatusItems items = _source.table.items();
    if (request.getMethod() != "GET" && request.getMethod() != "HEAD") {
      response.set("Allow", "GET, HEAD");
      respondWith(response, HTTPResponse::HTTP_METHOD_NOT_ALLOWED);
    } else if (path == "/status.json") {
      respond(response, "application/json", statusAsJson(items));
    } else if (path == "/metrics") {
      respond(response, "text/plain; version=0.0.4; charset=utf-8", statusAsMetrics(items));
    } else if (path == "/healthz") {
      respondWith(response, areAllOnline(items, _source.prefixes)
                                ? HTTPResponse::HTTP_OK
                                : HTTPResponse::HTTP_SERVICE_UNAVAILABLE);
    } else {
      respondWith(response, HTTPResponse::HTTP_NOT_FOUND);
    }
  }

 private:
  const Source& _source;
};

class HandlerFactory : public Poco::Net::HTTPRequestHandlerFactory {
 public:
  explicit HandlerFactory(Source source) : _source(std::move(source)) {}
  Poco::Net::HTTPRequestHandler* createRequestHandler(const HTTPServerRequest&) override {
    return std::make_unique<Handler>(_source).release();  // the server takes it over
  }

 private:
  const Source _source;
};

Poco::Net::ServerSocket listenOn(const StatusDefinition& definition) {
  try {
    const Poco::Net::SocketAddress address(definition.address,
                                           static_cast<Poco::UInt16>(definition.port));
    Poco::Net::ServerSocket socket;
    // A port that somebody else listens on is an error, not to be shared.
    socket.bind(address, true, false);
    socket.listen();
    return socket;
  } catch (const Poco::Exception& error) {
    throw std::runtime_error("cannot listen on " + definition.address + ":" +
                             std::to_string(definition.port) + ": " + error.displayText());
  }
}

// A client that says nothing must not keep a thread for long.
Poco::Net::HTTPServerParams::Ptr serverParameters() {
  constexpr int timeoutSeconds = 10;
  Poco::Net::HTTPServerParams::Ptr parameters(new Poco::Net::HTTPServerParams);
  parameters->setKeepAlive(true);
  parameters->setMaxThreads(4);
  parameters->setTimeout(Poco::Timespan(timeoutSeconds, 0));
  parameters->setKeepAliveTimeout(Poco::Timespan(timeoutSeconds, 0));
  return parameters;
}

}  // namespace

StatusServer::StatusServer(const StatusDefinition& definition, const StatusTable& table,
                           std::vector<std::string> prefixes) {
  const Poco::Net::ServerSocket socket = listenOn(definition);
  const Poco::Net::HTTPRequestHandlerFactory::Ptr factory(
      new HandlerFactory({table, std::move(prefixes)}));
  _server = std::make_unique<Poco::Net::HTTPServer>(factory, socket, serverParameters());
  _server->start();
}

StatusServer::~StatusServer() { _server->stopAll(true); }

int StatusServer::port() const { return _server->port(); }

std::string statusAsJson(const StatusItems& items) {
  std::string text = "{";
  JsonWriter writer(text);
  for (const auto& [key, value] : items) {
    if (text.size() > 1) text += ',';
    writer.writeString(key);
    text += ':';
    writer.writeString(value);
  }
  return text + "}\n";
}

std::string statusAsMetrics(const StatusItems& items) {
  // By metric, as the format wants the samples of one metric together.
  std::map<std::string, std::string> samples;
  for (const auto& [key, text] : items) {
    const auto dot = key.rfind('.');
    if (dot == std::string::npos || !isInteger(text)) continue;
    const std::string name = metricName(std::string_view(key).substr(dot + 1));
    std::string& lines = samples[name];
    lines.append(name).append("{transport=\"").append(labelValue(key.substr(0, dot)));
    lines.append("\"} ").append(text).append("\n");
  }
  std::string out;
  for (const auto& [name, lines] : samples) {
    out.append("# TYPE ").append(name).append(" gauge\n").append(lines);
  }
  return out;
}

bool areAllOnline(const StatusItems& items, const std::vector<std::string>& prefixes) {
  return std::all_of(prefixes.begin(), prefixes.end(), [&items](const std::string& prefix) {
    const auto status = items.find(prefix + ".status");
    return status != items.end() && status->second == "ONLINE";
  });
}

}  // namespace host
