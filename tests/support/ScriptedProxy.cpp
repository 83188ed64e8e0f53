#include "tests/support/ScriptedProxy.hpp"

#include <algorithm>
#include <string_view>
#include <strings.h>

#include <openssl/evp.h>

namespace test_support {

std::string base64(const std::string& text) {
  // EVP_EncodeBlock writes a NUL behind the text.
  std::string encoded((text.size() + 2) / 3 * 4 + 1, '\0');
  const auto* from = reinterpret_cast<const unsigned char*>(text.data());
  auto* into = reinterpret_cast<unsigned char*>(encoded.data());
  const int length = EVP_EncodeBlock(into, from, static_cast<int>(text.size()));
  encoded.resize(static_cast<std::size_t>(length));
  return encoded;
}

ScriptedProxy::ScriptedProxy(ProxyOptions options)
    : _options(std::move(options)),
      _server([this](Connection& connection) { serve(connection); }) {}

std::size_t ScriptedProxy::tunnelCount() const {
  const auto all = requests();
  return static_cast<std::size_t>(std::ranges::count_if(all, [this](const auto& request) {
    return request.method == "CONNECT" && allowed(request);
  }));
}

bool ScriptedProxy::allowed(const RecordedRequest& request) const {
  if (!_options.credentials.has_value()) return true;
  return request.header("proxy-authorization") == "Basic " + base64(*_options.credentials);
}

int ScriptedProxy::portOf(const std::string& authority, int fallback) const {
  if (_options.targetPort.has_value()) return *_options.targetPort;
  const auto colon = authority.rfind(':');
  return colon == std::string::npos ? fallback : std::stoi(authority.substr(colon + 1));
}

void ScriptedProxy::serve(Connection& connection) const {
  while (const auto request = connection.readRequest()) {
    if (!allowed(*request)) {
      connection.sendResponse(407, {{"Proxy-Authenticate", "Basic realm=\"test\""}}, "");
    } else if (request->method != "CONNECT") {
      forward(connection, *request);
      return;
    } else if (_options.refuseConnect.has_value()) {
      connection.sendResponse(*_options.refuseConnect, {}, "");
    } else {
      connection.send("HTTP/1.1 200 Connection established\r\n\r\n");
      connection.tunnelTo(portOf(request->target, 443));
      return;
    }
  }
}

namespace {

constexpr std::string_view scheme = "http://";

std::string originRequest(const RecordedRequest& request, const std::string& path) {
  std::string text = request.method + " " + path + " " + request.version + "\r\n";
  for (const auto& [name, value] : request.headers) {
    const bool forThisHop = ::strncasecmp(name.c_str(), "proxy-", 6) == 0 ||
                            ::strcasecmp(name.c_str(), "connection") == 0;
    if (!forThisHop) text.append(name).append(": ").append(value).append("\r\n");
  }
  return text + "Connection: close\r\n\r\n" + request.body;
}

}  // namespace

void ScriptedProxy::forward(Connection& connection, const RecordedRequest& request) const {
  if (!request.target.starts_with(scheme)) {
    connection.sendResponse(400, {}, "A proxy wants the absolute form");
    return;
  }
  const auto pathStart = request.target.find('/', scheme.size());
  const auto authority = request.target.substr(scheme.size(), pathStart - scheme.size());
  const auto path = pathStart == std::string::npos ? "/" : request.target.substr(pathStart);
  const auto response =
      connection.exchangeWith(portOf(authority, 80), originRequest(request, path));
  if (!response.has_value()) {
    connection.sendResponse(502, {}, "");
    return;
  }
  // The response says that it ends with the connection, so that the client does not send another
  // request while the connection is being closed.
  const auto statusLineEnd = response->find("\r\n") + 2;
  connection.send(response->substr(0, statusLineEnd) + "Connection: close\r\n" +
                  response->substr(statusLineEnd));
}

}  // namespace test_support
