// Builders for what a host hands to a transport (a configuration, request messages, flush messages)
// and a reader for what it gets back.
//
//   plugin.send(Request("POST", "/x").header("X-A", "b").body("...").key("k").id(7));
//   EXPECT_EQ(answer.status(), 200);
//   EXPECT_EQ(answer.text("http/headers/x-a"), "b");
//
// A "path" names a value in nested maps: keys joined with "/". Builders are copied freely; each use
// makes a new message. One thread at a time uses a builder or an answer.
#pragma once

#include <initializer_list>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "connectivity/data_t.hpp"
#include "tests/support/Event.hpp"

namespace test_support {

using connectivity::data_t;
using connectivity::map_t;
using connectivity::Message;

using Keys = std::vector<std::string>;

// "a/b" as {"a", "b"}.
Keys keysOf(std::string_view path);
// Puts a value into nested maps, in place of what was there; maps on the way are made as needed.
void put(map_t& map, const Keys& keys, data_t&& value);
// The value in nested maps, or null.
const data_t* find(const map_t& map, const Keys& keys);
// A text value.
data_t textValue(std::string_view text);
// A buffer value.
data_t bufferValue(std::string_view bytes);
// A map of texts.
data_t mapValue(std::initializer_list<std::pair<const char*, const char*>> entries);

// A configuration map.
class Config {
 public:
  Config() = default;
  // For a server on 127.0.0.1.
  explicit Config(int port) { host("127.0.0.1").port(port); }
  Config(const Config& other) : _map(other._map.copy()) {}
  Config& operator=(const Config&) = delete;

  Config& host(const std::string& name) { return set("host", name.c_str()); }
  Config& port(long long number) { return set("port", number); }
  Config& numClients(long long number) { return set("numClients", number); }
  Config& timeoutSecs(long long number) { return set("timeoutSecs", number); }
  // HTTPS, with the authority that signed the server's certificate.
  Config& tls(const std::string& caFile);
  // HTTPS without an authority.
  Config& tls() { return set("tls", true); }
  Config& proxy(int port);
  Config& proxyCredentials(const std::string& user, const std::string& password);
  Config& basicAuthentication(const std::string& user, const std::string& password);

  Config& set(std::string_view path, const char* text) { return set(path, textValue(text)); }
  Config& set(std::string_view path, const std::string& text) { return set(path, textValue(text)); }
  Config& set(std::string_view path, bool value) { return set(path, data_t(value)); }
  Config& set(std::string_view path, int value) { return set(path, data_t(value)); }
  Config& set(std::string_view path, long long value) { return set(path, data_t(value)); }
  Config& set(std::string_view path, data_t&& value);

  map_t map() const { return _map.copy(); }

 private:
  map_t _map;
};

// A request message. The id is 1 unless given; the payload is empty unless given.
class Request {
 public:
  Request(const char* method, const char* path);
  Request(const Request& other);
  Request& operator=(const Request&) = delete;

  Request& id(long long number) { return set("requestId", data_t(number)); }
  Request& id(const char* text) { return set("requestId", textValue(text)); }
  Request& header(const std::string& name, const std::string& value);
  Request& query(const std::string& name, const std::string& value);
  Request& cookie(const std::string& name, const std::string& value);
  Request& contentType(const std::string& type) { return set("http/contentType", textValue(type)); }
  Request& charset(const std::string& name) { return set("http/charset", textValue(name)); }
  Request& limit(long long kilobytes) { return set("http/maxResponseKB", data_t(kilobytes)); }
  Request& policy(const char* name) { return set("http/maxResponsePolicy", textValue(name)); }
  Request& key(const std::string& text) { return set("concurrencyControlKey", textValue(text)); }
  // Finish everything queued before this request first.
  Request& flush() { return set("concurrencyControlFlush", data_t(true)); }
  Request& body(std::string_view bytes) { return payload(bufferValue(bytes)); }
  Request& payload(data_t&& value);
  // One field of a form: text, or the bytes of a file. Makes the payload a map.
  Request& field(const std::string& name, const std::string& text);
  Request& file(const std::string& name, std::string_view bytes);
  // Makes it a form with default settings, or sets one of them.
  Request& form();
  Request& form(std::string_view setting, const std::string& value);

  // Any value of the metadata.
  Request& set(std::string_view path, data_t&& value) {
    return set(keysOf(path), std::move(value));
  }
  Request& set(const Keys& keys, data_t&& value);
  Request& without(std::string_view topLevelKey);

  Message message() const;

 private:
  map_t& fields();

  data_t _payload;
  map_t _metadata;
};

// A queue-flush control message. `released` is set when the last holder frees the flush object.
Message flushMessage(std::shared_ptr<Event> released);

// A message that came back. Copies share it.
class Answer {
 public:
  explicit Answer(Message&& message);

  // "http/statusCode"; throws where there is none.
  long long status() const;
  // "http/statusReason".
  std::string reason() const;
  // The payload's bytes; throws where it is not a buffer.
  std::string body() const;
  // The request id, where it is a number; throws otherwise.
  long long id() const;
  std::optional<std::string> header(const std::string& lowerCaseName) const;
  std::optional<std::string> cookie(const std::string& name) const;
  // A value of the metadata as text for people, or none.
  std::optional<std::string> text(std::string_view path) const;
  // The value itself, or null. Borrowed from the answer.
  const data_t* find(std::string_view path) const;
  bool has(std::string_view path) const { return find(path) != nullptr; }
  // Error messages have their content type inside "http".
  bool isError() const { return has("http/contentType"); }

  const data_t& payload() const noexcept { return _message->payload; }
  const map_t& metadata() const noexcept { return _message->metadata; }

 private:
  std::shared_ptr<const Message> _message;
};

}  // namespace test_support
