// What each update computes, and the order in which items are set.
#include "plugins/http_client/shared/Metrics.hpp"

#include <algorithm>
#include <cmath>
#include <initializer_list>
#include <stdexcept>

#include "orrery/Platform.hpp"

namespace connectivity::plugins {

namespace {

constexpr std::int64_t hourMillis = 3'600'000;

// The items that tell how the transport performs, for dashboards that want no others.
constexpr std::initializer_list<const char*> kpiNames = {
    ".requestLatencyEWMAShortMillis", ".requestLatencyEWMALongMillis",
    ".requestSizeEWMAShortBytes",     ".requestSizeEWMALongBytes",
    ".responseSizeEWMAShortBytes",    ".responseSizeEWMALongBytes",
    ".requestSizeMaxInLastHourBytes", ".responseSizeMaxInLastHourBytes",
    ".concurrencyUtilizationPercent", ".queueSize"};

std::string kpiKeys(const std::string& prefix) {
  std::string keys;
  for (const char* name : kpiNames) {
    if (!keys.empty()) keys += ',';
    keys += prefix + name;
  }
  return keys;
}

std::int64_t millis(double seconds) { return static_cast<std::int64_t>(seconds * 1000.0); }
std::int64_t wholeBytes(double bytes) { return static_cast<std::int64_t>(bytes); }

}  // namespace

void Metrics::EWMA::update(double sample) noexcept {
  // Exactly 0.0 is what an average starts with: it takes the sample as it is.
  value = value == 0.0 ? sample : value * (1 - alpha) + alpha * sample;
}

void Metrics::AveragePair::update(double sample) noexcept {
  shortAverage.update(sample);
  longAverage.update(sample);
}

bool Metrics::HourlyMaximum::update(std::uint32_t sample) noexcept {
  const std::int64_t now = orrery::Platform::sysTime();
  if (setAt + hourMillis >= now && value >= sample) return false;
  value = sample;
  setAt = now;
  return true;
}

Metrics::Metrics(StatusReporter& reporter, const std::string& prefix, std::uint32_t workers)
    : _status(reporter.createStatusItem(prefix + ".status", std::string("STARTING"))),
      _errorsTowardsHost(reporter.createStatusItem(prefix + ".errorsTowardsHost", 0)),
      _responsesTowardsHost(reporter.createStatusItem(prefix + ".responsesTowardsHost", 0)),
      _requestLatencyShort(reporter.createStatusItem(prefix + ".requestLatencyEWMAShortMillis", 0)),
      _requestLatencyLong(reporter.createStatusItem(prefix + ".requestLatencyEWMALongMillis", 0)),
      _requestSizeShort(reporter.createStatusItem(prefix + ".requestSizeEWMAShortBytes", 0)),
      _requestSizeLong(reporter.createStatusItem(prefix + ".requestSizeEWMALongBytes", 0)),
      _responseSizeShort(reporter.createStatusItem(prefix + ".responseSizeEWMAShortBytes", 0)),
      _responseSizeLong(reporter.createStatusItem(prefix + ".responseSizeEWMALongBytes", 0)),
      _requestSizeMax(reporter.createStatusItem(prefix + ".requestSizeMaxInLastHourBytes", 0)),
      _responseSizeMax(reporter.createStatusItem(prefix + ".responseSizeMaxInLastHourBytes", 0)),
      _numClients(reporter.createStatusItem(prefix + ".numClients", workers)),
      _serializedRequests(reporter.createStatusItem(prefix + ".serializedRequests", 0)),
      _concurrencyUtilization(
          reporter.createStatusItem(prefix + ".concurrencyUtilizationPercent", 100)),
      _queueSize(reporter.createStatusItem(prefix + ".queueSize", 0)),
      _kpis(reporter.createStatusItem(prefix + ".KPIs", kpiKeys(prefix))),
      _busyMillis(workers) {}

Metrics::~Metrics() = default;

void Metrics::updateRequestMetrics(unsigned int bodyBytes) {
  const orrery::AutoMutex lock(requestMetricsMutex);
  _requestSize.update(bodyBytes);
  _requestSizeShort->setStatus(wholeBytes(_requestSize.shortAverage.value));
  _requestSizeLong->setStatus(wholeBytes(_requestSize.longAverage.value));
  if (_requestMaximum.update(bodyBytes)) _requestSizeMax->setStatus(std::int64_t{bodyBytes});
}

void Metrics::updateResponseMetrics(double latencySeconds, int status, unsigned int bodyBytes) {
  const orrery::AutoMutex lock(requestMetricsMutex);
  recordLatency(latencySeconds);
  if (status >= 200 && status <= 299) recordResponseSize(bodyBytes);
}

void Metrics::recordLatency(double seconds) {
  _latency.update(seconds);
  _requestLatencyLong->setStatus(millis(_latency.longAverage.value));
  _requestLatencyShort->setStatus(millis(_latency.shortAverage.value));
}

void Metrics::recordResponseSize(unsigned int bodyBytes) {
  _responseSize.update(bodyBytes);
  _responseSizeShort->setStatus(wholeBytes(_responseSize.shortAverage.value));
  _responseSizeLong->setStatus(wholeBytes(_responseSize.longAverage.value));
  if (_responseMaximum.update(bodyBytes)) _responseSizeMax->setStatus(std::int64_t{bodyBytes});
}

void Metrics::countResponse(int status) {
  (status >= 200 && status <= 399 ? _responsesTowardsHost : _errorsTowardsHost)->increment(1);
}

void Metrics::countSerializedRequest() { _serializedRequests->increment(1); }

void Metrics::setQueueSize(std::uint32_t elements) {
  _queueSize->setStatus(std::int64_t{elements});
}

void Metrics::updateTransportStatus(const char* status) {
  if (status == nullptr) throw std::logic_error("basic_string::_M_construct null not valid");
  const orrery::AutoMutex lock(transportStatusMutex);
  _status->setStatus(std::string(status));
}

void Metrics::addBusyTime(std::uint32_t worker, double seconds) noexcept {
  if (!(seconds > 0)) return;
  const auto spent = static_cast<std::uint64_t>(std::ceil(seconds * 1000.0));
  _totalBusyMillis.fetch_add(spent, std::memory_order_relaxed);
  _busyMillis[worker].fetch_add(spent, std::memory_order_relaxed);
}

void Metrics::updateConcurrencyUtilizationStatus() {
  if (_busyMillis.size() <= 1) return;
  const auto total = static_cast<double>(_totalBusyMillis.load(std::memory_order_relaxed));
  if (total == 0) return;
  const double mean = total / static_cast<double>(_busyMillis.size());
  double spread = 0;
  for (const auto& busy : _busyMillis) {
    spread += std::abs(static_cast<double>(busy.load(std::memory_order_relaxed)) - mean);
  }
  const double percent = std::round((1 - spread / (2 * (total - mean))) * 100.0);
  // The total and the parts are read at different moments, so they may not add up.
  _concurrencyUtilization->setStatus(static_cast<std::int64_t>(std::clamp(percent, 0.0, 100.0)));
}

}  // namespace connectivity::plugins
