// The head of a response: its status line and header fields, as bytes, just as they were sent.
//
// Names keep their case and values their bytes; nothing is decoded. The views that it gives hold
// until it is changed. Belongs to one thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "plugins/http_client/text/Ascii.hpp"

namespace connectivity::plugins {

class ResponseHead {
 public:
  struct Field {
    std::string_view name;
    std::string_view value;  // without blanks and tabs around it
  };
  class Iterator {
   public:
    Iterator(const ResponseHead& head, std::size_t index) noexcept : _head(head), _index(index) {}
    Field operator*() const noexcept { return _head.field(_index); }
    Iterator& operator++() noexcept {
      ++_index;
      return *this;
    }
    bool operator!=(const Iterator& other) const noexcept { return _index != other._index; }

   private:
    const ResponseHead& _head;
    std::size_t _index;
  };

  // 100 to 999; 0 before there is one.
  int status() const noexcept { return _status; }
  // The digit behind "HTTP/1.".
  int minorVersion() const noexcept { return _minorVersion; }
  std::string_view reason() const noexcept { return view(_reason); }

  // The fields in the order in which they were sent.
  Iterator begin() const noexcept { return {*this, 0}; }
  Iterator end() const noexcept { return {*this, _fields.size()}; }
  std::size_t fieldCount() const noexcept { return _fields.size(); }
  Field field(std::size_t index) const noexcept {
    return {view(_fields[index].name), view(_fields[index].value)};
  }
  // The value of the first field of this name, in whatever case.
  std::optional<std::string_view> find(std::string_view name) const noexcept {
    for (const Field one : *this) {
      if (equalsIgnoringCase(one.name, name)) return one.value;
    }
    return std::nullopt;
  }
  // The values of all fields of this name, in their order.
  std::vector<std::string_view> findAll(std::string_view name) const {
    std::vector<std::string_view> values;
    for (const Field one : *this) {
      if (equalsIgnoringCase(one.name, name)) values.push_back(one.value);
    }
    return values;
  }

  // For whoever reads a head off the wire.
  void clear() noexcept {
    _fields.clear();
    _text.clear();
    setStatus(0, 0, {});
  }
  void setStatus(int minorVersion, int status, std::string_view reason) {
    _minorVersion = minorVersion;
    _status = status;
    _reason = store(reason);
  }
  void addField(std::string_view name, std::string_view value) {
    const Span storedName = store(name);
    _fields.push_back({storedName, store(value)});
  }
  // Joins `more` to the last field's value by one space. REQUIRES: there is a field.
  void continueField(std::string_view more) {
    if (more.empty()) return;
    Span& value = _fields.back().value;  // it ends where the text ends
    if (value.size > 0) {
      _text.push_back(' ');
      ++value.size;
    }
    _text.append(more);
    value.size += static_cast<std::uint32_t>(more.size());
  }

 private:
  struct Span {
    std::uint32_t begin = 0;
    std::uint32_t size = 0;
  };

  std::string_view view(Span span) const noexcept {
    return std::string_view(_text).substr(span.begin, span.size);
  }
  Span store(std::string_view text) {
    const Span span{static_cast<std::uint32_t>(_text.size()),
                    static_cast<std::uint32_t>(text.size())};
    _text.append(text);
    return span;
  }

  int _status = 0;
  int _minorVersion = 0;
  Span _reason;
  struct FieldSpans {
    Span name;
    Span value;
  };
  std::vector<FieldSpans> _fields;
  std::string _text;  // what the spans point into; reused from response to response
};

}  // namespace connectivity::plugins
