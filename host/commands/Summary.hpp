// What a run has done, told at its end: as lines for people, or as one line of JSON.
#pragma once

#include <string>
#include <vector>

#include "host/chain/ChainStatistics.hpp"
#include "host/program/ChainCounts.hpp"

namespace host {

enum class SummaryForm { None, Text, Json };

struct ChainSummary {
  std::string id;
  std::string name;
  ChainCounts counts;
  ChainStatistics statistics;
};

// The chains together; id and name are empty.
ChainSummary totalOf(const std::vector<ChainSummary>& chains);

//   sent 1000, answered 1000, failed 20, dropped 0, invalid lines 0
//   2xx 980, 3xx 0, 4xx 15, 5xx 5, other 0; without a response 3
//   bytes: 52000 in requests, 1204000 in responses
//   2.31 s, 433 answers/s; hand-over to answer: p50 1.23 ms, p90 3.4 ms, p99 12.1 ms, max 40.2 ms
//
// Without an answer, the last line holds the time alone.
std::vector<std::string> summaryLines(const ChainSummary& summary);

// {"summary":{"chains":[...],"total":{...}}}; the keys are those of docs/operations.md.
std::string summaryJson(const std::vector<ChainSummary>& chains);

}  // namespace host
