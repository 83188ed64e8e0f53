#include "plugins/http_client/request/FormBody.hpp"

#include <algorithm>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "connectivity/data_t.hpp"
#include "plugins/http_client/request/Refusal.hpp"
#include "tests/plugins/http_client/unit/request/BodyBytes.hpp"
#include "tests/support/Messages.hpp"

namespace connectivity::plugins {
namespace {

using test_support::bufferValue;
using test_support::Keys;
using test_support::put;
using test_support::textValue;

constexpr const char* noFileName =
    "Can't find filename in the form metadata. Data will be send as a string not as a binary "
    "payload";

// A form, as a request holds it.
class Form {
 public:
  Form& text(const std::string& name, const std::string& value) {
    return add(name, textValue(value));
  }
  Form& buffer(const std::string& name, const std::string& bytes) {
    return add(name, bufferValue(bytes));
  }
  Form& add(const std::string& name, data_t&& value) {
    put(_fields, {name}, std::move(value));
    return *this;
  }
  Form& key(data_t&& key, data_t&& value) {
    _fields.insert(std::move(key), std::move(value));
    return *this;
  }
  Form& setting(const Keys& keys, const std::string& value) {
    return setting(keys, textValue(value));
  }
  Form& setting(const Keys& keys, data_t&& value) {
    put(_metadata, keys, std::move(value));
    return *this;
  }
  Form& metadata(data_t&& value) {
    _whole = std::move(value);
    return *this;
  }

  // What it is read as. The views hold as long as the form.
  const std::vector<FormField>& read() {
    if (_whole.empty()) _whole = data_t(_metadata.copy());
    _read = readFormFields(_fields, _whole,
                           [this](const std::string& line) { _lines.push_back(line); });
    return _read;
  }
  const FormField& only() { return read().at(0); }
  std::string refusal() {
    try {
      read();
    } catch (const RefusedRequest& refused) {
      return refused.what();
    }
    return "not refused";
  }
  std::string multipart() {
    const RequestBody body = multipartForm(read(), "BOUNDARY");
    EXPECT_TRUE(body.isFramed());
    const std::string text = bytesOf(body);
    EXPECT_EQ(body.size(), text.size());
    return text;
  }
  std::string urlEncoded() { return urlEncodedForm(read()); }
  const std::vector<std::string>& lines() const { return _lines; }

