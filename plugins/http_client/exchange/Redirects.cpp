#include "plugins/http_client/exchange/Redirects.hpp"

#include <exception>

#include "connectivity/value_access.hpp"
#include "plugins/http_client/text/Ascii.hpp"
#include "plugins/http_client/text/CharacterSets.hpp"

namespace connectivity::plugins {

namespace {

constexpr int movedPermanently = 301;
constexpr int found = 302;
constexpr int seeOther = 303;
constexpr int permanentRedirect = 308;

bool isPermanent(int status) noexcept {
  return status == movedPermanently || status == permanentRedirect;
}

// Whether the follow-up is a GET without a body (RFC 9110, 15.4): after 303 all but HEAD, after 301
// and 302 a POST.
bool becomesGet(int status, const std::string& method) {
  if (status == seeOther) return method != "HEAD";
  return method == "POST" && (status == movedPermanently || status == found);
}

Location resolved(const Location& current, std::string_view location) {
  try {
    return resolveLocation(current, location);
  } catch (const std::exception& failure) {
    throw RedirectFailed(failure.what());
  }
}

// One redirect, with what its log lines name.
class Redirect {
 public:
  Redirect(int status, std::string location, const request& req, const WorkerLog& log)
      : _status(status), _location(std::move(location)), _id(toText(req.requestId)), _log(log) {}

  void received() const {
    _log.transportLog(Level::Debug, "Received Redirect request for Id %s and status %d",
                      _id.c_str(), _status);
  }
  void withoutLocation() const {
    _log.transportLog(
        Level::Warn,
        "Ignored HTTP redirect: No location header specified in redirect for Id %s ,status %d",
        _id.c_str(), _status);
  }
  void processing(const Location& current) const {
    _log.transportLog(
        Level::Debug, "Processing request for status: %llu ,Last URI: %s ,Target URI: %s",
        static_cast<unsigned long long>(_status), current.target.c_str(), _location.c_str());
  }
  void toOtherScheme(const Location& current, const Location& next) const {
    _log.transportLog(
        Level::Warn,
        "Ignored HTTP redirect: Id %s, status %d, it redirects to different schema, from %s "
        "to %s and LocationURI %s",
        _id.c_str(), _status, current.scheme.c_str(), next.scheme.c_str(), _location.c_str());
  }
  void toOtherServer(const Location& current, const Location& next) const {
    _log.transportLog(
        Level::Warn,
        "Ignored HTTP redirect: Id %s, status %d, it redirects to different host/port, from "
        "host %s or port %u to %s:%u",
        _id.c_str(), _status, current.host.c_str(), unsigned{current.port}, next.host.c_str(),
        unsigned{next.port});
  }
  void movesPermanently(const Location& next) const {
    _log.transportLog(Level::Debug,
                      "Received permanent redirects requests with host= %s and new URL %s",
                      next.host.c_str(), _location.c_str());
  }
  void followed(const FollowUp& next, const request& req) const {
    _log.transportLog(Level::Debug, "Redirect Request: %s %s %d and RequestURI %s",
                      next.withoutBody ? "GET" : req.hop.method.c_str(), req.pathText(), _status,
                      next.location.target.c_str());
  }

 private:
  const int _status;
  const std::string _location;
  const std::string _id;
  const WorkerLog& _log;
};

}  // namespace

std::optional<FollowUp> processRedirectResponse(const ResponseHead& response,
                                                const Location& current, request& req,
                                                const WorkerLog& log) {
  if (req.redirectsTaken >= req.redirectLimit) throw RedirectFailed("Maximum redirects exceeded");
  const int status = response.status();
  const auto location = response.find("Location");
  const Redirect lines(status, shownFromWire(location.value_or(std::string_view())), req, log);
  lines.received();
  if (!location) {
    lines.withoutLocation();
    return std::nullopt;
  }
  ++req.redirectsTaken;
  FollowUp next{resolved(current, *location), false, becomesGet(status, req.hop.method)};
  lines.processing(current);
  if (next.location.scheme != current.scheme) {
    lines.toOtherScheme(current, next.location);
    return std::nullopt;
  }
  // A host that a Location names comes in lower case; the configured one is as it was given.
  next.elsewhere =
      !equalsIgnoringCase(next.location.host, current.host) || next.location.port != current.port;
  if (next.elsewhere && !isPermanent(status)) {
    lines.toOtherServer(current, next.location);
    return std::nullopt;
  }
  if (next.elsewhere) lines.movesPermanently(next.location);
  lines.followed(next, req);
  return next;
}

void follow(const FollowUp& next, request& req) {
  req.hop.target = next.location.target;
  if (!next.withoutBody) return;
  req.hop.method = "GET";
  req.payload = data_t(buffer_t());
  req.form = data_t();
  req.headers.erase("content-type");
  req.headers.erase("content-encoding");
}

}  // namespace connectivity::plugins
