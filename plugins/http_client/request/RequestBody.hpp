// The body of a request: made once, and sent as often as the request is.
//
// Its pieces lie in the request's payload, which must not change or move meanwhile, and in memory
// of its own. Belongs to the worker that performs the request.
#pragma once

#include <cstdint>
#include <list>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "connectivity/data_t.hpp"

namespace connectivity::plugins {

class RequestBody {
 public:
  RequestBody() = default;
  RequestBody(RequestBody&&) = default;
  RequestBody& operator=(RequestBody&&) = default;

  // None, without any framing, but for what stands in the query: the fields of a form under GET,
  // encoded, or nothing.
  static RequestBody none(std::string query = {});
  // One piece of borrowed memory.
  static RequestBody ofBytes(std::string_view bytes);
  // A buffer of its own.
  static RequestBody ofBuffer(data_t&& buffer);
  // Text of its own, of this type.
  static RequestBody ofText(std::string text, std::string contentType);

  // Appends bytes of its own, or borrowed ones.
  void append(std::string&& bytes);
  void appendBorrowed(std::string_view bytes);

  // A content length is announced, also one of 0.
  bool isFramed() const noexcept { return _framed; }
  std::uint64_t size() const noexcept { return _size; }
  std::span<const std::string_view> pieces() const noexcept { return _pieces; }
  // The content type that the encoding has made, its boundary included; empty: the request's own.
  const std::string& contentType() const noexcept { return _contentType; }
  void setContentType(std::string type) { _contentType = std::move(type); }
  // To be added to the target's query.
  const std::string& query() const noexcept { return _query; }

 private:
  bool _framed = false;
  std::uint64_t _size = 0;
  std::vector<std::string_view> _pieces;
  std::list<std::string> _texts;  // what some of the pieces lie in; a list, so that they stay there
  data_t _buffer;                 // likewise
  std::string _contentType;
  std::string _query;
};

}  // namespace connectivity::plugins
