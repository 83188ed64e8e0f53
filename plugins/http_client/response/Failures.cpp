#include "plugins/http_client/response/Failures.hpp"

#include <array>
#include <exception>

#include <Poco/Exception.h>

namespace connectivity::plugins {

namespace {

constexpr int badRequest = 400;
constexpr int contentTooLarge = 413;
constexpr const char* processing = "Caught exception processing a request";
constexpr const char* redirecting = "Failed to perform HTTP redirect";

// In the order of the enumeration.
constexpr std::array<FailureRow, 8> table{{
    {FailureKind::Refused, badRequest, processing, false, false, "refused"},
    {FailureKind::Unreachable, badRequest, processing, true, true, "unreachable"},
    {FailureKind::TunnelRefused, badRequest, processing, true, true, "refused"},
    {FailureKind::NoAnswer, badRequest, processing, true, true, "noAnswer"},
    {FailureKind::BadAnswer, badRequest, processing, true, true, "badAnswer"},
    {FailureKind::LimitExceeded, contentTooLarge, processing, true, true, "badAnswer"},
    {FailureKind::RedirectFailed, badRequest, redirecting, true, true, "badAnswer"},
    {FailureKind::DeadlineExceeded, badRequest, processing, true, true, "deadline"},
}};

constexpr bool isInOrder() {
  for (std::size_t i = 0; i < table.size(); ++i) {
    if (table[i].kind != static_cast<FailureKind>(i)) return false;
  }
  return true;
}
static_assert(isInOrder(), "rowOf takes the kind for the row's number");

}  // namespace

const FailureRow& rowOf(FailureKind kind) noexcept {
  return table[static_cast<std::size_t>(kind)];  // NOLINT(*-constant-array-index): see above
}

std::string Failure::text() const {
  if (name.empty()) return message;
  return message.empty() ? name : name + ": " + message;
}

Failure currentFailure(FailureKind kind) {
  try {
    throw;
  } catch (const Poco::Exception& failure) {
    return {kind, failure.name(), failure.message()};
  } catch (const std::exception& failure) {
    return {kind, {}, failure.what()};
  } catch (...) {
    return {kind, {}, "Unknown exception"};
  }
}

}  // namespace connectivity::plugins
