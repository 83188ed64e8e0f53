// An HTML form as the body of a request: URL-encoded or multipart (RFC 7578).
//
// A FormBody borrows the payload and the metadata that it was built from: file contents go from the
// host's block to the stream without a copy. It can be written more than once.
#pragma once

#include <cstdint>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

#include "connectivity/data_t.hpp"
#include "plugins/http_client/ReportLine.hpp"

namespace connectivity::plugins {

// One entry of a form. The views are borrowed from the payload.
struct FormField {
  std::string_view name;
  std::string_view value;
  bool isFile = false;
  std::string_view fileName;  // of a file
  std::string contentType;    // of a file, with its charset
};

// The fields of a payload, in the map's order, as the form metadata (`http.form`) describes them:
// a string is a field; a buffer is a file where the metadata has a file name for it, else it is
// reported ("Can't find filename in the form metadata. Data will be send as a string not as a
// binary payload") and becomes a field. The metadata's filename, contentType (default
// "application/octet-stream") and charset stand once for all files, or in a map under a field's
// name, which wins.
//
// Throws RefusedRequest:
//   payloadRefusal, where a key is no string, or a value neither string nor buffer
//   "http.form.filename must be a string" (and the like), for metadata of the wrong kind
//   "The name of a form field must not hold control characters", "The filename of form field x
//   must not hold control characters" (and contentType, charset)
std::vector<FormField> readFormFields(const map_t& payload, const data_t& metadata,
                                      const ReportLine& report);

// "name=value&..." with every octet but the unreserved of RFC 3986 percent-encoded.
// Throws RefusedRequest "HTTPClient form field x is a file, which only multipart/form-data carries
// in the body of a request".
std::string urlEncodedForm(const std::vector<FormField>& fields);

// A multipart form. A double quote in a name is written %22, as browsers do.
class MultipartForm {
 public:
  // `fields` is borrowed.
  MultipartForm(const std::vector<FormField>& fields, std::string boundary);

  std::uint64_t contentLength() const noexcept { return _contentLength; }
  void write(std::ostream& out) const;

 private:
  struct Part {
    std::string head;  // delimiter and header lines
    std::string_view value;
  };
  std::vector<Part> _parts;
  std::string _end;
  std::uint64_t _contentLength = 0;
};

}  // namespace connectivity::plugins