 private:
  map_t _fields;
  map_t _metadata;
  data_t _whole;
  std::vector<FormField> _read;
  std::vector<std::string> _lines;
};

// --- reading ------------------------------------------------------------------------------------

TEST(FormFields, StringIsAField) {
  Form form;
  form.text("name", "value");
  EXPECT_EQ(form.only().name, "name");
  EXPECT_EQ(form.only().value, "value");
  EXPECT_FALSE(form.only().isFile);
  EXPECT_TRUE(form.lines().empty());
}

TEST(FormFields, BufferWithAFileNameIsAFile) {
  Form form;
  form.buffer("upload", std::string("a\0b", 3)).setting({"filename"}, "x.bin");
  EXPECT_TRUE(form.only().isFile);
  EXPECT_EQ(form.only().value, std::string("a\0b", 3));
  EXPECT_EQ(form.only().fileName, "x.bin");
  EXPECT_EQ(form.only().contentType, "application/octet-stream");
}

TEST(FormFields, BufferWithoutAFileNameIsReportedAndBecomesAField) {
  Form form;
  form.buffer("upload", "bytes");
  EXPECT_FALSE(form.only().isFile);
  EXPECT_EQ(form.only().value, "bytes");
  EXPECT_EQ(form.lines().at(0), noFileName);
}

TEST(FormFields, SettingsStandForAllFiles) {
  Form form;
  form.buffer("a", "1").buffer("b", "2");
  form.setting({"filename"}, "x")
      .setting({"contentType"}, "text/csv")
      .setting({"charset"}, "utf-8");
  for (const FormField& field : form.read()) {
    EXPECT_EQ(field.fileName, "x");
    EXPECT_EQ(field.contentType, "text/csv; charset=utf-8");
  }
}

TEST(FormFields, SettingsUnderAFieldsNameWin) {
  Form form;
  form.buffer("a", "1").buffer("b", "2");
  form.setting({"filename"}, "common").setting({"contentType"}, "text/csv");
  form.setting({"a", "filename"}, "own").setting({"a", "charset"}, "utf-16");
  for (const FormField& field : form.read()) {
    EXPECT_EQ(field.fileName, field.name == "a" ? "own" : "common");
    EXPECT_EQ(field.contentType, field.name == "a" ? "text/csv; charset=utf-16" : "text/csv");
  }
}

TEST(FormFields, FieldMayHaveTheNameOfASetting) {
  Form form;
  form.buffer("filename", "1").setting({"filename", "filename"}, "own");
  EXPECT_EQ(form.only().fileName, "own");
  Form common;
  common.buffer("filename", "1").setting({"filename"}, "common");
  EXPECT_EQ(common.only().fileName, "common");
}

TEST(FormFields, EmptySettingCountsAsMissing) {
  Form form;
  form.buffer("a", "1").setting({"filename"}, data_t());
  EXPECT_FALSE(form.only().isFile);
}

TEST(FormFields, ValueOfAnotherKindIsRefusedWithThePayloadsText) {
  EXPECT_EQ(Form().add("a", data_t(1)).refusal(), payloadRefusal);
  EXPECT_EQ(Form().add("a", data_t()).refusal(), payloadRefusal);
  EXPECT_EQ(Form().add("a", data_t(map_t())).refusal(), payloadRefusal);
  EXPECT_EQ(Form().key(data_t(7), textValue("x")).refusal(), payloadRefusal);
}

TEST(FormFields, SettingOfTheWrongKindIsRefusedByItsName) {
  EXPECT_EQ(Form().setting({"filename"}, data_t(1)).refusal(),
            "http.form.filename must be a string");
  EXPECT_EQ(Form().setting({"contentType"}, data_t(true)).refusal(),
            "http.form.contentType must be a string");
  EXPECT_EQ(Form()
                .buffer("a", "1")
                .setting({"a", "charset"}, data_t(1))
                .setting({"a", "filename"}, "x")
                .refusal(),
            "http.form.a.charset must be a string");
  EXPECT_EQ(Form().buffer("a", "1").setting({"a"}, "x").refusal(), "http.form.a must be a map");
  EXPECT_EQ(Form().text("a", "1").setting({"a"}, "x").refusal(), "http.form.a must be a map");
  EXPECT_EQ(Form().metadata(data_t(1)).refusal(), "http.form must be a map");
}

TEST(FormFields, SettingOfTheWrongKindIsRefusedAlsoWhereTheFieldIsNoFile) {
  for (const std::string setting : {"filename", "contentType", "charset"}) {
    const std::string refusal = "http.form.a." + setting + " must be a string";
    EXPECT_EQ(Form().text("a", "1").setting({"a", setting}, data_t(1)).refusal(), refusal);
    EXPECT_EQ(Form().buffer("a", "1").setting({"a", setting}, data_t(1)).refusal(), refusal);
  }
}

TEST(FormFields, ControlCharacterIsRefusedByItsItem) {
  for (const char* control : {"\r", "\n", "\r\nX: y", "\x01", "\t", "\x7F"}) {
    EXPECT_EQ(Form().text(std::string("a") + control, "1").refusal(),
              "The name of a form field must not hold control characters");
    for (const char* setting : {"filename", "contentType", "charset"}) {
      const std::string value = std::string("x") + control;
      EXPECT_EQ(
          Form().buffer("a", "1").setting({"filename"}, "f").setting({setting}, value).refusal(),
          std::string("http.form.") + setting + " must not hold control characters");
      EXPECT_EQ(Form()
                    .buffer("a", "1")
                    .setting({"filename"}, "f")
                    .setting({"a", setting}, value)
                    .refusal(),
                std::string("http.form.a.") + setting + " must not hold control characters");
    }
  }
}

TEST(FormFields, ValueMayHoldAnything) {
  Form form;
  form.text("a", "line\r\nline\t");
  EXPECT_EQ(form.only().value, "line\r\nline\t");
}

// --- URL-encoded --------------------------------------------------------------------------------

TEST(UrlEncodedForm, EncodesEveryOctetButTheUnreserved) {
  EXPECT_EQ(Form().text("a b", "c&d=e+f/g").urlEncoded(), "a%20b=c%26d%3De%2Bf%2Fg");
  EXPECT_EQ(Form().text("n", "AZaz09-._~").urlEncoded(), "n=AZaz09-._~");
  EXPECT_EQ(Form().text("\xC3\xA4", "\r\n%").urlEncoded(), "%C3%A4=%0D%0A%25");
  EXPECT_EQ(Form().buffer("b", std::string("\0\xFF", 2)).urlEncoded(), "b=%00%FF");
}

TEST(UrlEncodedForm, JoinsFields) {
  Form form;
  form.text("a", "1").text("b", "2");
  const std::string text = form.urlEncoded();
  EXPECT_TRUE(text == "a=1&b=2" || text == "b=2&a=1") << text;
  EXPECT_EQ(Form().urlEncoded(), "");
  EXPECT_EQ(Form().text("a", "").urlEncoded(), "a=");
}

TEST(UrlEncodedForm, RefusesAFile) {
  Form form;
  form.buffer("upload", "1").setting({"filename"}, "x");
  try {
    form.urlEncoded();
    FAIL() << "a file would have been lost";
  } catch (const RefusedRequest& refused) {
    EXPECT_STREQ(refused.what(),
                 "HTTPClient form field upload is a file, which only the body of a "
                 "multipart/form-data request carries");
  }
}

// --- multipart ----------------------------------------------------------------------------------

TEST(MultipartForm, WritesAField) {
  EXPECT_EQ(Form().text("a", "line\r\nline").multipart(),
            "--BOUNDARY\r\n"
            "Content-Disposition: form-data; name=\"a\"\r\n"
            "\r\n"
            "line\r\nline\r\n"
            "--BOUNDARY--\r\n");
}

TEST(MultipartForm, WritesAFile) {
  Form form;
  form.buffer("a", std::string("\0\x01", 2))
      .setting({"filename"}, "x.bin")
      .setting({"charset"}, "utf-8");
  EXPECT_EQ(form.multipart(),
            std::string("--BOUNDARY\r\n"
                        "Content-Disposition: form-data; name=\"a\"; "
                        "filename=\"x.bin\"\r\n"
                        "Content-Type: application/octet-stream; charset=utf-8\r\n"
                        "\r\n") +
                std::string("\0\x01", 2) + "\r\n--BOUNDARY--\r\n");
}

TEST(MultipartForm, SeparatesItsParts) {
  Form form;
  form.text("a", "1").text("b", "2").text("c", "3");
  const std::string text = form.multipart();
  std::size_t parts = 0;
  for (std::size_t at = text.find("\r\n--BOUNDARY\r\n"); at != std::string::npos;
       at = text.find("\r\n--BOUNDARY\r\n", at + 1)) {
    ++parts;
  }
  EXPECT_EQ(parts, 2U) << "and one at the very front";
  EXPECT_TRUE(text.starts_with("--BOUNDARY\r\n"));
  EXPECT_TRUE(text.ends_with("\r\n--BOUNDARY--\r\n"));
}

TEST(MultipartForm, WritesAQuoteAsBrowsersDo) {
  Form form;
  form.buffer("a\"b", "1").setting({"filename"}, "\"x\" 100% \\ \xC3\xA4");
  EXPECT_NE(form.multipart().find("name=\"a%22b\"; filename=\"%22x%22 100% \\ \xC3\xA4\"\r\n"),
            std::string::npos);
}

TEST(MultipartForm, MayBeEmpty) { EXPECT_EQ(Form().multipart(), "--BOUNDARY--\r\n"); }

TEST(MultipartForm, BorrowsTheContentsOfItsFiles) {
  Form fields;
  fields.buffer("a", "bytes").setting({"filename"}, "x");
  const std::string_view contents = fields.only().value;
  const RequestBody body = multipartForm(fields.read(), "BOUNDARY");
  EXPECT_TRUE(std::ranges::any_of(body.pieces(), [&](std::string_view piece) {
    return piece.data() == contents.data() && piece.size() == contents.size();
  }));
}

}  // namespace
}  // namespace connectivity::plugins
