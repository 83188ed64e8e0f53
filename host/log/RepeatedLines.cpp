#include "host/log/RepeatedLines.hpp"

#include <algorithm>
#include <string>
#include <utility>

#include "connectivity/qor_plugin.h"

namespace host {

namespace {

bool isSame(const LogLine& left, const LogLine& right) {
  return left.level == right.level && left.text == right.text && left.category == right.category;
}

}  // namespace

std::vector<LogLine> RepeatedLines::take(const LogLine& line) {
  std::vector<LogLine> out = overdue(line.time);
  const bool isAtOnce = isSame(line, _lastCome);
  _lastCome = line;
  Recent* recent = find(line);
  if (recent != nullptr && (isAtOnce || line.level <= QOR_LOG_WARN)) {
    ++recent->heldBack;
    recent->line.time = line.time;
    return out;
  }
  for (LogLine& each : rest(line.time)) out.push_back(std::move(each));
  out.push_back(line);
  _lastWritten = line;
  if (recent != nullptr) {
    recent->since = line.time;
  } else {
    if (_recents.size() == remembered) _recents.erase(_recents.begin());
    _recents.push_back({line, line.time});
  }
  return out;
}

std::vector<LogLine> RepeatedLines::overdue(TimePoint now) {
  // A clock that was set back must not keep a line for long.
  const auto isOver = [now](const Recent& recent) {
    return now - recent.since >= window || now < recent.since;
  };
  const bool isDue = std::any_of(_recents.begin(), _recents.end(), [&](const Recent& recent) {
    return isOver(recent) && recent.heldBack > 0;
  });
  // Lines that go on coming get another window, all the same one.
  for (Recent& recent : _recents) {
    if (isDue && recent.heldBack > 0) recent.since = now;
  }
  std::vector<LogLine> out;
  if (isDue) out = rest(now);
  std::erase_if(_recents, isOver);
  return out;
}

std::vector<LogLine> RepeatedLines::rest(TimePoint now) {
  std::vector<Recent*> held;
  for (Recent& recent : _recents) {
    if (recent.heldBack > 0) held.push_back(&recent);
  }
  // Single lines in their order, then the counts, whose time is now.
  std::stable_sort(held.begin(), held.end(), [](const Recent* left, const Recent* right) {
    if (left->heldBack == 1 && right->heldBack == 1) return left->line.time < right->line.time;
    return left->heldBack == 1 && right->heldBack > 1;
  });
  std::vector<LogLine> out;
  out.reserve(held.size());
  for (Recent* recent : held) out.push_back(release(*recent, now));
  return out;
}

RepeatedLines::Recent* RepeatedLines::find(const LogLine& line) {
  const auto found = std::find_if(_recents.begin(), _recents.end(),
                                  [&](const Recent& recent) { return isSame(recent.line, line); });
  return found == _recents.end() ? nullptr : &*found;
}

LogLine RepeatedLines::release(Recent& recent, TimePoint now) {
  LogLine line = recent.line;
  const std::uint64_t count = std::exchange(recent.heldBack, 0);
  const bool followsItself = isSame(line, _lastWritten);
  if (count > 1) {
    const std::string times = "repeated " + std::to_string(count) + " times";
    line.text = followsItself ? "last line " + times : times + ": " + line.text;
    line.time = now;
  }
  if (!followsItself) _lastWritten = line;
  return line;
}

}  // namespace host
