#include "plugins/http_client/request/RequestTarget.hpp"

#include <optional>
#include <utility>

#include <Poco/URI.h>

#include "plugins/http_client/request/Refusal.hpp"
#include "plugins/http_client/text/PercentEncoding.hpp"

namespace connectivity::plugins {

namespace {

std::string mustBeEncoded(std::optional<std::string> text, const char* item,
                          std::string_view original) {
  if (!text) {
    throw RefusedRequest(std::string("Invalid percent-encoding in ") + item + ": " +
                         std::string(original));
  }
  return *std::move(text);
}

}  // namespace

std::string requestTarget(const std::string& basePath, const std::string& path,
                          const std::map<std::string, std::string>& query) {
  const std::string joined = basePath + path;
  const PathAndQuery parts = splitQuery(joined);
  std::string target = mustBeEncoded(encodedPath(parts.path), "http.path", parts.path);
  if (!target.starts_with('/')) target.insert(0, 1, '/');
  if (parts.query) {
    target.append("?").append(
        mustBeEncoded(encodedQuery(*parts.query), "the query of http.path", *parts.query));
  }
  if (query.empty()) return target;
  Poco::URI parameters;
  for (const auto& [name, value] : query) parameters.addQueryParameter(name, value);
  return withQuery(std::move(target), parameters.getRawQuery());
}

std::string withQuery(std::string target, std::string_view query) {
  if (query.empty()) return target;
  const std::size_t mark = target.find('?');
  if (mark == std::string::npos) {
    target += '?';
  } else if (mark + 1 < target.size()) {
    target += '&';
  }
  return target.append(query);
}

}  // namespace connectivity::plugins
