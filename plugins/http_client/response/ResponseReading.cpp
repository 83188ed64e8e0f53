#include "plugins/http_client/response/ResponseReading.hpp"

#include <cstddef>
#include <istream>
#include <sstream>
#include <stdexcept>
#include <string_view>

#include "orrery/Exception.hpp"
#include "plugins/http_client/request/Request.hpp"
#include "plugins/http_client/response/Inflating.hpp"
#include "plugins/http_client/text/HeaderRules.hpp"
#include "plugins/http_client/text/MediaTypes.hpp"
#include "plugins/http_client/wire/ResponseBody.hpp"
#include "plugins/http_client/worker/ClientSessionThread.hpp"

namespace connectivity::plugins {

namespace {

// What may be left of a message behind its decoded body: a last chunk, trailers, a stray byte.
constexpr std::size_t leftoverBytes = 4096;
// A buffer that has grown beyond this is given back before the next response.
constexpr std::size_t keptBufferBytes = 8U << 20U;

[[noreturn]] void throwIncomplete() {
  throw orrery::StreamException("Error processing response stream: I/O error");
}

void throwIfCutShort(const ResponseBody& body) {
  if (body.cutShort()) throwIncomplete();
}

bool isCoded(SupportedMediaType coding) noexcept {
  return coding == SupportedMediaType::gzip || coding == SupportedMediaType::deflate;
}

bool hasNoByte(ResponseBody& body) {
  return body.announcedEmpty() || (body.good() && body.peek() == std::istream::traits_type::eof());
}

// One response's limits, and where its bytes go.
struct Limits {
  std::vector<char>& buffer;
  std::string charset;
  const long long& maxResponseKB;
  const std::string& policy;

  unsigned int read(std::istream& body) const {
    return readResponseContent(body, buffer, charset, maxResponseKB, policy);
  }
};

unsigned int readPlain(ResponseBody& body, const Limits& limits) {
  const unsigned int count = limits.read(body);
  throwIfCutShort(body);
  return count;
}

unsigned int decode(ResponseBody& body, SupportedMediaType coding, const Limits& limits) {
  InflatingBuffer decoder(*body.rdbuf(), coding);
  std::istream content(&decoder);
  const unsigned int count = limits.read(content);
  if (decoder.brokeOff()) throwIncomplete();
  return count;
}

unsigned int readDecoded(ResponseBody& body, SupportedMediaType coding, const Limits& limits) {
  unsigned int count = 0;
  try {
    count = decode(body, coding, limits);
  } catch (const ResponseLimitExceeded&) {
    body.drain(leftoverBytes);
    throw;
  }
  body.drain(leftoverBytes);
  throwIfCutShort(body);
  return count;
}

unsigned int readUnsupported(const std::string& coding, const Limits& limits,
                             const ReportLine& report) {
  const std::string text = "Unsupported Media Type: " + coding;
  report(text);
  std::stringstream instead(text);
  return limits.read(instead);
}

}  // namespace

std::string trimmingCharset(const Poco::Net::HTTPResponse& response) {
  const auto found = response.find("Content-Type");
  if (found == response.end()) return "utf-8";
  constexpr std::string_view name = "charset=";
  const std::string contentType = lowerCased(found->second);
  // A miss is deliberately not tested for: npos wraps around to a start at the eighth character,
  // whose rest is hardly ever "utf-8": all that it does is to switch the trimming off.
  const std::size_t start = contentType.rfind(name) + name.size();
  if (start > contentType.size()) throw std::out_of_range("basic_string::substr");
  return contentType.substr(start);
}

unsigned int readResponse(const Poco::Net::HTTPResponse& response, ResponseBody& body,
                          std::vector<char>& buffer, const long long& maxResponseKB,
                          const std::string& policy, const ReportLine& report) {
  if (buffer.capacity() > keptBufferBytes) std::vector<char>().swap(buffer);
  const std::string coding = response.get("Content-Encoding", noContentEncoding);
  const SupportedMediaType type = mediaTypeOf(coding);
  const Limits limits{buffer, trimmingCharset(response), maxResponseKB, policy};
  if (type == SupportedMediaType::unsupported) return readUnsupported(coding, limits, report);
  if (!isCoded(type) || hasNoByte(body)) return readPlain(body, limits);
  return readDecoded(body, type, limits);
}

unsigned int HTTPClient::ClientSessionThread::processResponse(Poco::Net::HTTPResponse& response,
                                                              ResponseBody& body,
                                                              std::vector<char>& buffer,
                                                              request& req) {
  return readResponse(
      response, body, buffer, req.maxResponseKB, req.maxResponsePolicy,
      [this](const std::string& text) { transportLog(Level::Warn, "%s", text.c_str()); });
}

}  // namespace connectivity::plugins
