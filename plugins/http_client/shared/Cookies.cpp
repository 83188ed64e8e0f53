#include "plugins/http_client/shared/Cookies.hpp"

#include <algorithm>

#include <Poco/Net/HTTPCookie.h>
#include <Poco/String.h>

#include "connectivity/data_t.hpp"
#include "plugins/http_client/shared/SetCookie.hpp"
#include "plugins/http_client/text/HeaderRules.hpp"

namespace connectivity::plugins {

namespace {

// Max-Age of -1 stands for a cookie without a lifetime, also where the server said so itself.
bool isDeletion(const Poco::Net::HTTPCookie& cookie) {
  return cookie.getMaxAge() == 0 || cookie.getMaxAge() < -1;
}

void insert(map_t& map, const Poco::Net::HTTPCookie& cookie) {
  if (!isDeletion(cookie)) map.insert(data_t(cookie.getName()), data_t(cookie.getValue()));
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
                  read.cookie.getName().c_str());
      return false;
  }
  return false;
}

}  // namespace

Cookies::Cookies(bool cookieJar, const Logger& logger, Now now)
    : _keeps(cookieJar), _logger(logger), _now(now) {}

Poco::Net::NameValueCollection Cookies::getCookiesFromRequest(
    const std::map<std::string, std::string>& cookies, std::string path) {
  Poco::Net::NameValueCollection collection;
  for (const auto& [name, value] : cookies) collection.add(name, value);
  if (_keeps) addFromJar(collection, cookies, path);
  return collection;
}

void Cookies::addFromJar(Poco::Net::NameValueCollection& collection,
                         const std::map<std::string, std::string>& own, std::string& path) {
  const orrery::AutoMutex lock(_mutex);
  if (_jar.empty()) return;
  const Clock::time_point now = _now();
  path = lowerCased(path);
  for (auto position = _jar.begin(); position != _jar.end();) {
    const CookieAttributes& cookie = position->second;
    if (!cookie.session && cookie.expiry < now) {
      position = _jar.erase(position);
      continue;
    }
    // Deliberately the whole path: a cookie stored for /a is not sent for /a/b.
    const bool matches = cookie.path.empty() || cookie.path == "/" || cookie.path == path;
    if (matches && !own.contains(cookie.name)) collection.add(cookie.name, cookie.value);
    ++position;
  }
}

template <typename Use>
void Cookies::forEachCookie(const Poco::Net::HTTPResponse& response, Use use) const {
  static const std::string header = "Set-Cookie";
  // Fields of one name stand together.
  for (auto field = response.find(header);
       field != response.end() && Poco::icompare(field->first, header) == 0; ++field) {
    const SetCookie read = readSetCookie(field->second, std::chrono::system_clock::now());
    if (isUsable(read, _logger)) use(read.cookie);
  }
}

map_t Cookies::setCookiesFromResponse(const Poco::Net::HTTPResponse& response) {
  map_t cookies;
  forEachCookie(response, [&](const Poco::Net::HTTPCookie& cookie) {
    if (_keeps) store(cookie);
    insert(cookies, cookie);
  });
  return cookies;
}

void Cookies::storeCookiesFromResponse(const Poco::Net::HTTPResponse& response) {
  if (!_keeps) return;
  forEachCookie(response, [this](const Poco::Net::HTTPCookie& cookie) { store(cookie); });
}

map_t Cookies::cookiesOf(const Poco::Net::HTTPResponse& response) const {
  map_t cookies;
  forEachCookie(response, [&](const Poco::Net::HTTPCookie& cookie) { insert(cookies, cookie); });
  return cookies;
}

void Cookies::store(const Poco::Net::HTTPCookie& cookie) {
  if (isDeletion(cookie)) {
    const orrery::AutoMutex lock(_mutex);
    _jar.erase(cookie.getName());
    return;
  }
  const std::chrono::seconds lifetime(std::max(cookie.getMaxAge(), 0));
  CookieAttributes attributes(cookie.getName(), cookie.getValue(), lowerCased(cookie.getPath()),
                              cookie.getMaxAge() < 0, _now() + lifetime);
  const orrery::AutoMutex lock(_mutex);
  _jar.insert_or_assign(cookie.getName(), std::move(attributes));
}

}  // namespace connectivity::plugins
