#include "tests/support/Wire.hpp"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <map>
#include <poll.h>
#include <strings.h>
#include <sys/socket.h>

namespace test_support {

namespace {

constexpr std::string_view lineEnd = "\r\n";
constexpr std::string_view headEnd = "\r\n\r\n";

bool sameName(std::string_view left, std::string_view right) {
  return left.size() == right.size() && ::strncasecmp(left.data(), right.data(), left.size()) == 0;
}

// Cuts off and returns what stands before `separator`; all of it where there is none.
std::string_view cut(std::string_view& text, std::string_view separator) {
  const auto at = text.find(separator);
  const auto first = text.substr(0, at);
  text = at == std::string_view::npos ? std::string_view() : text.substr(at + separator.size());
  return first;
}

std::string_view trimmed(std::string_view text) {
  while (text.starts_with(' ') || text.starts_with('\t')) text.remove_prefix(1);
  while (text.ends_with(' ') || text.ends_with('\t')) text.remove_suffix(1);
  return text;
}

RecordedRequest parseHead(std::string_view head, int connection) {
  RecordedRequest request;
  request.connection = connection;
  request.raw = head;
  head.remove_suffix(headEnd.size());
  auto line = cut(head, lineEnd);
  request.method = cut(line, " ");
  const auto version = line.rfind(' ');
  request.target = line.substr(0, version);
  if (version != std::string_view::npos) request.version = line.substr(version + 1);
  while (!head.empty()) {
    auto field = cut(head, lineEnd);
    const auto name = cut(field, ":");
    request.headers.emplace_back(name, trimmed(field));
  }
  return request;
}

}  // namespace

std::optional<std::string> RecordedRequest::header(std::string_view name) const {
  for (const auto& [given, value] : headers) {
    if (sameName(given, name)) return value;
  }
  return std::nullopt;
}

std::size_t RecordedRequest::headerCount(std::string_view name) const {
  return static_cast<std::size_t>(std::ranges::count_if(
      headers, [name](const auto& header) { return sameName(header.first, name); }));
}

// --- Reading -----------------------------------------------------------------------------------

bool Connection::fill() {
  std::array<char, 16384> piece{};
  const auto got = _channel.receive(piece.data(), piece.size());
  _unread.append(piece.data(), got);
  return got > 0;
}

std::optional<std::string> Connection::takeHead() {
  auto at = _unread.find(headEnd);
  while (at == std::string::npos) {
    if (!fill()) return std::nullopt;
    at = _unread.find(headEnd);
  }
  auto head = _unread.substr(0, at + headEnd.size());
  _unread.erase(0, head.size());
  return head;
}

bool Connection::takeBytes(std::size_t count, std::string& into) {
  while (_unread.size() < count) {
    if (!fill()) return false;
  }
  into.append(_unread, 0, count);
  _unread.erase(0, count);
  return true;
}

bool Connection::takeLine(std::string& into) {
  auto at = _unread.find(lineEnd);
  while (at == std::string::npos) {
    if (!fill()) return false;
    at = _unread.find(lineEnd);
  }
  return takeBytes(at + lineEnd.size(), into);
}

bool Connection::takeChunks(RecordedRequest& request) {
  for (;;) {
    std::string line;
    if (!takeLine(line)) return false;
    request.raw += line;
    const auto size = std::strtoul(line.c_str(), nullptr, 16);
    std::string chunk;
    if (!takeBytes(size, chunk)) return false;
    request.raw += chunk;
    request.body += chunk;
    line.clear();
    if (!takeLine(line)) return false;
    request.raw += line;
    if (size == 0) return true;
  }
}

std::optional<RecordedRequest> Connection::readRequest() {
  const auto head = takeHead();
  if (!head.has_value()) return std::nullopt;
  auto request = parseHead(*head, _number);
  if (request.header("transfer-encoding").has_value()) {
    if (!takeChunks(request)) return std::nullopt;
  } else if (const auto length = request.header("content-length"); length.has_value()) {
    if (!takeBytes(std::stoul(*length), request.body)) return std::nullopt;
    request.raw += request.body;
  }
  _recorder(request);
  return request;
}

std::optional<RecordedRequest> Connection::readHead() {
  const auto head = takeHead();
  if (!head.has_value()) return std::nullopt;
  auto request = parseHead(*head, _number);
  _recorder(request);
  return request;
}

std::optional<std::string> Connection::readExactly(std::size_t count) {
  std::string bytes;
  if (!takeBytes(count, bytes)) return std::nullopt;
  return bytes;
}

bool Connection::readBytes(std::size_t count) { return readExactly(count).has_value(); }

std::string Connection::readSome() {
  if (_unread.empty()) fill();
  return std::exchange(_unread, {});
}

void Connection::awaitPeerClose() {
  do {
    _unread.clear();
  } while (fill());
}

bool Connection::peerClosesWithin(std::chrono::milliseconds limit) {
  pollfd source{_channel.socket(), POLLIN, 0};
  while (::poll(&source, 1, static_cast<int>(limit.count())) > 0) {
    if (!fill()) return true;
  }
  return false;
}

// --- Sending -----------------------------------------------------------------------------------

const char* reasonOf(int status) {
  static const std::map<int, const char*> reasons = {{100, "Continue"},
                                                     {102, "Processing"},
                                                     {103, "Early Hints"},
                                                     {200, "OK"},
                                                     {201, "Created"},
                                                     {204, "No Content"},
                                                     {206, "Partial Content"},
                                                     {301, "Moved Permanently"},
                                                     {302, "Found"},
                                                     {303, "See Other"},
                                                     {304, "Not Modified"},
                                                     {307, "Temporary Redirect"},
                                                     {308, "Permanent Redirect"},
                                                     {400, "Bad Request"},
                                                     {401, "Unauthorized"},
                                                     {403, "Forbidden"},
                                                     {404, "Not Found"},
                                                     {407, "Proxy Authentication Required"},
                                                     {500, "Internal Server Error"},
                                                     {502, "Bad Gateway"},
                                                     {503, "Service Unavailable"}};
  const auto found = reasons.find(status);
  return found == reasons.end() ? "Something" : found->second;
}

namespace {

void appendField(std::string& text, const std::string& name, const std::string& value) {
  text.append(name).append(": ").append(value).append(lineEnd);
}

}  // namespace

std::string responseHead(int status, const HeaderList& headers) {
  std::string head = "HTTP/1.1 " + std::to_string(status) + " " + reasonOf(status) + "\r\n";
  for (const auto& [name, value] : headers) appendField(head, name, value);
  return head + "\r\n";
}

void Connection::sendResponse(int status, const HeaderList& headers, std::string_view body) {
  const auto framing = [](const auto& header) {
    return sameName(header.first, "content-length") || sameName(header.first, "transfer-encoding");
  };
  HeaderList all = headers;
  if (std::ranges::none_of(headers, framing)) {
    all.emplace_back("Content-Length", std::to_string(body.size()));
  }
  send(responseHead(status, all) + std::string(body));
}

void Connection::sendChunked(int status, const HeaderList& headers,
                             const std::vector<std::string>& chunks, const HeaderList& trailers) {
  HeaderList all = headers;
  all.emplace_back("Transfer-Encoding", "chunked");
  std::string text = responseHead(status, all);
  for (const auto& chunk : chunks) {
    std::array<char, 24> size{};
    std::snprintf(size.data(), size.size(), "%zx\r\n", chunk.size());
    text.append(size.data()).append(chunk).append(lineEnd);
  }
  text += "0\r\n";
  for (const auto& [name, value] : trailers) appendField(text, name, value);
  send(text + "\r\n");
}

void Connection::trickle(std::string_view bytes, std::size_t pieces, Gate& gate) {
  const auto size = std::max<std::size_t>(1, (bytes.size() + pieces - 1) / pieces);
  for (bool first = true; !bytes.empty(); first = false) {
    if (!first) gate.pass();
    send(bytes.substr(0, size));
    bytes.remove_prefix(std::min(size, bytes.size()));
  }
}

bool Connection::linger(std::chrono::milliseconds pause) {
  pollfd peer{_channel.socket(), POLLRDHUP, 0};
  return ::poll(&peer, 1, static_cast<int>(pause.count())) == 0;
}

void Connection::drip(std::string_view bytes, std::chrono::milliseconds pause) {
  while (!bytes.empty() && linger(pause)) {
    send(bytes.substr(0, 1));
    bytes.remove_prefix(1);
  }
}

// --- Tunnels -----------------------------------------------------------------------------------

void Connection::tunnelTo(int port) {
  const auto target = connectToLoopback(port);
  if (!target.valid()) return;
  writeAll(target.get(), _unread);
  _unread.clear();
  std::array<pollfd, 2> sides{pollfd{_channel.socket(), POLLIN, 0},
                              pollfd{target.get(), POLLIN, 0}};
  std::array<char, 16384> piece{};
  for (;;) {
    if (::poll(sides.data(), sides.size(), -1) < 0) continue;
    if (sides[0].revents != 0) {
      const auto got = _channel.receive(piece.data(), piece.size());
      if (got == 0 || !writeAll(target.get(), {piece.data(), got})) break;
    }
    if (sides[1].revents != 0) {
      const auto got = ::recv(target.get(), piece.data(), piece.size(), 0);
      if (got <= 0 || !_channel.send({piece.data(), static_cast<std::size_t>(got)})) break;
    }
  }
  close();
}

std::optional<std::string> Connection::exchangeWith(int port, std::string_view bytes) {
  const auto target = connectToLoopback(port);
  if (!target.valid() || !writeAll(target.get(), bytes)) return std::nullopt;
  ::shutdown(target.get(), SHUT_WR);
  std::array<pollfd, 2> sides{pollfd{_channel.socket(), POLLIN, 0},
                              pollfd{target.get(), POLLIN, 0}};
  std::array<char, 16384> piece{};
  std::string answer;
  for (;;) {
    if (::poll(sides.data(), sides.size(), -1) < 0) continue;
    if (sides[0].revents != 0) return std::nullopt;
    const auto got = ::recv(target.get(), piece.data(), piece.size(), 0);
    if (got <= 0) break;
    answer.append(piece.data(), static_cast<std::size_t>(got));
  }
  if (answer.empty()) return std::nullopt;
  return answer;
}

}  // namespace test_support
