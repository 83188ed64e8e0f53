// What a chain has done, for the summary of a run.
#pragma once

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>

#include "connectivity/data_t.hpp"
#include "host/chain/LatencyHistogram.hpp"

namespace host {

// Answers by the first digit of their status.
enum class StatusClass { Success, Redirection, ClientError, ServerError, Other };

// Counts and sums can be added up. Used by one thread at a time.
struct ChainStatistics {
  std::array<std::uint64_t, 5> answers{};  // by StatusClass
  std::uint64_t withoutResponse = 0;       // of these, errors of the transport's own
  std::uint64_t requestBytes = 0;          // payloads of the requests that the transport took
  std::uint64_t responseBytes = 0;
  LatencyHistogram latencies;  // from the hand-over to the answer
  std::chrono::duration<double> duration{0};

  // Everything but the duration, of which the longer one counts.
  void add(const ChainStatistics& other) noexcept;
};

// What an answer says of itself.
struct AnswerStatus {
  long long status = 0;           // 0: it names none
  bool isTransportError = false;  // there was no response

  StatusClass statusClass() const noexcept;
  // A status of 200 to 399.
  bool isSuccess() const noexcept { return status >= 200 && status <= 399; }
};

// Reads what every answer is asked for, its keys hashed once. Any thread may call anything.
class AnswerReader {
 public:
  AnswerReader();

  AnswerStatus statusOf(const connectivity::Message& answer) const;
  // The same for equal ids; a message without an id counts as one whose id is empty.
  std::uint64_t keyOfId(const connectivity::Message& message) const;

 private:
  const std::uint64_t _http;
  const std::uint64_t _statusCode;
  const std::uint64_t _contentType;
  const std::uint64_t _requestId;
};

// The bytes of a payload: of a buffer or a text its length, of a map those of its values.
std::uint64_t payloadBytes(const connectivity::data_t& payload);

}  // namespace host
