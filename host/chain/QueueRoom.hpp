// How many requests fill the transport's queue, learnt from the waits that the transport tells of.
//
// A reader that waits in the queue is woken for each place that becomes free. Once it is known what
// fills the queue, the reader waits in front of it for room for a whole batch. Used by one thread.
#pragma once

#include <algorithm>
#include <cstdint>
#include <optional>
#include <utility>

namespace host {

class QueueRoom {
 public:
  // How much is added to the level with each batch that did not wait: what fills the queue may have
  // become more, since barriers stand in it too.
  static constexpr std::uint64_t step = 8;

  // With at most so many outstanding, a batch of that size finds room. Nothing where no batch has
  // waited, or none of that size ever finds room at once.
  std::optional<std::uint64_t> levelFor(std::uint64_t batch) const noexcept {
    if (!_full || *_full <= batch) return std::nullopt;
    return *_full - batch;
  }

  // The batch that is being handed over waits while `others` are outstanding besides it. Some of
  // the batch may be in the queue already, so that the queue holds a little more than these.
  void waits(std::uint64_t others) noexcept { _met = std::max(_met.value_or(0), others); }
  // The batch has been handed over.
  void handedOver() noexcept {
    if (_met) {
      _full = std::exchange(_met, std::nullopt);
    } else if (_full) {
      *_full += step;
    }
  }

 private:
  std::optional<std::uint64_t> _full;  // so many outstanding fill the queue
  std::optional<std::uint64_t> _met;   // by the batch that is being handed over
};

}  // namespace host
