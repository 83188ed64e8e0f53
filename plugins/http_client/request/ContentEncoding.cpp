#include "plugins/http_client/request/ContentEncoding.hpp"

#include <algorithm>
#include <array>
#include <optional>
#include <string>
#include <string_view>

#include <Poco/MemoryStream.h>
#include <Poco/Net/HTMLForm.h>
#include <Poco/Net/MediaType.h>
#include <Poco/Net/MultipartWriter.h>

#include "connectivity/value_access.hpp"
#include "plugins/http_client/request/Compression.hpp"
#include "plugins/http_client/request/Refusal.hpp"
#include "plugins/http_client/text/Ascii.hpp"
#include "plugins/http_client/text/CharacterSets.hpp"

namespace connectivity::plugins {

namespace {

using namespace std::string_view_literals;
using Poco::Net::HTMLForm;

constexpr std::array methodsWithoutBody{"DELETE"sv, "HEAD"sv, "TRACE"sv};

std::optional<std::string> header(const request::Texts& headers, const char* name) {
  const auto found = headers.find(name);
  return found == headers.end() ? std::nullopt : std::optional(found->second);
}

// "Multipart/Form-Data; boundary=x" -> "multipart/form-data"
std::string mediaTypeOnly(const std::string& contentType) {
  return lowerCased(trimmed(std::string_view(contentType).substr(0, contentType.find(';'))));
}

bool isUncoded(SupportedMediaType coding) noexcept {
  return coding == SupportedMediaType::empty || coding == SupportedMediaType::identity;
}

bool holdsBuffer(const map_t& payload) {
  bool found = false;
  for (const auto entry : payload) found = found || entry.second.tag() == QOR_BUFFER;
  return found;
}

// Which of the two form encodings the payload goes out in.
std::string formEncoding(const map_t& payload, const data_t& metadata,
                         const request::Texts& headers) {
  const bool hasMetadata = metadata.tag() == QOR_MAP;
  const auto contentType = header(headers, "content-type");
  if (!contentType) {
    if (!hasMetadata) throw RefusedRequest(payloadRefusal);
    return holdsBuffer(payload) ? HTMLForm::ENCODING_MULTIPART : HTMLForm::ENCODING_URL;
  }
  std::string type = mediaTypeOnly(*contentType);
  if (type == HTMLForm::ENCODING_MULTIPART || type == HTMLForm::ENCODING_URL) return type;
  if (!hasMetadata) throw RefusedRequest(payloadRefusal);
  throw RefusedRequest("HTTPClient forms cannot be sent as " + convertFromISO88591(*contentType));
}

bool isEmpty(const data_t& payload) {
  return payload.tag() == QOR_MAP ? get<map_t>(payload).empty() : get<buffer_t>(payload).empty();
}

}  // namespace

RequestBody ContentEncoding::generateRequest() {
  const std::string codingName =
      header(_request.headers, "content-encoding").value_or(noContentEncoding);
  const SupportedMediaType coding = mediaTypeOf(codingName);
  if (coding == SupportedMediaType::unsupported) {
    _log.transportLog(Level::Warn, "%s", UnsupportedRequestCoding().what());
    throw UnsupportedRequestCoding();
  }
  const std::string& method = _request.hop.method;
  if (std::find(methodsWithoutBody.begin(), methodsWithoutBody.end(), method) !=
      methodsWithoutBody.end()) {
    if (!isEmpty(_request.payload)) {
      _log.transportLog(Level::Warn, "Ignoring specified payload for %s request method",
                        method.c_str());
      _request.payload = data_t(buffer_t());
    }
    return RequestBody::none();
  }
  if (_request.payload.tag() == QOR_BUFFER) return requestEncoding(coding);
  if (!isUncoded(coding)) {
    throw RefusedRequest("HTTPClient forms cannot be sent with Content-Encoding " + codingName);
  }
  return htmlFormEncoding();
}

RequestBody ContentEncoding::requestEncoding(SupportedMediaType coding) const {
  const std::string_view bytes = get<buffer_t>(_request.payload).view();
  if (bytes.empty() && _request.hop.method == "GET") return RequestBody::none();
  if (isUncoded(coding)) return RequestBody::ofBytes(bytes);
  Poco::MemoryInputStream input(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  return RequestBody::ofBuffer(getCompressedPayload(input, coding));
}

RequestBody ContentEncoding::htmlFormEncoding() const {
  const auto& payload = get<map_t>(_request.payload);
  const std::string encoding = formEncoding(payload, _request.form, _request.headers);
  const std::vector<FormField> fields = readFormFields(
      payload, _request.form,
      [this](const std::string& text) { _log.transportLog(Level::Warn, "%s", text.c_str()); });
  if (_request.hop.method == "GET") return RequestBody::none(urlEncodedForm(fields));
  if (encoding == HTMLForm::ENCODING_MULTIPART) return multipart(fields);
  const bool typeGiven = _request.headers.contains("content-type");
  return RequestBody::ofText(urlEncodedForm(fields), typeGiven ? std::string() : encoding);
}

RequestBody ContentEncoding::multipart(const std::vector<FormField>& fields) const {
  const std::string boundary = Poco::Net::MultipartWriter::createBoundary();
  Poco::Net::MediaType type(
      header(_request.headers, "content-type").value_or(HTMLForm::ENCODING_MULTIPART));
  type.setParameter("boundary", boundary);
  RequestBody body = multipartForm(fields, boundary);
  body.setContentType(type.toString());
  return body;
}

}  // namespace connectivity::plugins
