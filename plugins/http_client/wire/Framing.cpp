#include "plugins/http_client/wire/Framing.hpp"

#include <algorithm>
#include <charconv>
#include <optional>
#include <string>
#include <string_view>

#include <Poco/Net/NetException.h>

#include "plugins/http_client/text/Ascii.hpp"
#include "plugins/http_client/text/CharacterSets.hpp"

namespace connectivity::plugins {

namespace {

using Poco::Net::MessageException;

constexpr int switchingProtocols = 101;
constexpr int noContent = 204;
constexpr int notModified = 304;
constexpr const char* contentLengthName = "Content-Length";
constexpr const char* transferEncodingName = "Transfer-Encoding";

// Calls visit(element) for each comma-separated element of every field of that name.
template <typename Visit>
void forEachElement(const ResponseHead& head, std::string_view name, Visit&& visit) {
  for (const ResponseHead::Field field : head) {
    if (!equalsIgnoringCase(field.name, name)) continue;
    std::string_view rest = field.value;
    for (;;) {
      const std::size_t comma = rest.find(',');
      visit(trimmed(rest.substr(0, comma)));
      if (comma == std::string_view::npos) break;
      rest.remove_prefix(comma + 1);
    }
  }
}

bool hasToken(const ResponseHead& head, std::string_view name, std::string_view token) {
  bool found = false;
  forEachElement(head, name,
                 [&](std::string_view one) { found = found || equalsIgnoringCase(one, token); });
  return found;
}

// Of the fields of that name, as an error shows them.
std::string shownValues(const ResponseHead& head, std::string_view name) {
  constexpr std::size_t shownBytes = 100;  // of one value
  constexpr std::size_t enough = 200;      // of all together
  std::string text;
  for (const std::string_view value : head.findAll(name)) {
    if (text.size() >= enough) return text + ", ...";
    if (!text.empty()) text += ", ";
    text += shownFromWire(value.substr(0, shownBytes));
  }
  return text;
}

// Digits and nothing else.
std::optional<std::int64_t> lengthIn(std::string_view text) noexcept {
  std::int64_t length = 0;
  const char* const end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, length);
  if (error != std::errc() || stop != end || text.starts_with('-')) return std::nullopt;
  return length;
}

// Repeated lengths must be equal.
std::optional<std::int64_t> contentLength(const ResponseHead& head) {
  std::optional<std::int64_t> length;
  forEachElement(head, contentLengthName, [&](std::string_view element) {
    const auto one = lengthIn(element);
    if (!one) {
      throw MessageException("Malformed Content-Length in the response: " +
                             shownValues(head, contentLengthName));
    }
    if (length && *length != *one) {
      throw MessageException("Contradictory Content-Length in the response: " +
                             shownValues(head, contentLengthName));
    }
    length = one;
  });
  return length;
}

bool isChunked(const ResponseHead& head) {
  bool chunked = false;
  forEachElement(head, transferEncodingName, [&](std::string_view coding) {
    if (equalsIgnoringCase(coding, "identity")) return;
    if (chunked || !equalsIgnoringCase(coding, "chunked")) {
      throw MessageException("Unsupported Transfer-Encoding in the response: " +
                             shownValues(head, transferEncodingName));
    }
    chunked = true;
  });
  return chunked;
}

bool hasNoBody(int status) noexcept {
  return status < 200 || status == noContent || status == notModified;
}

}  // namespace

BodyFraming bodyFraming(const ResponseHead& head, bool answersHead) {
  if (answersHead || hasNoBody(head.status())) return {};
  if (isChunked(head)) return {Framing::Chunked, 0};
  if (const auto length = contentLength(head)) return {Framing::Length, *length};
  return {Framing::UntilClose, 0};
}

bool announcesForbiddenBody(const ResponseHead& head) noexcept {
  if (head.status() >= 200 && head.status() != noContent) return false;
  if (head.find(transferEncodingName)) return true;
  bool announced = false;
  forEachElement(head, contentLengthName,
                 [&](std::string_view one) { announced = announced || lengthIn(one) != 0; });
  return announced;
}

bool keepsConnection(const ResponseHead& head, const BodyFraming& body) {
  const bool lengthBesideChunks =
      body.framing == Framing::Chunked && head.find(contentLengthName).has_value();
  // HTTP/1.0 knows no transfer codings: how such a message ends is in doubt.
  const bool codedByHttp10 = head.minorVersion() == 0 && head.find(transferEncodingName);
  if (body.framing == Framing::UntilClose || head.status() == switchingProtocols ||
      lengthBesideChunks || codedByHttp10 || announcesForbiddenBody(head) ||
      hasToken(head, "Connection", "close") || hasToken(head, "Proxy-Connection", "close")) {
    return false;
  }
  return head.minorVersion() >= 1 || hasToken(head, "Connection", "keep-alive");
}

}  // namespace connectivity::plugins
