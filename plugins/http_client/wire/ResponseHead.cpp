#include "plugins/http_client/wire/ResponseHead.hpp"

#include <algorithm>
#include <charconv>
#include <optional>
#include <string>
#include <string_view>

#include <Poco/Exception.h>
#include <Poco/MemoryStream.h>
#include <Poco/Net/NetException.h>
#include <Poco/String.h>

namespace connectivity::plugins {

namespace {

using Poco::Net::HTTPResponse;
using Poco::Net::MessageException;

// So many interim responses in a row are no longer progress.
constexpr int maxInterimResponses = 100;

[[noreturn]] void endedEarly(bool nothingCame) {
  if (nothingCame) {
    throw Poco::Net::NoMessageException("The server closed the connection without an answer");
  }
  throw MessageException("The server closed the connection within the response head");
}

// The number of bytes up to and including the empty line. Blank lines before the head are dropped.
std::size_t awaitHead(InputBuffer& input) {
  std::size_t lineStart = 0;
  std::size_t searched = 0;
  for (;;) {
    const std::string_view held = input.view();
    const std::size_t end = held.find('\n', searched);
    if (end == std::string_view::npos) {
      searched = held.size();
      if (searched > maxResponseHead) throw MessageException("The response head is too large");
      if (!input.fill()) endedEarly(searched == 0);
      continue;
    }
    const std::string_view line = held.substr(lineStart, end - lineStart);
    const bool blank = line.empty() || line == "\r";
    if (blank && lineStart > 0) return end + 1;
    if (blank) input.consume(end + 1);
    lineStart = searched = blank ? 0 : end + 1;
  }
}

void parseHead(std::string_view head, HTTPResponse& response) {
  if (!head.starts_with("HTTP/")) throw MessageException("The server's answer is not HTTP");
  Poco::MemoryInputStream stream(head.data(), static_cast<std::streamsize>(head.size()));
  response.clear();
  try {
    response.read(stream);
  } catch (const Poco::Net::NetException&) {
    throw;
  } catch (const Poco::Exception& failure) {
    throw MessageException("The response head is malformed: " + failure.displayText());
  }
}

// Calls visit(value) for each comma-separated element of every header field of that name.
template <typename Visit>
void forEachElement(const HTTPResponse& response, const std::string& name, Visit&& visit) {
  for (auto field = response.find(name); field != response.end(); ++field) {
    if (Poco::icompare(field->first, name) != 0) continue;
    std::string_view rest = field->second;
    for (;;) {
      const std::size_t comma = rest.find(',');
      visit(Poco::trim(std::string(rest.substr(0, comma))));
      if (comma == std::string_view::npos) break;
      rest.remove_prefix(comma + 1);
    }
  }
}

bool hasToken(const HTTPResponse& response, const std::string& name, const std::string& token) {
  bool found = false;
  forEachElement(response, name,
                 [&](const std::string& value) { found |= Poco::icompare(value, token) == 0; });
  return found;
}

std::int64_t parseLength(const std::string& text) {
  std::int64_t length = 0;
  const char* const end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, length);
  if (error != std::errc() || stop != end || text.front() == '-') {
    throw MessageException("Malformed Content-Length in the response: " + text);
  }
  return length;
}

// Repeated lengths must be equal (RFC 9110, 8.6).
std::optional<std::int64_t> contentLength(const HTTPResponse& response) {
  std::optional<std::int64_t> length;
  forEachElement(response, "Content-Length", [&](const std::string& value) {
    const std::int64_t one = parseLength(value);
    if (length && *length != one) {
      throw MessageException("Contradictory Content-Length in the response: " + value);
    }
    length = one;
  });
  return length;
}

bool isChunked(const HTTPResponse& response) {
  bool chunked = false;
  forEachElement(response, "Transfer-Encoding", [&](const std::string& coding) {
    if (Poco::icompare(coding, "identity") == 0) return;
    if (chunked || Poco::icompare(coding, "chunked") != 0) {
      throw MessageException("Unsupported Transfer-Encoding in the response: " + coding);
    }
    chunked = true;
  });
  return chunked;
}

bool hasNoBody(HTTPResponse::HTTPStatus status) noexcept {
  return status < 200 || status == HTTPResponse::HTTP_NO_CONTENT ||
         status == HTTPResponse::HTTP_NOT_MODIFIED;
}

}  // namespace

void readResponseHead(InputBuffer& input, HTTPResponse& response) {
  for (int interim = 0; interim <= maxInterimResponses; ++interim) {
    const std::size_t size = awaitHead(input);
    if (size > maxResponseHead) throw MessageException("The response head is too large");
    parseHead(input.view().substr(0, size), response);
    input.consume(size);
    const int status = response.getStatus();
    if (status / 100 != 1 || status == HTTPResponse::HTTP_SWITCHING_PROTOCOLS) return;
  }
  throw MessageException("The server sent too many interim responses");
}

BodyFraming bodyFraming(const HTTPResponse& response, bool answersHead) {
  if (answersHead || hasNoBody(response.getStatus())) return {};
  const bool chunked = isChunked(response);
  const std::optional<std::int64_t> length = chunked ? std::nullopt : contentLength(response);
  if (chunked) return {Framing::Chunked, 0};
  if (length) return {Framing::Length, *length};
  return {Framing::UntilClose, 0};
}

bool keepsConnection(const HTTPResponse& response, const BodyFraming& body) {
  if (body.framing == Framing::UntilClose ||
      response.getStatus() == HTTPResponse::HTTP_SWITCHING_PROTOCOLS ||
      (body.framing == Framing::Chunked && response.has("Content-Length"))) {
    return false;
  }
  if (hasToken(response, "Connection", "close") ||
      hasToken(response, "Proxy-Connection", "close")) {
    return false;
  }
  return response.getVersion() == HTTPResponse::HTTP_1_1 ||
         hasToken(response, "Connection", "keep-alive");
}

}  // namespace connectivity::plugins
