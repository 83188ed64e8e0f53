#include "plugins/http_client/shared/SetCookie.hpp"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstddef>
#include <limits>
#include <system_error>

#include "plugins/http_client/text/Ascii.hpp"

namespace connectivity::plugins {

namespace {

using std::chrono::sys_seconds;

constexpr int sessionCookie = -1;

std::string_view withoutQuotes(std::string_view text) noexcept {
  const bool quoted = text.size() >= 2 && text.front() == '"' && text.back() == '"';
  return quoted ? text.substr(1, text.size() - 2) : text;
}

// Takes what stands before the next `separator` off the front of `rest`.
std::string_view takeUntil(std::string_view& rest, char separator) noexcept {
  const std::size_t end = std::min(rest.find(separator), rest.size());
  const std::string_view taken = rest.substr(0, end);
  rest.remove_prefix(std::min(end + 1, rest.size()));
  return taken;
}

bool isPrintable(std::string_view text) noexcept {
  return std::all_of(text.begin(), text.end(), [](char c) {
    const auto byte = static_cast<unsigned char>(c);
    return byte >= 0x20 && byte < 0x7F;
  });
}

// An integer from end to end, kept within an int.
std::optional<int> readMaxAge(std::string_view text) noexcept {
  long long value = 0;
  const char* const end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, value);
  if (stop != end || error == std::errc::invalid_argument) return std::nullopt;
  constexpr long long most = std::numeric_limits<int>::max();
  if (error == std::errc::result_out_of_range) value = text.front() == '-' ? -most : most;
  return static_cast<int>(std::clamp(value, -most, most));
}

// What is left until a date in whole seconds, at least one where it has not come yet.
int secondsUntil(sys_seconds date, std::chrono::system_clock::time_point now) noexcept {
  // In seconds: a far date does not fit the clock's own unit.
  const auto left = (date - std::chrono::floor<std::chrono::seconds>(now)).count();
  constexpr decltype(left) most = std::numeric_limits<int>::max();
  return static_cast<int>(std::clamp<decltype(left)>(left, 0, most));
}

struct Attributes {
  std::string_view path;
  std::optional<int> maxAge;
  std::optional<int> expires;

  void read(std::string_view attribute, std::chrono::system_clock::time_point now) {
    const std::string name = lowerCased(trimmed(takeUntil(attribute, '=')));
    const std::string_view value = withoutQuotes(trimmed(attribute));
    if (name == "path") {
      path = value.starts_with('/') ? value : std::string_view();
    } else if (name == "max-age") {
      if (const auto seconds = readMaxAge(value)) maxAge = seconds;
    } else if (name == "expires") {
      if (const auto date = readCookieDate(value)) expires = secondsUntil(*date, now);
    }
  }
};

// The parts of a date, in whatever order they come.
struct DateParts {
  std::optional<std::chrono::seconds> time;
  std::optional<unsigned> day;
  std::optional<unsigned> month;
  std::optional<int> year;
};

bool isDateDelimiter(char c) noexcept {
  return c == '\t' || (c >= ' ' && c <= '/') || (c >= ';' && c <= '@') || (c >= '[' && c <= '`') ||
         (c >= '{' && c <= '~');
}

// Takes a number of `least` to `most` digits, not followed by another digit, off the front.
std::optional<int> takeNumber(std::string_view& text, std::size_t least, std::size_t most) {
  std::size_t digits = 0;
  int value = 0;
  while (digits < text.size() && isDigit(text[digits])) {
    if (++digits > most) return std::nullopt;
    value = value * 10 + (text[digits - 1] - '0');
  }
  if (digits < least) return std::nullopt;
  text.remove_prefix(digits);
  return value;
}

std::optional<std::chrono::seconds> readTime(std::string_view token) {
  const auto hour = takeNumber(token, 1, 2);
  if (!hour || !token.starts_with(':')) return std::nullopt;
  token.remove_prefix(1);
  const auto minute = takeNumber(token, 1, 2);
  if (!minute || !token.starts_with(':')) return std::nullopt;
  token.remove_prefix(1);
  const auto second = takeNumber(token, 1, 2);
  if (!second) return std::nullopt;
  // Out of range: a time later than any, refused with the date.
  if (*hour > 23 || *minute > 59 || *second > 59) return std::chrono::hours(24);
  return std::chrono::hours(*hour) + std::chrono::minutes(*minute) + std::chrono::seconds(*second);
}

std::optional<unsigned> readMonth(std::string_view token) {
  static constexpr std::array<std::string_view, 12> names{"jan", "feb", "mar", "apr", "may", "jun",
                                                          "jul", "aug", "sep", "oct", "nov", "dec"};
  const std::string name = lowerCased(token.substr(0, 3));
  const auto index =
      static_cast<std::size_t>(std::find(names.begin(), names.end(), name) - names.begin());
  if (index == names.size()) return std::nullopt;
  return static_cast<unsigned>(index) + 1;
}

// Reads one token as the first part that is still missing and that it can be.
void readDateToken(std::string_view token, DateParts& parts) {
  if (!parts.time && (parts.time = readTime(token))) return;
  if (!parts.day) {
    std::string_view rest = token;
    if (const auto day = takeNumber(rest, 1, 2)) {
      parts.day = static_cast<unsigned>(*day);
      return;
    }
  }
  if (!parts.month && (parts.month = readMonth(token))) return;
  if (parts.year) return;
  parts.year = takeNumber(token, 2, 4);
  if (parts.year && *parts.year < 100) *parts.year += *parts.year < 70 ? 2000 : 1900;
}

}  // namespace

std::optional<sys_seconds> readCookieDate(std::string_view text) {
  DateParts parts;
  while (!text.empty()) {
    const auto length = static_cast<std::size_t>(
        std::find_if(text.begin(), text.end(), isDateDelimiter) - text.begin());
    if (length > 0) readDateToken(text.substr(0, length), parts);
    text.remove_prefix(std::min(length + 1, text.size()));
  }
  if (!parts.time || !parts.day || !parts.month || !parts.year) return std::nullopt;
  const std::chrono::year_month_day date{std::chrono::year(*parts.year),
                                         std::chrono::month(*parts.month),
                                         std::chrono::day(*parts.day)};
  constexpr int firstYear = 1601;
  if (!date.ok() || *parts.year < firstYear || *parts.time >= std::chrono::hours(24)) {
    return std::nullopt;
  }
  return std::chrono::sys_days(date) + *parts.time;
}

SetCookie readSetCookie(std::string_view line, std::chrono::system_clock::time_point now) {
  using Outcome = SetCookie::Outcome;
  std::string_view value = takeUntil(line, ';');
  const bool isPair = value.find('=') != std::string_view::npos;
  const std::string_view name = trimmed(takeUntil(value, '='));
  value = trimmed(value);
  if (!isPair || name.empty()) return {};

  SetCookie result{Outcome::Usable, std::string(name), std::string(value), {}, sessionCookie};
  if (!isPrintable(name)) {
    result.outcome = Outcome::BadName;
  } else if (!isPrintable(value)) {
    result.outcome = Outcome::BadValue;
  }
  Attributes attributes;
  while (!line.empty()) attributes.read(takeUntil(line, ';'), now);
  result.path = attributes.path;
  result.maxAge = attributes.maxAge.value_or(attributes.expires.value_or(sessionCookie));
  return result;
}

}  // namespace connectivity::plugins
