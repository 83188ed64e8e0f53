// How far a chain has come: what the progress line and the summary count.
#pragma once

#include <cstdint>
#include <optional>

namespace host {

struct ChainCounts {
  std::uint64_t sent = 0;      // requests that the transport took
  std::uint64_t answered = 0;  // responses written
  std::uint64_t notSent = 0;  // requests that were read, and dropped before the transport took them
  std::uint64_t failed = 0;   // of these, with a status outside 200 to 399
  std::uint64_t invalid = 0;  // input lines that were no valid message
  std::uint64_t bytesRead = 0;
  std::optional<std::uint64_t> bytesInAll;  // where the input's size is known

  std::uint64_t dropped() const noexcept {
    return notSent + (sent > answered ? sent - answered : 0);
  }
};

}  // namespace host
