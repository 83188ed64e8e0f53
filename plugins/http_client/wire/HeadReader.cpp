#include "plugins/http_client/wire/HeadReader.hpp"

#include <algorithm>
#include <string>

#include <Poco/Net/NetException.h>

#include "plugins/http_client/text/Ascii.hpp"
#include "plugins/http_client/text/CharacterSets.hpp"
#include "plugins/http_client/text/HeaderRules.hpp"

namespace connectivity::plugins {

namespace {

using Poco::Net::MessageException;

constexpr std::string_view protocol = "HTTP/1.";
// So much of a line is shown in an error.
constexpr std::size_t shownBytes = 100;

bool isBlank(char c) noexcept { return c == ' ' || c == '\t'; }

[[noreturn]] void badStatusLine(std::string_view line) {
  throw MessageException("Malformed status line in the response: " +
                         shownFromWire(line.substr(0, shownBytes)));
}

// The line itself is not shown: a value may be a secret.
[[noreturn]] void badHeaderLine(unsigned number, const char* reason) {
  throw MessageException("Malformed header line " + std::to_string(number) +
                         " in the response: " + reason);
}

[[noreturn]] void tooLarge() { throw MessageException("The response head is too large"); }
[[noreturn]] void notHttp() { throw MessageException("The response is not HTTP"); }

// Tells at the first byte that differs, so that nobody waits for the end of such a line.
void refuseForeignStart(std::string_view bytes) {
  const bool emptyLine = bytes.starts_with('\n') || bytes.starts_with("\r\n") || bytes == "\r";
  if (!emptyLine && !protocol.starts_with(bytes.substr(0, protocol.size()))) notHttp();
}

}  // namespace

HeadLine nextHeadLine(std::string_view bytes, std::size_t searched) noexcept {
  const std::size_t end = bytes.find('\n', searched);
  if (end == std::string_view::npos) return {};
  std::string_view text = bytes.substr(0, end);
  if (text.ends_with('\r')) text.remove_suffix(1);
  const bool clean =
      text.find('\r') == std::string_view::npos && text.find('\0') == std::string_view::npos;
  return {clean ? HeadLine::State::Whole : HeadLine::State::Malformed, text, end + 1};
}

std::size_t HeadReader::read(std::string_view bytes) {
  std::size_t used = 0;
  while (!complete()) {
    const std::string_view rest = bytes.substr(used);
    if (_state == State::Start) refuseForeignStart(rest);
    const HeadLine line = nextHeadLine(rest, _searched);
    const bool whole = line.state != HeadLine::State::Incomplete;
    const std::size_t size = whole ? line.size : rest.size();
    // Empty lines before the head are no part of it.
    const std::size_t before = _state == State::Start ? 0 : _taken;
    if (before + size > maxResponseHead) tooLarge();
    if (!whole) {
      _searched = rest.size();
      break;
    }
    _searched = 0;
    _taken += size;
    used += size;
    readLine(line);
  }
  return used;
}

void HeadReader::readLine(const HeadLine& line) {
  if (_state == State::Fields) {
    ++_lines;
    if (line.state == HeadLine::State::Malformed) badHeaderLine(_lines, "a control character");
    if (line.text.empty()) {
      _state = State::Complete;
    } else {
      readField(line.text);
    }
  } else if (!line.text.empty()) {
    _taken = line.size;
    if (line.state == HeadLine::State::Malformed) badStatusLine(line.text);
    readStatusLine(line.text);
    _state = State::Fields;
  } else if (_taken > maxLeadingBytes) {
    notHttp();
  }
}

void HeadReader::readStatusLine(std::string_view line) {
  constexpr std::size_t leastSize = 12;  // HTTP/1.1 200
  std::string_view rest = line.substr(protocol.size());
  const bool wellFormed = line.size() >= leastSize && isDigit(rest[0]) && rest[1] == ' ' &&
                          rest[2] >= '1' && isDigit(rest[2]) && isDigit(rest[3]) &&
                          isDigit(rest[4]) && (rest.size() == 5 || rest[5] == ' ');
  if (!wellFormed) badStatusLine(line);
  const int status = (rest[2] - '0') * 100 + (rest[3] - '0') * 10 + (rest[4] - '0');
  _head.setStatus(rest[0] - '0', status, rest.substr(std::min<std::size_t>(6, rest.size())));
}

void HeadReader::readField(std::string_view line) {
  if (isBlank(line.front())) {
    if (_head.fieldCount() == 0) badHeaderLine(_lines, "nothing to continue");
    _head.continueField(trimmed(line));
    return;
  }
  const std::size_t colon = line.find(':');
  if (colon == std::string_view::npos) badHeaderLine(_lines, "no colon");
  if (!isToken(line.substr(0, colon))) badHeaderLine(_lines, "no field name");
  _head.addField(line.substr(0, colon), trimmed(line.substr(colon + 1)));
}

}  // namespace connectivity::plugins
