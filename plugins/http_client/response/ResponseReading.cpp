#include "plugins/http_client/response/ResponseReading.hpp"

#include <sstream>
#include <string>
#include <string_view>

#include "orrery/Exception.hpp"
#include "plugins/http_client/response/Inflating.hpp"
#include "plugins/http_client/text/CharacterSets.hpp"
#include "plugins/http_client/text/ContentType.hpp"
#include "plugins/http_client/text/MediaTypes.hpp"

namespace connectivity::plugins {

namespace {

// So much may lie between a coded content's end and the message's.
constexpr std::streamsize behindContent = 4096;

[[noreturn]] void throwIncomplete() {
  throw orrery::StreamException("Error processing response stream: I/O error");
}

bool isCoded(SupportedMediaType coding) noexcept {
  return coding == SupportedMediaType::gzip || coding == SupportedMediaType::deflate;
}

bool hasNoByte(ResponseBody& body) {
  return body.announcedEmpty() || (body.good() && body.peek() == std::istream::traits_type::eof());
}

// One response's content, on its way into the buffer.
struct Content {
  std::vector<char>& buffer;
  const std::string charset;
  const ResponseLimit& limit;

  unsigned int read(std::istream& stream) const {
    return readResponseContent(stream, buffer, charset, limit.maxResponseKB,
                               limit.maxResponsePolicy);
  }
};

unsigned int readPlain(ResponseBody& body, const Content& content) {
  const unsigned int count = content.read(body);
  if (body.cutShort()) throwIncomplete();
  return count;
}

unsigned int readDecoded(ResponseBody& body, SupportedMediaType coding, const Content& content) {
  InflatingBuffer decoder(*body.rdbuf(), coding);
  std::istream decoded(&decoder);
  const unsigned int count = content.read(decoded);
  // A content that was read to its end is whole only if its message is.
  if (decoded.eof()) body.ignore(behindContent);
  if (body.bad()) {
    throw orrery::StreamException("Error processing response stream: Serious I/O error");
  }
  if (decoder.brokeOff() || body.cutShort()) throwIncomplete();
  return count;
}

unsigned int readUnsupported(std::string_view coding, const Content& content,
                             const ReportLine& report) {
  const std::string text = "Unsupported Media Type: " + shownFromWire(coding);
  report(text);
  std::stringstream instead(text);
  return content.read(instead);
}

}  // namespace

ReadBody processResponse(const ResponseHead& response, ResponseBody& body,
                         std::vector<char>& buffer, const ResponseLimit& limit,
                         const ReportLine& report) {
  const std::string_view coding = response.find("Content-Encoding").value_or(noContentEncoding);
  const SupportedMediaType type = mediaTypeOf(std::string(coding));
  const Content content{buffer, trimmingCharset(response.find("Content-Type")), limit};
  if (type == SupportedMediaType::unsupported) {
    return {readUnsupported(coding, content, report), true};
  }
  if (!isCoded(type) || hasNoByte(body)) return {readPlain(body, content), false};
  return {readDecoded(body, type, content), false};
}

}  // namespace connectivity::plugins
