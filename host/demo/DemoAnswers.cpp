#include "host/demo/DemoAnswers.hpp"

#include <algorithm>
#include <unistd.h>
#include <utility>

#include "connectivity/value_access.hpp"
#include "host/program/Progress.hpp"

namespace host {

using connectivity::data_t;
using connectivity::Message;

DemoAnswers::DemoAnswers(std::size_t howMany, std::size_t flushInterval, HostLog& log)
    : _log(log),
      _flushInterval(flushInterval),
      _showsProgress(::isatty(STDERR_FILENO) != 0),
      _answers(howMany),
      _barriers(howMany / flushInterval, Barrier{flushInterval}) {}

void DemoAnswers::receive(Message& response) {
  const data_t* id = response.metadata.findText("requestId");
  if (id == nullptr || id->tag() != QOR_INT64) return;
  const orrery::AutoMutex lock(_mutex);
  record(static_cast<std::size_t>(connectivity::get<long long>(*id)), response);
}

void DemoAnswers::record(std::size_t number, const Message& response) {
  DemoAnswer& answer = _answers.at(number);
  ++answer.count;
  answer.status = static_cast<int>(_reader.statusOf(response).status);
  if (response.payload.tag() == QOR_BUFFER) {
    answer.body = connectivity::get<connectivity::buffer_t>(response.payload).view();
  }
  const std::size_t next = number / _flushInterval;
  breakIncompleteBefore(next);
  if (next < _barriers.size() && _barriers[next].missing > 0) --_barriers[next].missing;
  showProgress(answer.status);
}

void DemoAnswers::flushed(std::size_t barrier) {
  const orrery::AutoMutex lock(_mutex);
  breakIncompleteBefore(barrier + 1);
  _barriers.at(barrier).released = true;
}

// Something behind these barriers has been done.
void DemoAnswers::breakIncompleteBefore(std::size_t barrier) {
  for (std::size_t i = 0; i < std::min(barrier, _barriers.size()); ++i) {
    _barriers[i].broken = _barriers[i].broken || _barriers[i].missing > 0;
  }
}

std::size_t DemoAnswers::barriersHeld() const {
  const orrery::AutoMutex lock(_mutex);
  return static_cast<std::size_t>(
      std::count_if(_barriers.begin(), _barriers.end(), [](const Barrier& barrier) {
        return barrier.released && !barrier.broken && barrier.missing == 0;
      }));
}

std::vector<DemoAnswer> DemoAnswers::take() {
  const orrery::AutoMutex lock(_mutex);
  return std::move(_answers);
}

void DemoAnswers::showProgress(int status) {
  ++_counts.answered;
  _counts.sent = _answers.size();
  if (status < 200 || status > 399) ++_counts.failed;
  if (_showsProgress) {
    _log.showProgress(progressLine({_counts}, std::chrono::steady_clock::now() - _begin));
  }
}

}  // namespace host
