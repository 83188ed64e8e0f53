// An HTML form, as the body of a request or as its query.
//
// Fields and bodies borrow the payload and the metadata that they were read from: file contents go
// from the host's block to the socket without a copy.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "connectivity/data_t.hpp"
#include "plugins/http_client/request/RequestBody.hpp"
#include "plugins/http_client/text/ReportLine.hpp"

namespace connectivity::plugins {

// One entry of a form. The views are borrowed from the payload and the metadata.
struct FormField {
  std::string_view name;
  std::string_view value;
  bool isFile = false;
  std::string_view fileName;  // of a file
  std::string contentType;    // of a file, with its charset
};

// The fields of a payload, in the map's order, as the form metadata (`http.form`, a map or empty)
// describes them. A string is a field. A buffer is a file where the metadata has a file name for
// it; else "Can't find filename in the form metadata. Data will be send as a string not as a binary
// payload" is reported and it becomes a field.
//
// The metadata's filename, contentType (default "application/octet-stream") and charset, all
// strings, stand once for all files, or in a map under a field's name, which wins. A charset is
// appended to the content type as "; charset=" and its text.
//
// Throws RefusedRequest:
//   payloadRefusal                              a key is no string, a value no string or buffer
//   "http.form.filename must be a string"       the metadata is of the wrong kind; a field's own is
//                                               called "http.form.x.filename", and is refused
//                                               also where the field is no file
//   "http.form.x must be a map"                 what stands under a field's name is no map
//   "http.form.filename must not hold control characters"
//   "The name of a form field must not hold control characters"
std::vector<FormField> readFormFields(const map_t& payload, const data_t& metadata,
                                      const ReportLine& report);

// "name=value&...", with every octet but RFC 3986's unreserved ones percent-encoded.
// Throws RefusedRequest "HTTPClient form field x is a file, which only the body of a
// multipart/form-data request carries".
std::string urlEncodedForm(const std::vector<FormField>& fields);

// A body of the type multipart/form-data (RFC 7578), its values borrowed from where the fields'
// lie. A double quote in the name of a field or file is written %22, as browsers do.
RequestBody multipartForm(const std::vector<FormField>& fields, const std::string& boundary);

}  // namespace connectivity::plugins
