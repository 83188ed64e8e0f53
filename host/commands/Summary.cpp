#include "host/commands/Summary.hpp"

#include <array>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <utility>

#include "host/messages/JsonWriter.hpp"
#include "host/program/Progress.hpp"

namespace host {

using connectivity::data_t;
using connectivity::list_t;
using connectivity::map_t;

namespace {

constexpr std::array<const char*, 5> classNames{"2xx", "3xx", "4xx", "5xx", "other"};
constexpr std::array<std::pair<const char*, double>, 3> quantiles{
    {{"p50", 0.5}, {"p90", 0.9}, {"p99", 0.99}}};

double milliseconds(LatencyHistogram::Duration duration) {
  return std::chrono::duration<double, std::milli>(duration).count();
}

double answersPerSecond(const ChainSummary& summary) {
  const double seconds = summary.statistics.duration.count();
  return seconds > 0 ? static_cast<double>(summary.counts.answered) / seconds : 0;
}

// --- For people ----------------------------------------------------------------------------------

// Three significant digits.
std::string shown(double value) {
  std::array<char, 32> text{};
  std::snprintf(text.data(), text.size(), value < 1000 ? "%.3g" : "%.0f", value);
  return text.data();
}

std::string answersLine(const ChainStatistics& statistics) {
  std::string line;
  for (std::size_t i = 0; i < classNames.size(); ++i) {
    line.append(i > 0 ? ", " : "").append(classNames[i]).append(" ");
    line += std::to_string(statistics.answers[i]);
  }
  return line + "; without a response " + std::to_string(statistics.withoutResponse);
}

std::string timesLine(const ChainSummary& summary) {
  const LatencyHistogram& latencies = summary.statistics.latencies;
  std::string line = shown(summary.statistics.duration.count()) + " s";
  if (latencies.count() == 0) return line;
  line += ", " + shown(answersPerSecond(summary)) + " answers/s; hand-over to answer: ";
  for (const auto& [name, fraction] : quantiles) {
    line.append(name) += " " + shown(milliseconds(latencies.quantile(fraction))) + " ms, ";
  }
  return line + "max " + shown(milliseconds(latencies.max())) + " ms";
}

// --- For programs --------------------------------------------------------------------------------

void put(map_t& map, const char* key, data_t&& value) { map.insert(data_t(key), std::move(value)); }

void put(map_t& map, const char* key, std::uint64_t count) {
  put(map, key, data_t(static_cast<long long>(count)));
}

// Six decimal places.
void put(map_t& map, const char* key, double value) {
  put(map, key, data_t(std::round(value * 1e6) / 1e6));
}

map_t answersMap(const ChainStatistics& statistics) {
  map_t map;
  for (std::size_t i = 0; i < classNames.size(); ++i) {
    put(map, classNames[i], statistics.answers[i]);
  }
  return map;
}

// Empty where nothing has been measured.
data_t latencyMap(const LatencyHistogram& latencies) {
  if (latencies.count() == 0) return {};
  map_t map;
  for (const auto& [name, fraction] : quantiles) {
    put(map, name, milliseconds(latencies.quantile(fraction)));
  }
  put(map, "max", milliseconds(latencies.max()));
  return data_t(std::move(map));
}

map_t summaryMap(const ChainSummary& summary) {
  const ChainStatistics& statistics = summary.statistics;
  map_t map;
  put(map, "sent", summary.counts.sent);
  put(map, "answered", summary.counts.answered);
  put(map, "answersByStatus", data_t(answersMap(statistics)));
  put(map, "withoutResponse", statistics.withoutResponse);
  put(map, "failed", summary.counts.failed);
  put(map, "dropped", summary.counts.dropped());
  put(map, "invalidLines", summary.counts.invalid);
  put(map, "requestBytes", statistics.requestBytes);
  put(map, "responseBytes", statistics.responseBytes);
  put(map, "durationSeconds", statistics.duration.count());
  put(map, "answersPerSecond", answersPerSecond(summary));
  put(map, "latencyMillis", latencyMap(statistics.latencies));
  return map;
}

map_t chainMap(const ChainSummary& summary) {
  map_t map = summaryMap(summary);
  put(map, "id", data_t(summary.id));
  put(map, "name", data_t(summary.name));
  return map;
}

}  // namespace

ChainSummary totalOf(const std::vector<ChainSummary>& chains) {
  ChainSummary total;
  std::vector<ChainCounts> counts;
  for (const ChainSummary& chain : chains) {
    counts.push_back(chain.counts);
    total.statistics.add(chain.statistics);
  }
  total.counts = sumOf(counts);
  return total;
}

std::vector<std::string> summaryLines(const ChainSummary& summary) {
  const ChainStatistics& statistics = summary.statistics;
  return {describe(summary.counts), answersLine(statistics),
          "bytes: " + std::to_string(statistics.requestBytes) + " in requests, " +
              std::to_string(statistics.responseBytes) + " in responses",
          timesLine(summary)};
}

std::string summaryJson(const std::vector<ChainSummary>& chains) {
  list_t list;
  for (const ChainSummary& chain : chains) list.push_back(data_t(chainMap(chain)));
  map_t summary;
  put(summary, "chains", data_t(std::move(list)));
  put(summary, "total", data_t(summaryMap(totalOf(chains))));
  map_t line;
  put(line, "summary", data_t(std::move(summary)));
  return toJson(data_t(std::move(line)));
}

}  // namespace host
