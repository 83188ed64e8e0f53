#include "host/chain/ChainStatistics.hpp"

#include <algorithm>
#include <cstring>

#include "connectivity/value_access.hpp"

namespace host {

using connectivity::data_t;
using connectivity::map_t;
using connectivity::Message;

void ChainStatistics::add(const ChainStatistics& other) noexcept {
  for (std::size_t i = 0; i < answers.size(); ++i) answers[i] += other.answers[i];
  withoutResponse += other.withoutResponse;
  requestBytes += other.requestBytes;
  responseBytes += other.responseBytes;
  latencies.add(other.latencies);
  duration = std::max(duration, other.duration);
}

StatusClass AnswerStatus::statusClass() const noexcept {
  if (status < 200 || status > 599) return StatusClass::Other;
  return static_cast<StatusClass>(status / 100 - 2);
}

AnswerReader::AnswerReader()
    : _http(qor_hash_string("http")),
      _statusCode(qor_hash_string("statusCode")),
      _contentType(qor_hash_string("contentType")),
      _requestId(qor_hash_string("requestId")) {}

AnswerStatus AnswerReader::statusOf(const Message& answer) const {
  const data_t* value = answer.metadata.findText("http", _http);
  if (value == nullptr || value->tag() != QOR_MAP) return {};
  const auto& http = connectivity::get<map_t>(*value);
  const data_t* status = http.findText("statusCode", _statusCode);
  if (status == nullptr || status->tag() != QOR_INT64) return {};
  const long long code = connectivity::get<long long>(*status);
  // A response has its content type at the top level; the transport's own errors have not.
  return {code, code >= 400 && answer.metadata.findText("contentType", _contentType) == nullptr};
}

std::uint64_t AnswerReader::keyOfId(const Message& message) const {
  const data_t* id = message.metadata.findText("requestId", _requestId);
  return id == nullptr ? connectivity::hashes::hashSeed : connectivity::hashes::hash(*id);
}

std::uint64_t payloadBytes(const data_t& payload) {
  if (payload.tag() == QOR_BUFFER) {
    return connectivity::get<connectivity::buffer_t>(payload).view().size();
  }
  if (payload.isString()) return std::strlen(payload.text());
  if (payload.tag() != QOR_MAP) return 0;
  const auto& fields = connectivity::get<map_t>(payload);
  std::uint64_t bytes = 0;
  for (auto field = fields.begin(); !field.atEnd(); ++field) bytes += payloadBytes(field.value());
  return bytes;
}

}  // namespace host
