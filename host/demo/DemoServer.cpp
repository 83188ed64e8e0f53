#include "host/demo/DemoServer.hpp"

#include <istream>
#include <ostream>
#include <sstream>
#include <utility>

#include <Poco/DeflatingStream.h>
#include <Poco/InflatingStream.h>
#include <Poco/Net/HTMLForm.h>
#include <Poco/Net/HTTPRequestHandler.h>
#include <Poco/Net/HTTPRequestHandlerFactory.h>
#include <Poco/Net/HTTPServer.h>
#include <Poco/Net/HTTPServerParams.h>
#include <Poco/Net/HTTPServerRequest.h>
#include <Poco/Net/HTTPServerRequestImpl.h>
#include <Poco/Net/HTTPServerResponse.h>
#include <Poco/Net/MessageHeader.h>
#include <Poco/Net/NameValueCollection.h>
#include <Poco/Net/PartHandler.h>
#include <Poco/Net/ServerSocket.h>
#include <Poco/StreamCopier.h>

namespace host {

using Poco::Net::HTTPResponse;
using Poco::Net::HTTPServerRequest;
using Poco::Net::HTTPServerResponse;

namespace {

// To the end, and so that the stream knows it: the form reader looks there for the next part.
std::string readAll(std::istream& stream) {
  std::string text;
  Poco::StreamCopier::copyToString(stream, text);
  return text;
}

std::string bodyOf(HTTPServerRequest& request) {
  if (request.get("content-encoding", "") != "gzip") return readAll(request.stream());
  Poco::InflatingInputStream inflated(request.stream(), Poco::InflatingStreamBuf::STREAM_GZIP);
  return readAll(inflated);
}

std::string compressed(const std::string& text) {
  std::ostringstream out;
  Poco::DeflatingOutputStream deflated(out, Poco::DeflatingStreamBuf::STREAM_GZIP);
  deflated << text;
  deflated.close();
  return out.str();
}

// The files of a form, as fields that describe them.
class Files : public Poco::Net::PartHandler {
 public:
  void handlePart(const Poco::Net::MessageHeader& header, std::istream& stream) override {
    std::string disposition;
    Poco::Net::NameValueCollection parameters;
    Poco::Net::MessageHeader::splitParameters(header.get("Content-Disposition", ""), disposition,
                                              parameters);
    described[parameters.get("name", "")] =
        parameters.get("filename", "") + ":" + std::to_string(readAll(stream).size());
  }

  std::map<std::string, std::string> described;
};

std::string describeForm(HTTPServerRequest& request) {
  Files files;
  const Poco::Net::HTMLForm form(request, request.stream(), files);
  std::map<std::string, std::string> fields = std::move(files.described);
  for (const auto& [name, value] : form) fields[name] = value;
  std::string text;
  for (const auto& [name, value] : fields) {
    if (!text.empty()) text += '&';
    text.append(name).append("=").append(value);
  }
  return text;
}

std::string echo(HTTPServerRequest& request) {
  const std::string body = bodyOf(request);
  return body.empty() ? request.getMethod() + " " + request.getURI() : body;
}

std::string cookie(const HTTPServerRequest& request) {
  Poco::Net::NameValueCollection cookies;
  request.getCookies(cookies);
  return cookies.get("demo", "");
}

void respond(HTTPServerResponse& response, const std::string& body) {
  response.setContentType("text/plain; charset=utf-8");
  response.sendBuffer(body.data(), body.size());
}

void respondWithStatus(HTTPServerResponse& response, const std::string& code) {
  response.setStatusAndReason(static_cast<HTTPResponse::HTTPStatus>(std::stoi(code)));
  respond(response, response.getReason());
}

void hangUp(HTTPServerRequest& request) {
  dynamic_cast<Poco::Net::HTTPServerRequestImpl&>(request).socket().shutdown();
}

}  // namespace

class DemoServer::Handler : public Poco::Net::HTTPRequestHandler {
 public:
  explicit Handler(DemoServer& server) : _server(server) {}

  void handleRequest(HTTPServerRequest& request, HTTPServerResponse& response) override {
    const std::string& uri = request.getURI();
    const std::string path = uri.substr(0, uri.find('?'));
    const auto second = path.find('/', 1);
    const std::string first = path.substr(0, second);
    const std::string rest = second == std::string::npos ? "" : path.substr(second + 1);
    if (first == "/form") return respond(response, describeForm(request));
    // Read whatever is asked for: a body that is left would be taken for the next request.
    const std::string echoed = echo(request);
    if (first == "/echo") return respond(response, echoed);
    if (first == "/gzip") {
      response.set("Content-Encoding", "gzip");
      return respond(response, compressed(echoed));
    }
    if (first == "/header") return respond(response, request.get("x-demo", ""));
    if (first == "/cookie") return respond(response, cookie(request));
    if (first == "/status") return respondWithStatus(response, rest);
    if (first == "/moved") return response.redirect("/echo?moved", HTTPResponse::HTTP_FOUND);
    if (first == "/large") return respond(response, std::string(largeSize, 'x'));
    if (first == "/turn") return respond(response, std::to_string(_server.nextTurn(rest)));
    if (first == "/hangup") return hangUp(request);
    respondWithStatus(response, "404");
  }

 private:
  DemoServer& _server;
};

class DemoServer::HandlerFactory : public Poco::Net::HTTPRequestHandlerFactory {
 public:
  explicit HandlerFactory(DemoServer& server) : _server(server) {}
  Poco::Net::HTTPRequestHandler* createRequestHandler(const HTTPServerRequest&) override {
    return std::make_unique<Handler>(_server).release();  // the server takes it over
  }

 private:
  DemoServer& _server;
};

DemoServer::DemoServer() {
  const Poco::Net::ServerSocket socket(Poco::Net::SocketAddress("127.0.0.1", 0));
  Poco::Net::HTTPServerParams::Ptr parameters(new Poco::Net::HTTPServerParams);
  parameters->setKeepAlive(true);
  const Poco::Net::HTTPRequestHandlerFactory::Ptr factory(new HandlerFactory(*this));
  _server = std::make_unique<Poco::Net::HTTPServer>(factory, socket, parameters);
  _server->start();
}

DemoServer::~DemoServer() { _server->stopAll(true); }

int DemoServer::port() const { return _server->port(); }

int DemoServer::nextTurn(const std::string& key) {
  const orrery::AutoMutex lock(_mutex);
  return ++_turns[key];
}

}  // namespace host
