#include "plugins/http_client/request/ContentEncoding.hpp"

#include <algorithm>
#include <limits>
#include <map>
#include <optional>

#include <Poco/MemoryStream.h>
#include <Poco/Net/HTMLForm.h>
#include <Poco/Net/MediaType.h>
#include <Poco/Net/MultipartWriter.h>

#include "connectivity/value_access.hpp"
#include "plugins/http_client/request/Compression.hpp"
#include "plugins/http_client/request/Refusal.hpp"
#include "plugins/http_client/request/Request.hpp"
#include "plugins/http_client/text/CharacterSets.hpp"
#include "plugins/http_client/text/HeaderRules.hpp"

namespace connectivity::plugins {

namespace {

using Poco::Net::HTMLForm;
using Texts = std::map<std::string, std::string>;

constexpr const char* unsupportedCoding = "Unsupported Content-Encoding, dropping HTTP request.";

std::optional<std::string> header(const Texts& headers, const char* name) {
  const auto found = headers.find(name);
  return found == headers.end() ? std::nullopt : std::optional(found->second);
}

// "Multipart/Form-Data; boundary=x" is "multipart/form-data".
std::string withoutParameters(const std::string& contentType) {
  const std::string type = lowerCased(contentType.substr(0, contentType.find(';')));
  return type.substr(0, type.find_last_not_of(" \t") + 1);
}

bool isPlain(SupportedMediaType coding) noexcept {
  return coding == SupportedMediaType::empty || coding == SupportedMediaType::identity;
}

bool holdsBuffer(const map_t& payload) {
  bool found = false;
  for (const auto entry : payload) found = found || entry.second.tag() == QOR_BUFFER;
  return found;
}

// Which of the two form encodings the payload goes out in.
std::string formEncoding(const map_t& payload, const data_t& metadata, const Texts& headers) {
  const bool hasMetadata = metadata.tag() == QOR_MAP;
  const auto contentType = header(headers, "content-type");
  if (!contentType) {
    if (!hasMetadata) throw RefusedRequest(payloadRefusal);
    return holdsBuffer(payload) ? HTMLForm::ENCODING_MULTIPART : HTMLForm::ENCODING_URL;
  }
  std::string type = withoutParameters(*contentType);
  if (type == HTMLForm::ENCODING_MULTIPART || type == HTMLForm::ENCODING_URL) return type;
  if (!hasMetadata) throw RefusedRequest(payloadRefusal);
  throw RefusedRequest("HTTPClient forms cannot be sent as " + convertFromISO88591(*contentType));
}

bool isGiven(const data_t& payload) {
  return payload.tag() == QOR_MAP ? !get<map_t>(payload).empty() : !get<buffer_t>(payload).empty();
}

}  // namespace

void HTTPClient::ClientSessionThread::ContentEncoding::generateRequest(
    request& req, Poco::Net::HTTPRequest& httpRequest) {
  const std::string codingName =
      header(req.headers, "content-encoding").value_or(noContentEncoding);
  const SupportedMediaType coding = mediaTypeOf(codingName);
  if (coding == SupportedMediaType::unsupported) {
    _owner.transportLog(Level::Warn, unsupportedCoding);
    _owner.resetSession();
    throw RefusedRequest(unsupportedCoding);
  }
  if (_owner.methodsWithoutBody.contains(req.methodText())) {
    if (isGiven(req.payload)) {
      _owner.transportLog(Level::Warn, "Ignoring specified payload for %s request method",
                          req.methodText().c_str());
      req.payload = data_t(buffer_t());
    }
    sendWithoutBody(req, httpRequest);
  } else if (req.payload.tag() == QOR_BUFFER) {
    requestEncoding(req, httpRequest, coding);
  } else if (isPlain(coding)) {
    htmlFormEncoding(req, httpRequest);
  } else {
    throw RefusedRequest("HTTPClient forms cannot be sent with Content-Encoding " + codingName);
  }
}

void HTTPClient::ClientSessionThread::ContentEncoding::requestEncoding(
    request& req, Poco::Net::HTTPRequest& httpRequest, SupportedMediaType coding) {
  const std::string_view bytes = get<buffer_t>(req.payload).view();
  if (bytes.empty() && req.methodText() == "GET") {
    sendWithoutBody(req, httpRequest);
  } else if (isPlain(coding)) {
    sendBytes(req, httpRequest, bytes);
  } else {
    Poco::MemoryInputStream input(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    const data_t compressed = getCompressedPayload(input, coding);
    sendBytes(req, httpRequest, get<buffer_t>(compressed).view());
  }
}

void HTTPClient::ClientSessionThread::ContentEncoding::htmlFormEncoding(
    request& req, Poco::Net::HTTPRequest& httpRequest) {
  const auto& payload = get<map_t>(req.payload);
  const std::string encoding = formEncoding(payload, req.form, req.headers);
  const auto report = [&](const std::string& text) {
    if (!req.formReported) _owner.transportLog(Level::Warn, "%s", text.c_str());
  };
  const std::vector<FormField> fields = readFormFields(payload, req.form, report);
  req.formReported = true;
  if (req.methodText() == "GET") {
    sendFormInQuery(req, httpRequest, fields);
  } else if (encoding == HTMLForm::ENCODING_MULTIPART) {
    sendMultipart(req, httpRequest, fields);
  } else {
    const std::string body = urlEncodedForm(fields);
    if (!req.headers.contains("content-type")) httpRequest.setContentType(encoding);
    sendBytes(req, httpRequest, body);
  }
}

void HTTPClient::ClientSessionThread::ContentEncoding::sendFormInQuery(
    request& req, Poco::Net::HTTPRequest& httpRequest, const std::vector<FormField>& fields) {
  const std::string query = urlEncodedForm(fields);
  // The target of a redirect stands for itself.
  if (!query.empty() && req.redirectsTaken == 0) {
    const std::string& target = httpRequest.getURI();
    const char* separator = target.find('?') == std::string::npos ? "?" : "&";
    httpRequest.setURI(target + separator + query);
  }
  sendWithoutBody(req, httpRequest);
}

void HTTPClient::ClientSessionThread::ContentEncoding::sendMultipart(
    request& req, Poco::Net::HTTPRequest& httpRequest, const std::vector<FormField>& fields) {
  const std::string boundary = Poco::Net::MultipartWriter::createBoundary();
  Poco::Net::MediaType type(
      header(req.headers, "content-type").value_or(HTMLForm::ENCODING_MULTIPART));
  type.setParameter("boundary", boundary);
  httpRequest.setContentType(type);
  const MultipartForm form(fields, boundary);
  form.write(sendHeader(req, httpRequest, form.contentLength()));
}

void HTTPClient::ClientSessionThread::ContentEncoding::sendBytes(
    request& req, Poco::Net::HTTPRequest& httpRequest, std::string_view bytes) {
  sendHeader(req, httpRequest, bytes.size())
      .write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

std::ostream& HTTPClient::ClientSessionThread::ContentEncoding::sendHeader(
    request& req, Poco::Net::HTTPRequest& httpRequest, std::uint64_t size) {
  httpRequest.setContentLength64(static_cast<Poco::Int64>(size));
  constexpr std::uint64_t most = std::numeric_limits<unsigned int>::max();
  _owner.createRequest(httpRequest, req, static_cast<unsigned int>(std::min(size, most)));
  return _owner.session->sendRequest(httpRequest);
}

void HTTPClient::ClientSessionThread::ContentEncoding::sendWithoutBody(
    request& req, Poco::Net::HTTPRequest& httpRequest) {
  _owner.createRequest(httpRequest, req, 0);
  _owner.session->sendRequest(httpRequest);
}

}  // namespace connectivity::plugins
