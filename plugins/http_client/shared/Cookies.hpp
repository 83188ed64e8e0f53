// The cookies that the server has set, shared by all workers of one transport.
//
// Any thread may call anything; the jar is guarded by "CookieJarMutex", which is held for a walk
// over the jar or one cookie's change, never while a request's own cookies are copied, a header is
// parsed, or the returned map is built. The jar keeps no domain: it belongs to the one configured
// server, and only that server's responses may be given to it.
//
// Entries that have expired are removed when a request walks the jar.
#pragma once

#include <chrono>
#include <map>
#include <string>
#include <unordered_map>
#include <utility>

#include <Poco/Net/HTTPResponse.h>
#include <Poco/Net/NameValueCollection.h>

#include "connectivity/Logger.hpp"
#include "connectivity/map_t.hpp"
#include "orrery/Mutex.hpp"

namespace Poco::Net {
class HTTPCookie;
}

namespace connectivity::plugins {

class Cookies {
 public:
  using Clock = std::chrono::steady_clock;
  using Now = Clock::time_point (*)();

  // `cookieJar`: whether cookies are kept between requests. `logger` outlives this.
  Cookies(bool cookieJar, const Logger& logger, Now now = &Clock::now);

  // The cookies to send: the request's own, in the order of their names, then those of the jar that
  // no cookie of the request replaces and whose path is empty, "/" or, lower-cased, the whole of
  // `path`. `path` is the path that is sent, without its query.
  Poco::Net::NameValueCollection getCookiesFromRequest(
      const std::map<std::string, std::string>& cookies, std::string path);

  // Stores the response's cookies, where there is a jar, and returns them by name. A cookie without
  // lifetime left (Max-Age of 0 or below -1, or a date that has passed) removes the stored one and
  // is not returned. Of several cookies of one name the jar keeps the last, the returned map the
  // first. A cookie that has no name, or a control or non-ASCII character, is reported at level 3
  // and skipped. No cookie makes it throw.
  map_t setCookiesFromResponse(const Poco::Net::HTTPResponse& response);

  // The same without the map: for a response that is not delivered.
  void storeCookiesFromResponse(const Poco::Net::HTTPResponse& response);

  // The same map without the jar: for a response from another server than the configured one.
  map_t cookiesOf(const Poco::Net::HTTPResponse& response) const;

 private:
  struct CookieAttributes {
    CookieAttributes(std::string cookieName, std::string cookieValue, std::string cookiePath,
                     bool isSession, Clock::time_point expires)
        : name(std::move(cookieName)),
          value(std::move(cookieValue)),
          path(std::move(cookiePath)),
          session(isSession),
          expiry(expires) {}

    std::string name;
    std::string value;
    std::string path;  // lower-case
    bool session;      // never expires
    Clock::time_point expiry;
  };
  using Jar = std::unordered_map<std::string, CookieAttributes>;

  // Calls use(cookie) for each usable cookie of the response, in its order.
  template <typename Use>
  void forEachCookie(const Poco::Net::HTTPResponse& response, Use use) const;
  void store(const Poco::Net::HTTPCookie& cookie) ORRERY_EXCLUDES(_mutex);
  void addFromJar(Poco::Net::NameValueCollection& collection,
                  const std::map<std::string, std::string>& own, std::string& path)
      ORRERY_EXCLUDES(_mutex);

  const bool _keeps;
  const Logger& _logger;
  const Now _now;
  orrery::Mutex _mutex{"CookieJarMutex"};
  Jar _jar ORRERY_GUARDED_BY(_mutex);
};

}  // namespace connectivity::plugins
