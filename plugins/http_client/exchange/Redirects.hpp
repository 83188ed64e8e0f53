// Whether a redirect is followed, where to, and with what.
//
// A decision on what is known; nothing is sent or stored here. Runs on the worker's thread.
#pragma once

#include <optional>
#include <stdexcept>
#include <string>
#include <utility>

#include "plugins/http_client/exchange/Location.hpp"
#include "plugins/http_client/request/Request.hpp"
#include "plugins/http_client/shared/WorkerLog.hpp"
#include "plugins/http_client/wire/ResponseHead.hpp"

namespace connectivity::plugins {

// The failure of a redirect that should have been followed. what() is its message; name() its kind,
// null where there is none beyond the message.
class RedirectFailed final : public std::runtime_error {
 public:
  explicit RedirectFailed(const std::string& message, std::string name = {})
      : std::runtime_error(message), _name(std::move(name)) {}
  const char* name() const noexcept { return _name.empty() ? nullptr : _name.c_str(); }

 private:
  std::string _name;
};

// What is to be asked next.
struct FollowUp {
  Location location;
  bool elsewhere = false;    // another host or port than where the response came from
  bool withoutBody = false;  // it has become a GET without a body
};

// 301, 302, 303, 307 and 308.
constexpr bool isRedirect(int status) noexcept {
  return status == 301 || status == 302 || status == 303 || status == 307 || status == 308;
}

// What follows from a redirect that `current` answered; nothing where it is to be delivered as it
// is, which is logged. Counts it in the request. Throws RedirectFailed "Maximum redirects
// exceeded", or with the reason why its Location cannot be read. REQUIRES: isRedirect.
std::optional<FollowUp> processRedirectResponse(const ResponseHead& response,
                                                const Location& current, request& req,
                                                const WorkerLog& log);

// Makes the request its own follow-up: the method, the target, and whether its payload goes.
void follow(const FollowUp& next, request& req);

}  // namespace connectivity::plugins
