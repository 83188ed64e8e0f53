#include "plugins/http_client/exchange/Exchange.hpp"

#include <algorithm>
#include <limits>
#include <string>
#include <utility>

#include <Poco/Net/NetException.h>

#include "plugins/http_client/request/ContentEncoding.hpp"
#include "plugins/http_client/request/Refusal.hpp"
#include "plugins/http_client/request/RequestTarget.hpp"
#include "plugins/http_client/response/ResponseContent.hpp"
#include "plugins/http_client/response/ResponseReading.hpp"
#include "plugins/http_client/wire/TunnelLayer.hpp"

namespace connectivity::plugins {

namespace {

// A buffer that has grown beyond this is given back.
constexpr std::size_t keptBufferBytes = std::size_t{1} << 20U;

unsigned int sampleOf(std::uint64_t bytes) noexcept {
  constexpr std::uint64_t most = std::numeric_limits<unsigned int>::max();
  return static_cast<unsigned int>(std::min(bytes, most));
}

// A redirect that could not be followed, `name` its kind or null. Its row of the table says what is
// logged and what it does to the transport's status.
Failure handleRedirectException(const char* name, const char* message) {
  return {FailureKind::RedirectFailed, name == nullptr ? "" : name, message};
}

}  // namespace

Exchange::Exchange(const ConfiguredOptions& options, Cookies& cookies, SessionHome& home,
                   const WorkerLog& log)
    : _followsRedirects(options.followRedirects),
      _basePath(options.basePath),
      _cookies(cookies),
      _home(home),
      _log(log),
      _heads(options, cookies, log) {}

Outcome Exchange::handleRequest(request& req) {
  Outcome outcome;
  _reached = Reached::Nothing;
  try {
    perform(req, outcome);
  } catch (const RedirectFailed& failure) {
    outcome.failure = handleRedirectException(failure.name(), failure.what());
    outcome.response.reset();
  } catch (...) {
    outcome.failure = currentFailure(kindOfFailure());
    outcome.response.reset();
  }
  return outcome;
}

void Exchange::perform(request& req, Outcome& outcome) {
  announce(req);
  req.hop.target = requestTarget(_basePath, req.pathText(), req.queryParameters);
  RequestBody body = bodyOf(req);
  outcome.requestBytes = sampleOf(body.size());
  for (;;) {
    exchange(req, body, outcome);
    const std::optional<FollowUp> next = followUp(req, *outcome.response);
    if (!next) return;
    if (next->withoutBody) body = RequestBody::none();
    follow(*next, req);
  }
}

void Exchange::announce(const request& req) const {
  _log.transportLog(Level::Debug, "Handling a request for %s path %s", req.hop.method.c_str(),
                    req.pathText());
  for (const auto& [name, value] : req.queryParameters) {
    _log.transportLog(Level::Trace, "   request query %s = %s", name.c_str(), value.c_str());
  }
}

RequestBody Exchange::bodyOf(request& req) const {
  try {
    return ContentEncoding(req, _log).generateRequest();
  } catch (const UnsupportedRequestCoding&) {
    _home.session().reset();
    throw;
  }
}

void Exchange::exchange(const request& req, const RequestBody& body, Outcome& outcome) {
  const PreparedRequest prepared = _heads.createRequest(req, body, _home.destination());
  try {
    return attempt(prepared, req, outcome);
  } catch (const TunnelRefused&) {
    throw;
  } catch (const Poco::Net::NoMessageException& failure) {
    prepareRetry("Poco::Net::NoMessageException", failure);
  } catch (const Poco::Net::ConnectionAbortedException& failure) {
    prepareRetry("Poco::Net::ConnectionAbortedException", failure);
  } catch (const Poco::IOException& failure) {
    prepareRetry("Poco::IOException", failure);
  }
  attempt(prepared, req, outcome);
}

// REQUIRES: called from a catch handler. Throws on where the request must not be sent again.
void Exchange::prepareRetry(const char* kind, const Poco::Exception& failure) {
  if (_home.session().answerBegun()) throw;
  _log.transportLog(Level::Debug, "Caught a %s processing a request, will retry once: %s (%s)",
                    kind, failure.name(), failure.message().c_str());
  _home.session().reset();
}

void Exchange::attempt(const PreparedRequest& prepared, const request& req, Outcome& outcome) {
  HttpSession& session = _home.session();
  _reached = std::max(_reached, Reached::Session);
  session.setDeadline(req.deadline);
  session.send({prepared.head, prepared.body->pieces(), req.hop.method == "HEAD",
                prepared.tunnelAuthorization});
  _reached = Reached::Connection;
  outcome.response.emplace();
  outcome.response->head = &session.receive();
  outcome.response->fromConfiguredServer = _home.atHome();
  try {
    readBody(req, outcome);
  } catch (const ResponseLimitExceeded&) {
    session.finish(Leftover::OverLimit);
    throw;
  } catch (...) {
    session.reset();
    // The stream that was read tells only that it failed.
    if (req.deadline && HttpSession::Clock::now() >= *req.deadline) throw DeadlineExceeded();
    throw;
  }
}

void Exchange::readBody(const request& req, Outcome& outcome) {
  HttpSession& session = _home.session();
  const ReadBody read =
      processResponse(session.head(), session.body(), _buffer, req.limit, _log.warnings());
  outcome.response->payload = buffer_t::copyOf({_buffer.data(), read.size});
  const bool limited = req.limit.maxResponseKB >= 0;
  session.finish(read.leftUnread ? Leftover::None
                 : limited       ? Leftover::OverLimit
                                 : Leftover::Little);
}

std::optional<FollowUp> Exchange::followUp(request& req, const Response& response) {
  if (!_followsRedirects || !isRedirect(response.head->status())) return std::nullopt;
  auto next = processRedirectResponse(*response.head, _home.location(req.hop.target), req, _log);
  if (!next) return next;
  const bool fromHome = _home.atHome();
  if (next->elsewhere) {
    try {
      _home.moveTo(next->location.host, next->location.port);
    } catch (...) {
      const Failure failure = currentFailure(FailureKind::RedirectFailed);
      throw RedirectFailed(failure.message, failure.name);
    }
  }
  // Only now is the redirect sure to be followed. The session at home is still there.
  if (fromHome) _cookies.storeCookiesFromResponse(response.head->findAll("Set-Cookie"));
  return next;
}

// REQUIRES: called from a catch handler.
FailureKind Exchange::kindOfFailure() noexcept {
  HttpSession& session = _home.session();
  const bool mayHaveBeenSent = _reached == Reached::Connection;
  try {
    throw;
  } catch (const RefusedRequest&) {
    return FailureKind::Refused;
  } catch (const TunnelRefused&) {
    return mayHaveBeenSent ? FailureKind::NoAnswer : FailureKind::TunnelRefused;
  } catch (const ResponseLimitExceeded&) {
    return FailureKind::LimitExceeded;
  } catch (const DeadlineExceeded&) {
    return FailureKind::DeadlineExceeded;
  } catch (...) {
    if (_reached == Reached::Nothing) return FailureKind::Refused;
    if (session.answerBegun()) return FailureKind::BadAnswer;
    return mayHaveBeenSent || session.connected() ? FailureKind::NoAnswer
                                                  : FailureKind::Unreachable;
  }
}

void Exchange::trim() noexcept {
  if (_buffer.capacity() > keptBufferBytes) std::vector<char>().swap(_buffer);
}

}  // namespace connectivity::plugins
