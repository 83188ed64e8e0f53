#include "host/request/RequestFields.hpp"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <sstream>

#include "host/program/UsageError.hpp"

namespace host {

namespace {

std::string contentOf(const std::string& option, const std::string& path) {
  if (path == "-") {
    return {std::istreambuf_iterator<char>(std::cin), std::istreambuf_iterator<char>()};
  }
  std::error_code ignored;
  if (std::filesystem::is_directory(path, ignored)) {
    throw UsageError(option + ": cannot read " + path + ": it is a directory");
  }
  std::ifstream file(path, std::ios::binary);
  if (!file) throw UsageError(option + ": cannot read " + path + ": " + std::strerror(errno));
  std::ostringstream content;
  content << file.rdbuf();
  return std::move(content).str();
}

std::string_view withoutBlanks(std::string_view text) {
  const auto first = text.find_first_not_of(" \t");
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(" \t") - first + 1);
}

// curl's table of the types of uploads without one.
std::string typeOfFile(const std::string& path) {
  static constexpr std::pair<std::string_view, const char*> types[] = {
      {".gif", "image/gif"},      {".jpg", "image/jpeg"},    {".jpeg", "image/jpeg"},
      {".png", "image/png"},      {".svg", "image/svg+xml"}, {".txt", "text/plain"},
      {".htm", "text/html"},      {".html", "text/html"},    {".pdf", "application/pdf"},
      {".xml", "application/xml"}};
  for (const auto& [ending, type] : types) {
    if (path.ends_with(ending)) return type;
  }
  return "application/octet-stream";
}

// Reads the parts of a -F from the front: what stands between semicolons, in quotes or not.
class FieldReader {
 public:
  explicit FieldReader(std::string_view text) : _rest(text) {}

  bool atEnd() const { return _rest.empty(); }

  // Up to the next `end`; it is left out.
  std::string_view takeUntil(char end) {
    const auto at = std::min(_rest.find(end), _rest.size());
    const std::string_view part = _rest.substr(0, at);
    _rest.remove_prefix(std::min(at + 1, _rest.size()));
    return part;
  }

  bool takeIf(char character) {
    if (!_rest.starts_with(character)) return false;
    _rest.remove_prefix(1);
    return true;
  }

  // A value, and the semicolon behind it.
  std::string takeValue() {
    if (_rest.starts_with('"') && endOfQuoted() != std::string_view::npos) return takeQuoted();
    return std::string(takeUntil(';'));
  }

  // The value of a field: a semicolon belongs to it where no parameter follows.
  std::string takeContent() {
    if (_rest.starts_with('"') && endOfQuoted() != std::string_view::npos) return takeQuoted();
    std::string content(takeUntil(';'));
    while (!_rest.empty() && !startsParameter()) content.append(";").append(takeUntil(';'));
    return content;
  }

 private:
  bool startsParameter() const {
    const std::string_view next = withoutBlanks(_rest.substr(0, _rest.find('=')));
    return _rest.find('=') != std::string_view::npos && (next == "type" || next == "filename");
  }

  std::size_t endOfQuoted() const {
    for (std::size_t i = 1; i < _rest.size(); ++i) {
      if (_rest[i] == '\\') {
        ++i;
      } else if (_rest[i] == '"') {
        return i;
      }
    }
    return std::string_view::npos;
  }

  std::string takeQuoted() {
    const std::size_t end = endOfQuoted();
    std::string value;
    for (std::size_t i = 1; i < end; ++i) {
      if (_rest[i] == '\\' && (_rest[i + 1] == '"' || _rest[i + 1] == '\\')) ++i;
      value += _rest[i];
    }
    _rest.remove_prefix(end + 1);
    takeUntil(';');
    return value;
  }

  std::string_view _rest;
};

void readParameters(FieldReader& reader, FormField& field) {
  while (!reader.atEnd()) {
    const std::string name(withoutBlanks(reader.takeUntil('=')));
    if (name == "type") {
      field.type = reader.takeValue();
    } else if (name == "filename") {
      field.fileName = reader.takeValue();
    } else {
      throw UsageError("-F " + field.name + ": unknown parameter " + name +
                       " (there are type and filename)");
    }
  }
}

void readUpload(const std::string& path, FormField& field) {
  field.isUpload = true;
  field.content = contentOf("-F " + field.name, path);
  if (!field.fileName) field.fileName = std::filesystem::path(path).filename().string();
  if (!field.type) field.type = typeOfFile(path);
}

}  // namespace

std::pair<std::string, std::string> parseHeader(const std::string& text) {
  const auto end = text.find_first_of(":;");
  const auto value =
      end == std::string::npos ? std::string_view() : std::string_view(text).substr(end + 1);
  const bool isEmpty = withoutBlanks(value).empty();
  if (end == 0 || end == std::string::npos || (text[end] == ';') != isEmpty) {
    // Without the value, which may be a secret.
    throw UsageError("-H " + text.substr(0, text.find_first_of(" :;")) +
                     R"(: must be "Name: value", or "Name;" for an empty value)");
  }
  return {text.substr(0, end), std::string(withoutBlanks(value))};
}

std::string readData(const std::string& option, const std::string& text, bool binary) {
  if (!text.starts_with('@')) return text;
  std::string content = contentOf(option, text.substr(1));
  if (!binary) {
    std::erase_if(content, [](char c) { return c == '\r' || c == '\n' || c == '\0'; });
  }
  return content;
}

FormField readFormField(const std::string& text) {
  const auto equals = text.find('=');
  if (equals == std::string::npos || equals == 0) {
    throw UsageError("-F " + text + ": must be NAME=VALUE or NAME=@FILE");
  }
  FormField field;
  field.name = text.substr(0, equals);
  FieldReader reader(std::string_view(text).substr(equals + 1));
  const bool isUpload = reader.takeIf('@');
  const bool isContent = !isUpload && reader.takeIf('<');
  const std::string value = isUpload ? reader.takeValue() : reader.takeContent();
  readParameters(reader, field);
  if (isUpload) {
    readUpload(value, field);
  } else {
    field.content = isContent ? contentOf("-F " + field.name, value) : value;
    field.isUpload = field.fileName.has_value();
  }
  if (field.type && !field.isUpload) {
    throw UsageError("-F " + field.name + ": only a part with ;filename= has a ;type=");
  }
  return field;
}

std::pair<std::string, std::string> parseSetting(const std::string& text) {
  const auto equals = text.find('=');
  if (equals == std::string::npos || equals == 0) {
    throw UsageError("--set " + text.substr(0, equals) + ": must be KEY=VALUE");
  }
  return {text.substr(0, equals), text.substr(equals + 1)};
}

}  // namespace host
