#include "tests/support/Messages.hpp"

#include <span>
#include <stdexcept>

#include "connectivity/value_access.hpp"

namespace test_support {

using connectivity::buffer_t;
using connectivity::custom_t;

// --- Values ------------------------------------------------------------------------------------

Keys keysOf(std::string_view path) {
  Keys keys;
  for (;;) {
    const auto slash = path.find('/');
    keys.emplace_back(path.substr(0, slash));
    if (slash == std::string_view::npos) return keys;
    path.remove_prefix(slash + 1);
  }
}

namespace {

map_t& nestedMap(map_t& map, const std::string& key) {
  if (map.findText(key.c_str()) == nullptr) map.insert(data_t(key), data_t(map_t()));
  return connectivity::get<map_t>(*map.findText(key.c_str()));
}

}  // namespace

void put(map_t& map, const Keys& keys, data_t&& value) {
  map_t* level = &map;
  for (const auto& key : std::span(keys).first(keys.size() - 1)) level = &nestedMap(*level, key);
  if (data_t* const there = level->findText(keys.back().c_str()); there != nullptr) {
    *there = std::move(value);
  } else {
    level->insert(data_t(keys.back()), std::move(value));
  }
}

const data_t* find(const map_t& map, const Keys& keys) {
  const map_t* level = &map;
  for (const auto& key : std::span(keys).first(keys.size() - 1)) {
    const data_t* const next = level->findText(key.c_str());
    if (next == nullptr || next->tag() != QOR_MAP) return nullptr;
    level = &connectivity::get<map_t>(*next);
  }
  return level->findText(keys.back().c_str());
}

data_t textValue(std::string_view text) { return data_t(std::string(text)); }

data_t bufferValue(std::string_view bytes) { return data_t(buffer_t::copyOf(bytes)); }

data_t mapValue(std::initializer_list<std::pair<const char*, const char*>> entries) {
  map_t map;
  for (const auto& [key, value] : entries) map.insert(data_t(key), data_t(value));
  return data_t(std::move(map));
}

// --- Config ------------------------------------------------------------------------------------

Config& Config::set(std::string_view path, data_t&& value) {
  put(_map, keysOf(path), std::move(value));
  return *this;
}

Config& Config::tls(const std::string& caFile) {
  return set("tls", true).set("tlsCertificateAuthorityFile", caFile);
}

Config& Config::proxy(int port) { return set("proxy/host", "127.0.0.1").set("proxy/port", port); }

Config& Config::proxyCredentials(const std::string& user, const std::string& password) {
  return set("proxy/authentication/authenticationType", "HTTP_BASIC")
      .set("proxy/authentication/username", user)
      .set("proxy/authentication/password", password);
}

Config& Config::basicAuthentication(const std::string& user, const std::string& password) {
  return set("authentication/authenticationType", "HTTP_BASIC")
      .set("authentication/username", user)
      .set("authentication/password", password);
}

// --- Request -----------------------------------------------------------------------------------

Request::Request(const char* method, const char* path) {
  id(1);
  set("http/method", textValue(method));
  set("http/path", textValue(path));
}

Request::Request(const Request& other)
    : _payload(other._payload.copy()), _metadata(other._metadata.copy()) {}

Request& Request::set(const Keys& keys, data_t&& value) {
  put(_metadata, keys, std::move(value));
  return *this;
}

Request& Request::header(const std::string& name, const std::string& value) {
  return set({"http", "headers", name}, textValue(value));
}

Request& Request::query(const std::string& name, const std::string& value) {
  return set({"http", "queryString", name}, textValue(value));
}

Request& Request::cookie(const std::string& name, const std::string& value) {
  return set({"http", "cookies", name}, textValue(value));
}

Request& Request::payload(data_t&& value) {
  _payload = std::move(value);
  return *this;
}

map_t& Request::fields() {
  if (_payload.tag() != QOR_MAP) _payload = data_t(map_t());
  return connectivity::get<map_t>(_payload);
}

Request& Request::field(const std::string& name, const std::string& text) {
  put(fields(), {name}, textValue(text));
  return form();
}

Request& Request::file(const std::string& name, std::string_view bytes) {
  put(fields(), {name}, bufferValue(bytes));
  return form();
}

Request& Request::form() {
  if (test_support::find(_metadata, {"http", "form"}) != nullptr) return *this;
  return set("http/form", data_t(map_t()));
}

Request& Request::form(std::string_view setting, const std::string& value) {
  Keys keys = {"http", "form"};
  for (auto& key : keysOf(setting)) keys.push_back(std::move(key));
  return set(keys, textValue(value));
}

Request& Request::without(std::string_view topLevelKey) {
  const data_t key = textValue(topLevelKey);
  map_t kept;
  for (const auto& [hash, name, value] : _metadata) {
    if (!(name == key)) kept.insert(name.copy(), value.copy());
  }
  _metadata = std::move(kept);
  return *this;
}

Message Request::message() const { return {_payload.copy(), _metadata.copy()}; }

// --- Flush messages ----------------------------------------------------------------------------

namespace {

using SharedEvent = std::shared_ptr<Event>;

void* copyFlush(void* object) { return new SharedEvent(*static_cast<SharedEvent*>(object)); }

void freeFlush(void* object) {
  const std::unique_ptr<SharedEvent> event(static_cast<SharedEvent*>(object));
  (*event)->set();
}

const char* flushText(void*) { return "flush"; }

constexpr qor_custom_operations_t flushOperations = {copyFlush, freeFlush, flushText};

}  // namespace

Message flushMessage(std::shared_ptr<Event> released) {
  auto object = std::make_unique<SharedEvent>(std::move(released));
  auto* const block = qor_allocate_custom(object.release(), &flushOperations);
  map_t metadata;
  put(metadata, {"qor.control.type"}, textValue("QueueFlush"));
  put(metadata, {"qor.controlObject"}, data_t(custom_t(block)));
  return {data_t(), std::move(metadata)};
}

// --- Answer ------------------------------------------------------------------------------------

Answer::Answer(Message&& message) : _message(std::make_shared<const Message>(std::move(message))) {}

const data_t* Answer::find(std::string_view path) const {
  return test_support::find(_message->metadata, keysOf(path));
}

std::optional<std::string> Answer::text(std::string_view path) const {
  const data_t* const value = find(path);
  if (value == nullptr) return std::nullopt;
  return connectivity::toText(*value);
}

namespace {

const data_t& required(const data_t* value, const char* what) {
  if (value == nullptr) throw std::runtime_error(std::string("The answer has no ") + what);
  return *value;
}

}  // namespace

long long Answer::status() const {
  return connectivity::get<long long>(required(find("http/statusCode"), "http/statusCode"));
}

std::string Answer::reason() const {
  return connectivity::getString(required(find("http/statusReason"), "http/statusReason"));
}

std::string Answer::body() const {
  return std::string(connectivity::get<buffer_t>(_message->payload).view());
}

long long Answer::id() const {
  return connectivity::get<long long>(required(find("requestId"), "requestId"));
}

std::optional<std::string> Answer::header(const std::string& lowerCaseName) const {
  const data_t* const value =
      test_support::find(_message->metadata, {"http", "headers", lowerCaseName});
  if (value == nullptr) return std::nullopt;
  return connectivity::getString(*value);
}

std::optional<std::string> Answer::cookie(const std::string& name) const {
  const data_t* const value = test_support::find(_message->metadata, {"http", "cookies", name});
  if (value == nullptr) return std::nullopt;
  return connectivity::getString(*value);
}

}  // namespace test_support
