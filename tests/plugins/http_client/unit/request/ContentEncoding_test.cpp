// From a payload to the body that is sent: which framing, which coding, which form.
#include "plugins/http_client/request/ContentEncoding.hpp"

#include <optional>
#include <sstream>
#include <string>
#include <string_view>

#include <gtest/gtest.h>

#include "connectivity/value_access.hpp"
#include "tests/plugins/http_client/TransportParts.hpp"
#include "tests/plugins/http_client/unit/request/BodyBytes.hpp"
#include "tests/support/Coders.hpp"

namespace connectivity::plugins {
namespace {

using test_support::gunzip;
using test_support::mapValue;
using test_support::Request;
using test_support::unzlib;

constexpr const char* urlEncoded = "application/x-www-form-urlencoded";

class ContentEncodingTest : public testing::Test {
 protected:
  // The body borrows the request, which is kept here.
  RequestBody bodyOf(const Request& given) {
    req.emplace(parts.read(given));
    return ContentEncoding(*req, parts.log).generateRequest();
  }
  std::string refusal(const Request& given) {
    return refusalOf([&] { bodyOf(given); });
  }

  const TransportParts parts;
  std::optional<request> req;
};

Request post() { return {"POST", "/"}; }
Request coded(const char* coding) { return post().header("Content-Encoding", coding).body("text"); }
Request upload(const char* method) {
  return Request(method, "/").file("upload", "bytes").form("filename", "x.bin");
}

// --- Bytes --------------------------------------------------------------------------------------

TEST_F(ContentEncodingTest, BufferGoesOutAsItIsWithoutACopy) {
  const RequestBody body = bodyOf(post().body("bytes"));
  ASSERT_EQ(body.pieces().size(), 1U);
  EXPECT_EQ(body.pieces()[0].data(), get<buffer_t>(req->payload).view().data());
  EXPECT_EQ(bytesOf(body), "bytes");
  EXPECT_EQ(body.contentType(), "") << "that of the request holds";
}

TEST_F(ContentEncodingTest, EmptyBufferIsFramedButUnderGet) {
  for (const char* method : {"POST", "PUT"}) {
    const RequestBody body = bodyOf(Request(method, "/"));
    EXPECT_TRUE(body.isFramed()) << method;
    EXPECT_EQ(body.size(), 0U);
  }
  EXPECT_FALSE(bodyOf(Request("GET", "/")).isFramed());
  EXPECT_TRUE(bodyOf(Request("GET", "/").body("x")).isFramed());
}

TEST_F(ContentEncodingTest, AnAdditionalMethodHasABodyLikePut) {
  const TransportParts patching(test_support::Config(1).set("additionalMethods", "PATCH"));
  request patch = patching.read(Request("PATCH", "/"));
  EXPECT_TRUE(ContentEncoding(patch, patching.log).generateRequest().isFramed());
}

TEST_F(ContentEncodingTest, MethodsWithoutABodyDropThePayloadAndReportIt) {
  for (const char* method : {"DELETE", "HEAD", "TRACE"}) {
    EXPECT_FALSE(bodyOf(Request(method, "/").body("x")).isFramed());
    EXPECT_TRUE(get<buffer_t>(req->payload).empty());
    EXPECT_TRUE(parts.logged(
        Level::Warn, std::string("Ignoring specified payload for ") + method + " request method"));
  }
  const std::size_t lines = parts.lines.lines().size();
  EXPECT_FALSE(bodyOf(Request("DELETE", "/")).isFramed());
  EXPECT_EQ(parts.lines.lines().size(), lines) << "there was none to drop";
  EXPECT_FALSE(bodyOf(Request("DELETE", "/").form().field("a", "1")).isFramed());
  EXPECT_EQ(parts.lines.lines().size(), lines + 1);
}

// --- Codings ------------------------------------------------------------------------------------

TEST_F(ContentEncodingTest, BodyIsCodedAsItsHeaderSays) {
  EXPECT_EQ(bytesOf(bodyOf(coded("identity"))), "text");
  EXPECT_EQ(gunzip(bytesOf(bodyOf(coded("gzip")))), "text");
  EXPECT_EQ(unzlib(bytesOf(bodyOf(coded("deflate")))), "text");
}

TEST_F(ContentEncodingTest, CodedBodyOfNothingIsAValidOne) {
  const RequestBody body = bodyOf(post().header("Content-Encoding", "gzip"));
  EXPECT_EQ(body.size(), 20U);
  EXPECT_EQ(gunzip(bytesOf(body)), "");
}

TEST_F(ContentEncodingTest, UnsupportedCodingIsRefusedAndReported) {
  for (const char* coding : {"br", "GZIP", "gzip, gzip", ""}) {
    EXPECT_THROW(bodyOf(coded(coding)), UnsupportedRequestCoding) << coding;
  }
  EXPECT_EQ(refusal(coded("br")), "Unsupported Content-Encoding, dropping HTTP request.");
  EXPECT_TRUE(parts.logged(Level::Warn, "Unsupported Content-Encoding, dropping HTTP request."));
}

// --- Forms --------------------------------------------------------------------------------------

TEST_F(ContentEncodingTest, FormOfTextsIsUrlEncoded) {
  const RequestBody body = bodyOf(post().field("a b", "c").form());
  EXPECT_EQ(bytesOf(body), "a%20b=c");
  EXPECT_EQ(body.contentType(), urlEncoded);
}

TEST_F(ContentEncodingTest, FormWithABufferIsMultipartWithItsBoundaryInItsType) {
  const RequestBody body = bodyOf(upload("POST"));
  const std::string start = "multipart/form-data; boundary=";
  ASSERT_TRUE(body.contentType().starts_with(start)) << body.contentType();
  std::string boundary = body.contentType().substr(start.size());
  std::erase(boundary, '"');
  EXPECT_TRUE(bytesOf(body).starts_with("--" + boundary + "\r\n"));
  EXPECT_TRUE(bytesOf(body).ends_with("\r\n--" + boundary + "--\r\n"));
}

TEST_F(ContentEncodingTest, ContentTypeOfTheRequestDecides) {
  const auto typeOf = [&](const char* type) {
    return bodyOf(post().field("a", "1").contentType(type)).contentType();
  };
  EXPECT_TRUE(typeOf("multipart/form-data").starts_with("multipart/form-data; boundary="));
  EXPECT_TRUE(typeOf("Multipart/Form-Data; x=y").starts_with("Multipart/Form-Data; "));
  EXPECT_EQ(typeOf(urlEncoded), "") << "it stays as it was given";
  EXPECT_EQ(bytesOf(bodyOf(post().field("a", "1").contentType(
                "Application/X-WWW-Form-Urlencoded; charset=utf-8"))),
            "a=1");
}

TEST_F(ContentEncodingTest, MapOfAFormTypeIsAFormWithoutMetadata) {
  EXPECT_EQ(bytesOf(bodyOf(post().payload(mapValue({{"a", "1"}})).contentType(urlEncoded))), "a=1");
}

TEST_F(ContentEncodingTest, BoundaryOfTheUserIsReplaced) {
  const RequestBody body =
      bodyOf(post().field("a", "1").contentType("multipart/form-data; boundary=mine; x=y"));
  EXPECT_EQ(body.contentType().find("mine"), std::string::npos);
  EXPECT_NE(body.contentType().find("x=y"), std::string::npos);
  EXPECT_EQ(bytesOf(body).find("--mine"), std::string::npos);
}

TEST_F(ContentEncodingTest, EachRequestHasABoundaryOfItsOwn) {
  EXPECT_NE(bodyOf(upload("POST")).contentType(), bodyOf(upload("POST")).contentType());
}

TEST_F(ContentEncodingTest, BufferOfAFormTypeGoesOutAsItIs) {
  EXPECT_EQ(bytesOf(bodyOf(post().body("a=1").contentType(urlEncoded).form())), "a=1");
}

TEST_F(ContentEncodingTest, UnderGetTheFieldsStandInTheQuery) {
  const RequestBody body = bodyOf(Request("GET", "/").field("a", "b c").form());
  EXPECT_FALSE(body.isFramed());
  EXPECT_EQ(body.query(), "a=b%20c");
}

TEST_F(ContentEncodingTest, BufferWithoutAFileNameIsReported) {
  bodyOf(post().file("a", "1").form());
  EXPECT_TRUE(parts.logged(Level::Warn,
                           "Can't find filename in the form metadata. Data will be send as a "
                           "string not as a binary payload"));
}

TEST_F(ContentEncodingTest, RefusesWhatIsNoForm) {
  const Request noForm = post().payload(mapValue({{"a", "1"}}));
  EXPECT_EQ(refusal(noForm), payloadRefusal);
  EXPECT_EQ(refusal(Request(noForm).contentType("text/plain")), payloadRefusal);
  EXPECT_EQ(refusal(post().field("a", "1").form().contentType("text/plain")),
            "HTTPClient forms cannot be sent as text/plain;charset=utf-8");
  EXPECT_EQ(refusal(post().field("a", "1").form().contentType("caf\u00e9/x")),
            "HTTPClient forms cannot be sent as caf\u00e9/x");
  EXPECT_EQ(refusal(post().field("a", "1").form().header("Content-Encoding", "gzip")),
            "HTTPClient forms cannot be sent with Content-Encoding gzip");
  const char* const file =
      "HTTPClient form field upload is a file, which only the body of a multipart/form-data "
      "request carries";
  EXPECT_EQ(refusal(upload("GET")), file);
  EXPECT_EQ(refusal(upload("POST").contentType(urlEncoded)), file);
}

TEST_F(ContentEncodingTest, IdentityIsNoCodingOfAForm) {
  EXPECT_EQ(bytesOf(bodyOf(post().field("a", "1").form().header("Content-Encoding", "identity"))),
            "a=1");
}

}  // namespace
}  // namespace connectivity::plugins
