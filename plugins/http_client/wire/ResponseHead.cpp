#include "plugins/http_client/wire/ResponseHead.hpp"

#include "plugins/http_client/text/Ascii.hpp"

namespace connectivity::plugins {

std::optional<std::string_view> ResponseHead::find(std::string_view name) const noexcept {
  for (const Field one : *this) {
    if (equalsIgnoringCase(one.name, name)) return one.value;
  }
  return std::nullopt;
}

std::vector<std::string_view> ResponseHead::findAll(std::string_view name) const {
  std::vector<std::string_view> values;
  for (const Field one : *this) {
    if (equalsIgnoringCase(one.name, name)) values.push_back(one.value);
  }
  return values;
}

void ResponseHead::clear() noexcept {
  _status = 0;
  _minorVersion = 0;
  _reason = {};
  _fields.clear();
  _text.clear();
}

ResponseHead::Span ResponseHead::store(std::string_view text) {
  const Span span{static_cast<std::uint32_t>(_text.size()),
                  static_cast<std::uint32_t>(text.size())};
  _text.append(text);
  return span;
}

void ResponseHead::setStatus(int minorVersion, int status, std::string_view reason) {
  _minorVersion = minorVersion;
  _status = status;
  _reason = store(reason);
}

void ResponseHead::addField(std::string_view name, std::string_view value) {
  const Span storedName = store(name);
  _fields.push_back({storedName, store(value)});
}

// The last field's value is the end of the text.
void ResponseHead::continueField(std::string_view more) {
  Span& value = _fields.back().value;
  if (more.empty()) return;
  if (value.size > 0) {
    _text.push_back(' ');
    ++value.size;
  }
  _text.append(more);
  value.size += static_cast<std::uint32_t>(more.size());
}

}  // namespace connectivity::plugins
