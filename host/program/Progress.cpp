#include "host/program/Progress.hpp"

#include <cmath>
#include <cstdint>

namespace host {

namespace {

std::string describeSeconds(double seconds) {
  const auto whole = static_cast<std::uint64_t>(std::ceil(seconds));
  if (whole < 60) return std::to_string(whole) + " s";
  if (whole < 3600) return std::to_string(whole / 60) + " min " + std::to_string(whole % 60) + " s";
  return std::to_string(whole / 3600) + " h " + std::to_string(whole / 60 % 60) + " min";
}

}  // namespace

ChainCounts sumOf(const std::vector<ChainCounts>& chains) {
  ChainCounts sum;
  sum.bytesInAll = 0;
  for (const ChainCounts& chain : chains) {
    sum.sent += chain.sent;
    sum.answered += chain.answered;
    sum.notSent += chain.notSent;
    sum.failed += chain.failed;
    sum.invalid += chain.invalid;
    sum.bytesRead += chain.bytesRead;
    if (sum.bytesInAll && chain.bytesInAll) {
      *sum.bytesInAll += *chain.bytesInAll;
    } else {
      sum.bytesInAll.reset();
    }
  }
  return sum;
}

std::string progressLine(const std::vector<ChainCounts>& chains,
                         std::chrono::duration<double> elapsed) {
  const ChainCounts sum = sumOf(chains);
  const double seconds = elapsed.count();
  const double rate = seconds > 0 ? static_cast<double>(sum.answered) / seconds : 0;
  std::string line = "sent " + std::to_string(sum.sent) + ", answered " +
                     std::to_string(sum.answered) + ", failed " + std::to_string(sum.failed) +
                     ", " + std::to_string(std::llround(rate)) + "/s";
  if (sum.bytesInAll && sum.bytesRead > 0 && sum.bytesRead <= *sum.bytesInAll) {
    const auto left = static_cast<double>(*sum.bytesInAll - sum.bytesRead);
    line += ", " + describeSeconds(seconds * left / static_cast<double>(sum.bytesRead)) + " left";
  }
  return line;
}

std::string describe(const ChainCounts& counts) {
  return "sent " + std::to_string(counts.sent) + ", answered " + std::to_string(counts.answered) +
         ", failed " + std::to_string(counts.failed) + ", dropped " +
         std::to_string(counts.dropped()) + ", invalid lines " + std::to_string(counts.invalid);
}

}  // namespace host
