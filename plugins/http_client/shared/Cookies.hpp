// The cookies that the server has set, shared by all workers of one transport; and the Cookie line
// of a request.
//
// Any thread may call anything; the jar is guarded by "CookieJarMutex", which is held for a walk
// over the jar or one cookie's change, never while a request's own cookies are copied, a header is
// parsed, a line is logged, or the returned map is built. The jar keeps no domain: it belongs to
// the one configured server, and only that server's responses may be given to it.
//
// The jar holds at most 100 cookies of at most 4,096 bytes each (name, value and a path that was
// given, together). A larger one is reported at level 3 and ignored; one of its name stays. When a
// further one comes, the expired ones are removed, and where there is none, the one that was set
// longest ago. Expired ones are also removed when a request walks the jar.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <map>
#include <span>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <utility>
#include <vector>

#include "connectivity/Logger.hpp"
#include "connectivity/map_t.hpp"
#include "orrery/Mutex.hpp"

namespace connectivity::plugins {

struct SetCookie;

class Cookies {
 public:
  using Clock = std::chrono::steady_clock;
  using Now = Clock::time_point (*)();
  // The values of a response's Set-Cookie fields, in their order, as they came from the wire.
  using SetCookieValues = std::span<const std::string_view>;

  // `cookieJar`: whether cookies are kept between requests. `logger` outlives this.
  Cookies(bool cookieJar, const Logger& logger, Now now = &Clock::now);

  // The whole value of the request's Cookie line; empty where there is none to send:
  //   - what the user's own header holds, but for the cookies that `cookies` names,
  //   - `cookies`, in the order of their names,
  //   - of the jar, what neither of them names, where its path is empty, "/" or, lower-cased, the
  //     whole of `path`; the one set latest first.
  // Of the jar at most 8,000 bytes are sent, because servers refuse longer lines: a cookie that
  // does not fit behind those set later stays in the jar. That is reported at level 3, once for
  // each transport. All texts are as they go over the wire. `path` is what is sent, without its
  // query.
  //   {b: 2}, "a=1; b=0", "/" -> "a=1; b=2; sid=x", where the jar holds a, b and sid
  std::string getCookiesFromRequest(const std::map<std::string, std::string>& cookies,
                                    std::string_view userHeader, std::string path);

  // Stores the response's cookies, where there is a jar, and returns them by name. A cookie without
  // lifetime left (Max-Age of 0 or below -1, or a date that has passed) removes the stored one and
  // is not returned. Of several cookies of one name the jar keeps the last, the returned map the
  // first. A cookie that has no name, or a control or non-ASCII character, is reported at level 3
  // and skipped. No cookie makes it throw.
  map_t setCookiesFromResponse(SetCookieValues values);

  // The same without the map: for a response that is not delivered.
  void storeCookiesFromResponse(SetCookieValues values);

  // The same map without the jar: for a response from another server than the configured one.
  map_t cookiesOf(SetCookieValues values) const;

  static constexpr std::size_t mostCookies = 100;
  static constexpr std::size_t mostBytesOfACookie = 4096;
  static constexpr std::size_t mostBytesSent = 8000;

 private:
  struct CookieAttributes {
    bool expired(Clock::time_point now) const { return !session && expiry < now; }

    std::string name;
    std::string value;
    std::string path;  // lower-case
    bool session;      // never expires
    Clock::time_point expiry;
    std::uint64_t setAs;  // counts upwards with each cookie that is set
  };
  using Jar = std::unordered_map<std::string, CookieAttributes>;
  using Names = std::unordered_set<std::string_view>;

  // Calls use(cookie) for each usable cookie of the response, in its order.
  template <typename Use>
  void forEachCookie(SetCookieValues values, Use use) const;
  void store(const SetCookie& cookie) ORRERY_EXCLUDES(_mutex);
  void makeRoom(Clock::time_point now) ORRERY_REQUIRES(_mutex);
  void appendFromJar(std::string& line, const Names& named, const std::string& path)
      ORRERY_EXCLUDES(_mutex);
  // The cookies of the jar that may be sent, the one set latest first. Removes the expired ones.
  std::vector<const CookieAttributes*> matching(const Names& named, const std::string& path)
      ORRERY_REQUIRES(_mutex);

  const bool _keeps;
  const Logger& _logger;
  const Now _now;
  orrery::Mutex _mutex{"CookieJarMutex"};
  Jar _jar ORRERY_GUARDED_BY(_mutex);
  std::uint64_t _setCount ORRERY_GUARDED_BY(_mutex) = 0;
  bool _reportedLeftOut ORRERY_GUARDED_BY(_mutex) = false;
};

}  // namespace connectivity::plugins
