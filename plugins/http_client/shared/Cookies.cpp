#include "plugins/http_client/shared/Cookies.hpp"

#include <algorithm>

#include "connectivity/data_t.hpp"
#include "plugins/http_client/shared/SetCookie.hpp"
#include "plugins/http_client/text/Ascii.hpp"

namespace connectivity::plugins {

namespace {

constexpr std::string_view separator = "; ";

// Max-Age of -1 stands for a cookie without a lifetime, also where the server said so itself.
bool isDeletion(const SetCookie& cookie) { return cookie.maxAge == 0 || cookie.maxAge < -1; }

void insert(map_t& map, const SetCookie& cookie) {
  if (!isDeletion(cookie)) map.insert(data_t(cookie.name), data_t(cookie.value));
}

// A cookie's value is a secret, and so is not shown.
bool isUsable(const SetCookie& read, const Logger& logger) {
  switch (read.outcome) {
    case SetCookie::Outcome::Usable:
      return true;
    case SetCookie::Outcome::WithoutName:
      logger.warn("Ignoring a cookie that has no name");
      return false;
    case SetCookie::Outcome::BadName:
      logger.warn("Ignoring a cookie whose name holds a control or non-ASCII character");
      return false;
    case SetCookie::Outcome::BadValue:
      logger.warn("Ignoring cookie %s because its value holds a control or non-ASCII character",
                  read.name.c_str());
      return false;
  }
  return false;
}

void appendPair(std::string& line, std::string_view name, std::string_view value) {
  if (!line.empty()) line += separator;
  line.append(name).append("=").append(value);
}

// The user's header without the cookies that `cookies` names, and what else it names. What is kept
// stays as the user wrote it, blanks included.
std::string userPart(std::string_view header, const std::map<std::string, std::string>& cookies,
                     std::unordered_set<std::string_view>& named) {
  std::string kept;
  for (std::size_t end = 0; end != std::string_view::npos;) {
    end = header.find(';');
    const std::string_view piece = header.substr(0, end);
    if (end != std::string_view::npos) header.remove_prefix(end + 1);
    if (trimmed(piece).empty()) continue;
    if (const std::size_t equals = piece.find('='); equals != std::string_view::npos) {
      const std::string_view name = trimmed(piece.substr(0, equals));
      if (cookies.contains(std::string(name))) continue;
      named.insert(name);
    }
    if (!kept.empty()) kept += ";";
    kept += piece;
  }
  return std::string(trimmed(kept));
}

}  // namespace

Cookies::Cookies(bool cookieJar, const Logger& logger, Now now)
    : _keeps(cookieJar), _logger(logger), _now(now) {}

// --- what is sent -------------------------------------------------------------------------------

std::string Cookies::getCookiesFromRequest(const std::map<std::string, std::string>& cookies,
                                           std::string_view userHeader, std::string path) {
  Names named;
  std::string line = userPart(userHeader, cookies, named);
  for (const auto& [name, value] : cookies) {
    appendPair(line, name, value);
    named.insert(name);
  }
  if (!_keeps) return line;
  path = lowerCased(path);
  appendFromJar(line, named, path);
  return line;
}

void Cookies::appendFromJar(std::string& line, const Names& named, const std::string& path) {
  bool reportsLeftOut = false;
  {
    const orrery::AutoMutex lock(_mutex);
    std::size_t sent = 0;
    for (const CookieAttributes* cookie : matching(named, path)) {
      const std::size_t size = cookie->name.size() + 1 + cookie->value.size();
      const std::size_t then = sent + size + (sent == 0 ? 0 : separator.size());
      if (then <= mostBytesSent) {
        appendPair(line, cookie->name, cookie->value);
        sent = then;
      } else {
        reportsLeftOut = !std::exchange(_reportedLeftOut, true) || reportsLeftOut;
      }
    }
  }
  if (reportsLeftOut) {
    _logger.warn(
        "Sending only the cookies set latest, because those of the jar have more than %u "
        "bytes; this is reported once",
        static_cast<unsigned>(mostBytesSent));
  }
}

std::vector<const Cookies::CookieAttributes*> Cookies::matching(const Names& named,
                                                                const std::string& path) {
  std::vector<const CookieAttributes*> found;
  if (_jar.empty()) return found;
  const Clock::time_point now = _now();
  std::erase_if(_jar, [now](const auto& entry) { return entry.second.expired(now); });
  for (const auto& [name, cookie] : _jar) {
    // Deliberately the whole path: a cookie stored for /a is not sent for /a/b.
    const bool matches = cookie.path.empty() || cookie.path == "/" || cookie.path == path;
    if (matches && !named.contains(name)) found.push_back(&cookie);
  }
  std::sort(found.begin(), found.end(), [](const CookieAttributes* a, const CookieAttributes* b) {
    return a->setAs > b->setAs;
  });
  return found;
}

// --- what is received ---------------------------------------------------------------------------

template <typename Use>
void Cookies::forEachCookie(SetCookieValues values, Use use) const {
  for (const std::string_view value : values) {
    const SetCookie read = readSetCookie(value, std::chrono::system_clock::now());
    if (isUsable(read, _logger)) use(read);
  }
}

map_t Cookies::setCookiesFromResponse(SetCookieValues values) {
  map_t cookies;
  forEachCookie(values, [&](const SetCookie& cookie) {
    if (_keeps) store(cookie);
    insert(cookies, cookie);
  });
  return cookies;
}

void Cookies::storeCookiesFromResponse(SetCookieValues values) {
  if (!_keeps) return;
  forEachCookie(values, [this](const SetCookie& cookie) { store(cookie); });
}

map_t Cookies::cookiesOf(SetCookieValues values) const {
  map_t cookies;
  forEachCookie(values, [&](const SetCookie& cookie) { insert(cookies, cookie); });
  return cookies;
}

void Cookies::store(const SetCookie& cookie) {
  if (cookie.name.size() + cookie.value.size() + cookie.path.size() > mostBytesOfACookie) {
    _logger.warn("Ignoring cookie %.100s because it has more than %u bytes", cookie.name.c_str(),
                 static_cast<unsigned>(mostBytesOfACookie));
    return;
  }
  if (isDeletion(cookie)) {
    const orrery::AutoMutex lock(_mutex);
    _jar.erase(cookie.name);
    return;
  }
  const Clock::time_point now = _now();
  CookieAttributes attributes{cookie.name,
                              cookie.value,
                              lowerCased(cookie.path),
                              cookie.maxAge < 0,
                              now + std::chrono::seconds(std::max(cookie.maxAge, 0)),
                              0};
  const orrery::AutoMutex lock(_mutex);
  if (!_jar.contains(cookie.name)) makeRoom(now);
  attributes.setAs = ++_setCount;
  _jar.insert_or_assign(cookie.name, std::move(attributes));
}

void Cookies::makeRoom(Clock::time_point now) {
  if (_jar.size() < mostCookies) return;
  std::erase_if(_jar, [now](const auto& entry) { return entry.second.expired(now); });
  if (_jar.size() < mostCookies) return;
  _jar.erase(std::min_element(_jar.begin(), _jar.end(), [](const auto& a, const auto& b) {
    return a.second.setAs < b.second.setAs;
  }));
}

}  // namespace connectivity::plugins
