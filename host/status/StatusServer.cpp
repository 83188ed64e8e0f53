#include "host/status/StatusServer.hpp"

#include <algorithm>
#include <cerrno>
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

#include "host/status/MetricsText.hpp"
#include "host/status/StatusJson.hpp"
#include "host/status/StatusPage.hpp"

namespace host {

using Poco::Net::HTTPResponse;
using Poco::Net::HTTPServerRequest;
using Poco::Net::HTTPServerResponse;

namespace {

struct Source {
  const StatusTable& table;
  const StatusHistory& history;
  const std::vector<std::string> prefixes;
  const StatusPage page = statusPage();
};

void respond(HTTPServerResponse& response, const std::string& type, const std::string& body) {
  response.setContentType(type);
  response.set("Cache-Control", "no-store");
  response.set("X-Content-Type-Options", "nosniff");
  response.sendBuffer(body.data(), body.size());
}

void respondWith(HTTPServerResponse& response, HTTPResponse::HTTPStatus status) {
  response.setStatusAndReason(status);
  respond(response, "text/plain; charset=utf-8", response.getReason() + "\n");
}

void respondWithPage(HTTPServerResponse& response, const StatusPage& page) {
  response.set("Content-Security-Policy", page.policy);
  response.set("Referrer-Policy", "no-referrer");
  respond(response, "text/html; charset=utf-8", page.document);
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
    } else if (path == "/") {
      respondWithPage(response, _source.page);
    } else if (path == "/status.json") {
      respond(response, "application/json", statusAsJson(items) + "\n");
    } else if (path == "/history.json") {
      respond(response, "application/json", _source.history.asJson(StatusHistory::Clock::now()));
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
    throw std::runtime_error(
        "cannot listen on " + definition.address + ":" + std::to_string(definition.port) + ": " +
        error.displayText() +
        (error.code() == EADDRINUSE ? " (another program has the port; 0 picks a free one)" : ""));
  }
}

// Each connection has a thread while it lasts. One that says nothing must not keep it for long, nor
// one that asks every second: a few open pages would keep all of them, and /healthz would wait.
Poco::Net::HTTPServerParams::Ptr serverParameters() {
  constexpr int timeoutSeconds = 10;
  Poco::Net::HTTPServerParams::Ptr parameters(new Poco::Net::HTTPServerParams);
  parameters->setKeepAlive(false);
  parameters->setMaxThreads(4);
  parameters->setTimeout(Poco::Timespan(timeoutSeconds, 0));
  return parameters;
}

}  // namespace

StatusServer::StatusServer(const StatusDefinition& definition, const StatusTable& table,
                           std::vector<std::string> prefixes)
    : _history(table) {
  const Poco::Net::ServerSocket socket = listenOn(definition);
  const Poco::Net::HTTPRequestHandlerFactory::Ptr factory(
      new HandlerFactory({table, _history, std::move(prefixes)}));
  _server = std::make_unique<Poco::Net::HTTPServer>(factory, socket, serverParameters());
  _server->start();
  _history.start();
}

StatusServer::~StatusServer() { _server->stopAll(true); }

int StatusServer::port() const { return _server->port(); }

bool areAllOnline(const StatusItems& items, const std::vector<std::string>& prefixes) {
  return std::all_of(prefixes.begin(), prefixes.end(), [&items](const std::string& prefix) {
    const auto status = items.find(prefix + ".status");
    return status != items.end() && status->second == "ONLINE";
  });
}

}  // namespace host
