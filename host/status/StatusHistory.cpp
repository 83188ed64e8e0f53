#include "host/status/StatusHistory.hpp"

#include <poll.h>
#include <utility>

#include "host/status/MetricsText.hpp"
#include "host/status/StatusJson.hpp"

namespace host {

StatusHistory::~StatusHistory() {
  _stop.set();
  if (_thread.joinable()) _thread.join();
}

void StatusHistory::start() {
  _thread = std::thread([this] { sampleUntilStopped(); });
}

void StatusHistory::sampleUntilStopped() {
  constexpr int stepMilliseconds = std::chrono::milliseconds(step).count();
  pollfd stopped{_stop.descriptor(), POLLIN, 0};
  while (!_stop.isSet()) {
    sample(Clock::now());
    ::poll(&stopped, 1, stepMilliseconds);
  }
}

void StatusHistory::sample(Clock::time_point now) {
  StatusItems items = _table.items();
  std::erase_if(items, [](const auto& item) { return !numberIn(item.second); });
  const orrery::AutoMutex lock(_mutex);
  _samples.push_back({now, std::move(items)});
  if (_samples.size() > longest) _samples.pop_front();
}

std::string StatusHistory::asJson(Clock::time_point now) const {
  using Milliseconds = std::chrono::duration<double, std::milli>;
  std::string text = "[";
  const orrery::AutoMutex lock(_mutex);
  for (const Sample& sample : _samples) {
    if (text.size() > 1) text += ",\n";
    const auto age = std::chrono::round<std::chrono::milliseconds>(now - sample.time);
    text.append(R"({"age":)").append(textOf(Milliseconds(age).count() / 1000));
    text.append(R"(,"items":)").append(statusAsJson(sample.items)).append("}");
  }
  return text + "]\n";
}

}  // namespace host
