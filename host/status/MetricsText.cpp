#include "host/status/MetricsText.hpp"

#include <algorithm>
#include <array>
#include <cctype>
#include <charconv>
#include <cmath>
#include <map>
#include <string_view>

namespace host {

namespace {

// What the metrics know of an item.
struct Metric {
  std::string_view item;
  std::string_view name;
  std::string_view type;
  std::string_view help;
  int perUnit = 1;  // how many of the item's units make one of the metric's
};

constexpr std::string_view gauge = "gauge";
constexpr std::string_view counter = "counter";
constexpr int milliseconds = 1000;
constexpr int percent = 100;

constexpr std::array known{
    Metric{"errorsTowardsHost", "orrery_errors_towards_host_total", counter,
           "Answers with a status outside 200 to 399."},
    Metric{"responsesTowardsHost", "orrery_responses_towards_host_total", counter,
           "Answers with a status of 200 to 399."},
    Metric{"serializedRequests", "orrery_serialized_requests_total", counter,
           "Requests that waited for all before them."},
    Metric{"requestLatencyEWMAShortMillis", "orrery_request_latency_ewma_short_seconds", gauge,
           "Latency of requests, average over few.", milliseconds},
    Metric{"requestLatencyEWMALongMillis", "orrery_request_latency_ewma_long_seconds", gauge,
           "Latency of requests, average over many.", milliseconds},
    Metric{"requestSizeEWMAShortBytes", "orrery_request_size_ewma_short_bytes", gauge,
           "Size of request bodies as sent, average over few."},
    Metric{"requestSizeEWMALongBytes", "orrery_request_size_ewma_long_bytes", gauge,
           "Size of request bodies as sent, average over many."},
    Metric{"responseSizeEWMAShortBytes", "orrery_response_size_ewma_short_bytes", gauge,
           "Size of delivered bodies of 2xx responses, average over few."},
    Metric{"responseSizeEWMALongBytes", "orrery_response_size_ewma_long_bytes", gauge,
           "Size of delivered bodies of 2xx responses, average over many."},
    Metric{"requestSizeMaxInLastHourBytes", "orrery_request_size_max_in_last_hour_bytes", gauge,
           "Largest request body of the hour."},
    Metric{"responseSizeMaxInLastHourBytes", "orrery_response_size_max_in_last_hour_bytes", gauge,
           "Largest body of a 2xx response of the hour."},
    Metric{"numClients", "orrery_num_clients", gauge, "Workers."},
    Metric{"concurrencyUtilizationPercent", "orrery_concurrency_utilization_ratio", gauge,
           "How evenly the workers have been busy, from 0 to 1.", percent},
    Metric{"queueSize", "orrery_queue_size", gauge, "Length of the queue."},
};
constexpr Metric up{"status", "orrery_up", gauge, "Whether the transport is ONLINE."};
constexpr std::string_view untypedHelp = "A status item that the host knows by its name only.";

// The samples of one metric, by label; the header is that of the first.
struct Family {
  std::string type;
  std::string help;
  std::map<std::string, std::string> samples;
};
using Families = std::map<std::string, Family>;

// "cacheHitsOfLRU" as "orrery_cache_hits_of_lru".
std::string metricName(std::string_view item) {
  const auto isUpper = [](char c) { return std::isupper(static_cast<unsigned char>(c)) != 0; };
  std::string name = "orrery";
  for (std::size_t i = 0; i < item.size(); ++i) {
    const bool nextIsLower = i + 1 < item.size() && !isUpper(item[i + 1]);
    const bool startsWord = i == 0 || (isUpper(item[i]) && (!isUpper(item[i - 1]) || nextIsLower));
    if (startsWord) name += '_';
    const auto byte = static_cast<unsigned char>(item[i]);
    name += std::isalnum(byte) != 0 ? static_cast<char>(std::tolower(byte)) : '_';
  }
  return name;
}

std::string labelValue(std::string_view text) {
  std::string value;
  for (const char character : text) {
    if (character == '\\' || character == '"') value += '\\';
    if (character == '\n') {
      value += "\\n";
    } else {
      value += character;
    }
  }
  return value;
}

// Two items of one transport whose names differ only in their case give one sample, the first's.
void add(Families& families, const Metric& metric, const std::string& label,
         const std::string& value) {
  const Family header{std::string(metric.type), std::string(metric.help), {}};
  families.emplace(metric.name, header).first->second.samples.emplace(label, value);
}

void addNumber(Families& families, std::string_view item, const std::string& label,
               const std::string& text) {
  const auto number = numberIn(text);
  if (!number) return;
  const auto* const metric = std::find_if(known.begin(), known.end(),
                                          [item](const Metric& each) { return each.item == item; });
  if (metric == known.end()) {
    const std::string name = metricName(item);
    add(families, {item, name, "untyped", untypedHelp}, label, text);
  } else {
    // Whole numbers of 64 bits stay exact where nothing is converted.
    const bool converted = metric->perUnit != 1;
    add(families, *metric, label, converted ? textOf(*number / metric->perUnit) : text);
  }
}

void append(std::string& out, const std::string& name, const Family& family) {
  out.append("# HELP ").append(name).append(" ").append(family.help);
  out.append("\n# TYPE ").append(name).append(" ").append(family.type).append("\n");
  for (const auto& [label, value] : family.samples) {
    out.append(name)
        .append("{transport=\"")
        .append(label)
        .append("\"} ")
        .append(value)
        .append("\n");
  }
}

}  // namespace

std::optional<double> numberIn(const std::string& text) {
  double number = 0;
  const char* const end = text.data() + text.size();
  const auto result = std::from_chars(text.data(), end, number);
  if (result.ec != std::errc() || result.ptr != end || !std::isfinite(number)) return std::nullopt;
  return number;
}

std::string textOf(double number) {
  std::array<char, 32> text{};
  const auto result = std::to_chars(text.data(), text.data() + text.size(), number);
  return {text.data(), result.ptr};
}

std::string statusAsMetrics(const StatusItems& items) {
  Families families;
  for (const auto& [key, text] : items) {
    const auto dot = key.rfind('.');
    if (dot == std::string::npos) continue;
    const std::string item = key.substr(dot + 1);
    const std::string label = labelValue(key.substr(0, dot));
    if (item == up.item) {
      add(families, up, label, text == "ONLINE" ? "1" : "0");
    } else {
      addNumber(families, item, label, text);
    }
  }
  std::string out;
  for (const auto& [name, family] : families) append(out, name, family);
  return out;
}

}  // namespace host
