// What curl's options for headers, data and form fields say, taken apart.
//
// What is wrong is a UsageError that begins with the option.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <utility>

namespace host {

// "Name: value"; or "Name;" for a header without a value.
std::pair<std::string, std::string> parseHeader(const std::string& text);

// What one -d or --data-binary sends: the text, or with "@FILE" what the file holds ("@-": standard
// input). Of a file, -d leaves out carriage returns, line feeds and NUL bytes.
std::string readData(const std::string& option, const std::string& text, bool binary);

// One -F.
struct FormField {
  std::string name;
  std::string content;  // of the file, where the field names one
  bool isUpload = false;
  std::optional<std::string> type;
  std::optional<std::string> fileName;
};

// NAME=VALUE, NAME=@FILE (an upload, under the file's name), NAME=<FILE (what the file holds, as a
// value); then any of ;type=TYPE and ;filename=NAME. A value, file or name may stand in double
// quotes, with \ in front of " and \ within them.
FormField readFormField(const std::string& text);

// KEY=VALUE.
std::pair<std::string, std::string> parseSetting(const std::string& text);

}  // namespace host
