// The progress line of a run, for terminals:
//
//   sent 1200, answered 1187, failed 2, 590/s, 1 min 20 s left
#pragma once

#include <chrono>
#include <string>
#include <vector>

#include "host/program/ChainCounts.hpp"

namespace host {

// The line for all chains together. Rate and time left are means over `elapsed`; the time left is
// missing where the size of an input is unknown or nothing has been read.
std::string progressLine(const std::vector<ChainCounts>& chains,
                         std::chrono::duration<double> elapsed);

// The counts of all chains together; bytesInAll only where every chain has one.
ChainCounts sumOf(const std::vector<ChainCounts>& chains);

// "sent 3, answered 3, failed 0, dropped 0, invalid lines 0".
std::string describe(const ChainCounts& counts);

}  // namespace host
