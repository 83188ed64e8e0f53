// The transport's health and load, as status items of the host.
//
// Averages are exponentially weighted moving averages (NIST/SEMATECH e-Handbook, 6.3.2.4) with the
// weights 0.5 (short) and 0.1 (long). A maximum is kept for an hour after it was set; the first
// sample after that replaces it, however small.
//
// Any thread may call any update. None calls the host while it holds a mutex that another thread
// needs for anything but an update. The items live as long as this object.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "connectivity/StatusReporter.hpp"
#include "orrery/Mutex.hpp"

namespace connectivity::plugins {

class Metrics {
 public:
  // Creates the items, their keys `keyPrefix` + "." + name, in the order of the members below. A
  // refused one is the std::runtime_error of StatusReporter.
  Metrics(StatusReporter& reporter, const std::string& keyPrefix, std::uint32_t workers);
  ~Metrics();
  Metrics(const Metrics&) = delete;
  Metrics& operator=(const Metrics&) = delete;

  // One request, with the bytes of body that it sends.
  void updateRequestMetrics(unsigned int bodyBytes);
  // One response that is about to be handed over: its latency in seconds and, where its HTTP status
  // is 2xx, its size, recorded together.
  void updateResponseMetrics(double latencySeconds, int status, unsigned int bodyBytes);
  // One response that was handed over: a success (200 to 399) or an error.
  void countResponse(int status);
  // One message that had everything before it finished first.
  void countSerializedRequest();
  void setQueueSize(std::uint32_t elements);
  // "ONLINE" or "FAILED". Null is std::logic_error "basic_string::_M_construct null not valid".
  void updateTransportStatus(const char* status);

  // What a worker spent on one request; counted in milliseconds, rounded up.
  void addBusyTime(std::uint32_t worker, double seconds) noexcept;
  // How evenly the workers are busy: 100 all alike, 0 one alone. Left alone with one worker, and
  // before any work. Computed from a snapshot that may be mixed.
  void updateConcurrencyUtilizationStatus();

 private:
  using Item = std::unique_ptr<StatusReporter::StatusItem>;

  struct EWMA {
    double alpha;
    double value = 0.0;
    // The first sample, and any taken while the average is 0, becomes the average.
    void update(double sample) noexcept;
  };
  struct AveragePair {
    EWMA shortAverage{0.5};
    EWMA longAverage{0.1};
    void update(double sample) noexcept;
  };
  struct HourlyMaximum {
    std::uint32_t value = 0;
    std::int64_t setAt = 0;  // milliseconds since 1970
    // Whether `sample` is the maximum now.
    bool update(std::uint32_t sample) noexcept;
  };

  void recordLatency(double seconds) ORRERY_REQUIRES(requestMetricsMutex);
  void recordResponseSize(unsigned int bodyBytes) ORRERY_REQUIRES(requestMetricsMutex);

  const std::string _prefix;
  // Each has a mutex of its own.
  const Item _status;
  const Item _errorsTowardsHost;
  const Item _responsesTowardsHost;
  const Item _requestLatencyShort;
  const Item _requestLatencyLong;
  const Item _requestSizeShort;
  const Item _requestSizeLong;
  const Item _responseSizeShort;
  const Item _responseSizeLong;
  const Item _requestSizeMax;
  const Item _responseSizeMax;
  const Item _numClients;
  const Item _serializedRequests;
  const Item _concurrencyUtilization;
  const Item _queueSize;
  const Item _kpis;

  std::atomic<std::uint64_t> _totalBusyMillis{0};
  std::vector<std::atomic<std::uint64_t>> _busyMillis;  // one for each worker, its only writer

  orrery::Mutex requestMetricsMutex{"RequestMetricsMutex"};
  AveragePair _latency ORRERY_GUARDED_BY(requestMetricsMutex);  // seconds
  AveragePair _requestSize ORRERY_GUARDED_BY(requestMetricsMutex);
  AveragePair _responseSize ORRERY_GUARDED_BY(requestMetricsMutex);
  HourlyMaximum _requestMaximum ORRERY_GUARDED_BY(requestMetricsMutex);
  HourlyMaximum _responseMaximum ORRERY_GUARDED_BY(requestMetricsMutex);
  orrery::Mutex transportStatusMutex{"TransportStatusMutex"};
};

}  // namespace connectivity::plugins
