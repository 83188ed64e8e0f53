// What the options of orrery-host request become: a configuration and a message.
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "connectivity/value_access.hpp"
#include "host/messages/JsonWriter.hpp"
#include "host/program/UsageError.hpp"
#include "host/request/RequestFields.hpp"
#include "host/request/RequestMessage.hpp"
#include "tests/support/TemporaryDirectory.hpp"

namespace host {
namespace {

using connectivity::buffer_t;
using connectivity::data_t;
using testing::StartsWith;

RequestOptions optionsFor(const std::string& method = "POST",
                          const std::string& url = "http://h/p") {
  RequestOptions options;
  options.method = method;
  options.url = url;
  return options;
}

std::string configOf(const RequestOptions& options) {
  SingleRequest request = makeSingleRequest(options);
  return toJson(data_t(std::move(request.config)));
}

std::string metadataOf(const RequestOptions& options) {
  SingleRequest request = makeSingleRequest(options);
  return toJson(data_t(std::move(request.message.metadata)));
}

std::string bodyOf(const RequestOptions& options) {
  const SingleRequest request = makeSingleRequest(options);
  return std::string(connectivity::get<buffer_t>(request.message.payload).view());
}

std::string errorOf(const RequestOptions& options) {
  try {
    makeSingleRequest(options);
    return {};
  } catch (const UsageError& error) {
    return error.what();
  }
}

std::string httpPart(const std::string& rest) {
  return R"({"http":{)" + rest + R"(,"method":"POST","path":"/p"},"requestId":1})";
}

TEST(RequestConfig, ComesFromTheUrl) {
  EXPECT_EQ(configOf(optionsFor("GET", "http://h:81/x")), R"({"host":"h","port":81,"tls":false})");
  EXPECT_EQ(configOf(optionsFor("GET", "https://u:p@h")),
            R"({"authentication":{"authenticationType":"HTTP_BASIC","password":"p",)"
            R"("username":"u"},"host":"h","tls":true})");
}

TEST(RequestConfig, UserOfTheOptionWinsOverTheUrls) {
  RequestOptions options = optionsFor("GET", "http://u:p@h");
  options.user = "me:secret";
  EXPECT_EQ(configOf(options),
            R"({"authentication":{"authenticationType":"HTTP_BASIC","password":"secret",)"
            R"("username":"me"},"host":"h","tls":false})");
}

TEST(RequestConfig, HoldsProxyAndTlsOptions) {
  RequestOptions options = optionsFor("GET", "https://h");
  options.proxy = "a:b@p:3128";
  options.insecure = true;
  options.caFile = "ca.pem";
  EXPECT_EQ(configOf(options),
            R"({"host":"h","proxy":{"authentication":{"authenticationType":"HTTP_BASIC",)"
            R"("password":"b","username":"a"},"host":"p","port":3128},"tls":true,)"
            R"("tlsAcceptUnrecognizedCertificates":true,"tlsCertificateAuthorityFile":"ca.pem"})");
}

TEST(RequestConfig, SettingsWinAndReachNestedMaps) {
  RequestOptions options = optionsFor("GET", "http://h:1");
  options.settings = {"port=2", "proxy/host=a=b", "proxy/authentication/username=u", "basePath="};
  EXPECT_EQ(configOf(options),
            R"({"basePath":"","host":"h","port":"2","proxy":{"authentication":{"username":"u"},)"
            R"("host":"a=b"},"tls":false})");
}

TEST(RequestConfig, NamesASettingThatIsWrong) {
  RequestOptions options = optionsFor();
  options.settings = {"port"};
  EXPECT_EQ(errorOf(options), "--set port: must be KEY=VALUE");
  options.settings = {"=1"};
  EXPECT_EQ(errorOf(options), "--set : must be KEY=VALUE");
  options.settings = {"proxy//x=1"};
  EXPECT_EQ(errorOf(options), "--set proxy//x: a key is empty");
  options.settings = {"host/x=1"};
  EXPECT_EQ(errorOf(options), "--set host/x: host has a value of its own");
}

TEST(RequestMessage, HasMethodPathAndNoBodyByItself) {
  EXPECT_EQ(metadataOf(optionsFor()), httpPart(R"("headers":{})"));
  EXPECT_TRUE(makeSingleRequest(optionsFor()).message.payload.empty());
}

TEST(RequestMessage, NamesAMethodThatIsWrong) {
  EXPECT_EQ(errorOf(optionsFor("PATCH")),
            "METHOD PATCH: must be GET, PUT, POST, DELETE, HEAD or TRACE");
  EXPECT_EQ(errorOf(optionsFor("post")),
            "METHOD post: must be GET, PUT, POST, DELETE, HEAD or TRACE (did you mean \"POST\"?)");
}

TEST(RequestMessage, JoinsAHeaderThatIsGivenTwice) {
  RequestOptions options = optionsFor();
  options.headers = {"X-A: 1", "x-a:2", "Cookie: a=b", "cookie: c=d", "X-Empty;"};
  EXPECT_EQ(metadataOf(options),
            httpPart(R"("headers":{"Cookie":"a=b; c=d","X-A":"1, 2","X-Empty":""})"));
}

TEST(RequestMessage, NamesAHeaderThatIsWrong) {
  RequestOptions options = optionsFor();
  const std::string rest = ": must be \"Name: value\", or \"Name;\" for an empty value";
  for (const char* text : {"X-A", "X-A:", "X-A; x", "X-A secret"}) {
    options.headers = {text};
    EXPECT_EQ(errorOf(options), "-H X-A" + rest);
  }
  for (const char* text : {": x", ""}) {
    options.headers = {text};
    EXPECT_EQ(errorOf(options), "-H " + rest);
  }
}

TEST(RequestMessage, JoinsDataAndNamesTheTypeOfAForm) {
  RequestOptions options = optionsFor();
  options.data = {{"a=1"}, {"b=2", true}, {""}};
  EXPECT_EQ(bodyOf(options), "a=1&b=2&");
  EXPECT_EQ(metadataOf(options),
            httpPart(R"("contentType":"application/x-www-form-urlencoded","headers":{})"));
}

TEST(RequestMessage, AHeaderNamesAnotherTypeOfTheData) {
  RequestOptions options = optionsFor();
  options.data = {{"{}"}};
  options.headers = {"content-type: application/json"};
  EXPECT_EQ(metadataOf(options), httpPart(R"("headers":{"content-type":"application/json"})"));
}

TEST(RequestMessage, DataOfAFileLosesItsLineEndsUnlessItIsBinary) {
  const test_support::TemporaryDirectory directory;
  const std::string content("a\r\nb\0c\n", 7);
  const std::string path = directory.write("data", content);
  RequestOptions options = optionsFor();
  options.data = {{"@" + path}};
  EXPECT_EQ(bodyOf(options), "abc");
  options.data = {{"@" + path, true}};
  EXPECT_EQ(bodyOf(options), content);
}

TEST(RequestMessage, NamesAFileThatCannotBeRead) {
  const test_support::TemporaryDirectory directory;
  RequestOptions options = optionsFor();
  options.data = {{"@/no/such/file"}};
  EXPECT_EQ(errorOf(options), "-d: cannot read /no/such/file: No such file or directory");
  options.data = {{"@" + directory.path().string(), true}};
  EXPECT_EQ(errorOf(options),
            "--data-binary: cannot read " + directory.path().string() + ": it is a directory");
  options.data.clear();
  options.fields = {"f=@/no/such/file"};
  EXPECT_EQ(errorOf(options), "-F f: cannot read /no/such/file: No such file or directory");
}

TEST(RequestMessage, FieldsMakeAMultipartForm) {
  const test_support::TemporaryDirectory directory;
  const std::string path = directory.write("a.txt", "bytes");
  RequestOptions options = optionsFor();
  options.fields = {"name=Ada", "up=@" + path, "typed=x;type=a/b;filename=n"};
  EXPECT_EQ(metadataOf(options),
            httpPart(R"("contentType":"multipart/form-data","form":{)"
                     R"("typed":{"contentType":"a/b","filename":"n"},)"
                     R"("up":{"contentType":"text/plain","filename":"a.txt"}},"headers":{})"));
  EXPECT_EQ(toJson(makeSingleRequest(options).message.payload),
            R"({"name":"Ada","typed":{"$binary":{"base64":"eA==","subType":"00"}},)"
            R"("up":{"$binary":{"base64":"Ynl0ZXM=","subType":"00"}}})");
}

TEST(RequestMessage, RefusesAFieldTwiceAndDataBesideAForm) {
  RequestOptions options = optionsFor();
  options.fields = {"a=1", "a=2"};
  EXPECT_EQ(errorOf(options), "-F a: a form has one field of each name");
  options.fields = {"a=1"};
  options.data = {{"x"}};
  EXPECT_EQ(errorOf(options), "-F: a form has no -d or --data-binary beside it");
}

TEST(FormField, KeepsSemicolonsThatBeginNoParameter) {
  EXPECT_EQ(readFormField("a=x;y;").content, "x;y");
  EXPECT_EQ(readFormField("a=x;y=1").content, "x;y=1");
  EXPECT_EQ(readFormField("a=\"x;type=y\"").content, "x;type=y");
  EXPECT_EQ(readFormField("a=\"x").content, "\"x");
  EXPECT_EQ(readFormField("a=").content, "");
}

TEST(FormField, TakesQuotesOff) {
  const FormField field = readFormField(R"(a="q\"\\;";filename="f;\"n")");
  EXPECT_EQ(field.content, R"(q"\;)");
  EXPECT_EQ(field.fileName, "f;\"n");
}

TEST(FormField, ReadsAFileAsAValue) {
  const test_support::TemporaryDirectory directory;
  const FormField field = readFormField("a=<" + directory.write("f", "x\ny\n"));
  EXPECT_EQ(field.content, "x\ny\n");
  EXPECT_FALSE(field.isUpload);
}

TEST(FormField, NamesWhatIsWrong) {
  RequestOptions options = optionsFor();
  options.fields = {"abc"};
  EXPECT_EQ(errorOf(options), "-F abc: must be NAME=VALUE or NAME=@FILE");
  options.fields = {"a=b;type=c/d"};
  EXPECT_EQ(errorOf(options), "-F a: only a part with ;filename= has a ;type=");
  options.fields = {"a=b;type=c/d;colour=red"};
  EXPECT_THAT(errorOf(options), StartsWith("-F a: unknown parameter colour"));
}

}  // namespace
}  // namespace host
