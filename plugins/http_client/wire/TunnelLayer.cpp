#include "plugins/http_client/wire/TunnelLayer.hpp"

#include <string_view>
#include <utility>

#include "plugins/http_client/text/CharacterSets.hpp"
#include "plugins/http_client/wire/ResponseHeadReading.hpp"
#include "plugins/http_client/wire/Transmission.hpp"

namespace connectivity::plugins {

namespace {

using Poco::Net::MessageException;

// What the bytes of the proxy's answer come from.
class BytesOf final : public ByteSource {
 public:
  explicit BytesOf(Layer& layer) noexcept : _layer(layer) {}
  std::size_t receive(char* data, std::size_t size) override {
    return _layer.receive(data, size, Wait::Yes).value_or(0);
  }

 private:
  Layer& _layer;
};

}  // namespace

TunnelLayer::TunnelLayer(std::unique_ptr<TcpLayer> proxy, const Route& route)
    : _proxy(std::move(proxy)),
      _name("the proxy " + authority(route.proxy->host, route.proxy->port)),
      _target(authority(route.host, route.port)),
      _authorization(route.proxy->authorization) {}

void TunnelLayer::connect() {
  _proxy->blame(_name);
  _proxy->connect();
  ask();
  readAnswer();
  _proxy->blame(theServer);
}

void TunnelLayer::ask() {
  std::string head = "CONNECT " + _target + " HTTP/1.1\r\nHost: " + _target +
                     "\r\nProxy-Connection: keep-alive\r\n";
  if (!_authorization.empty()) head += "Proxy-Authorization: " + _authorization + "\r\n";
  head += "\r\n";
  std::string_view rest = head;
  while (!rest.empty()) {
    const std::size_t sent = _proxy->send({&rest, 1});
    rest.remove_prefix(sent);
    if (sent == 0) _proxy->awaitRoom();
  }
}

void TunnelLayer::readAnswer() {
  BytesOf source(*_proxy);
  InputBuffer input;
  input.attach(&source);
  ResponseHead answer;
  HeadProgress progress;
  try {
    readResponseHead(input, answer, sentenceStart(_name), progress);
  } catch (const MessageException& failure) {
    throw TunnelRefused(sentenceStart(_name) + " sent no usable answer for a tunnel to " + _target +
                        ": " + failure.message());
  }
  if (answer.status() / 100 != 2) {
    throw TunnelRefused(sentenceStart(_name) + " refused a tunnel to " + _target + ": " +
                        std::to_string(answer.status()) + " " + shownFromWire(answer.reason()));
  }
  if (!input.empty()) {
    throw TunnelRefused(sentenceStart(_name) + " sent more than its answer for a tunnel to " +
                        _target);
  }
}

}  // namespace connectivity::plugins
