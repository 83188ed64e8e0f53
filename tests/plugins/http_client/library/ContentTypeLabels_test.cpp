// A Content-Type labels a response where it can be read; one that is empty or malformed labels
// nothing, and the response is delivered.
#include <ostream>
#include <string>

#include <gtest/gtest.h>

#include "tests/plugins/http_client/Answering.hpp"

namespace test_support {
namespace {

struct Label {
  const char* name;
  const char* field;        // the head's line or lines
  const char* contentType;  // in UTF-8, as delivered
  const char* charset;
};

void PrintTo(const Label& label, std::ostream* out) { *out << label.name; }
std::string nameOf(const ::testing::TestParamInfo<Label>& info) { return info.param.name; }

class ContentTypeLabel : public ::testing::TestWithParam<Label> {
 protected:
  static void expectLabels(const Answer& answer) {
    EXPECT_EQ(answer.status(), 200) << answer.reason();
    EXPECT_FALSE(answer.isError());
    EXPECT_EQ(answer.text("contentType"), GetParam().contentType);
    EXPECT_EQ(answer.text("charset"), GetParam().charset);
  }
  static std::string response(const std::string& body) {
    return std::string("HTTP/1.1 200 OK\r\n") + GetParam().field +
           "Content-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
  }
};

// Its bytes are those that were sent, whatever the label says of them.
TEST_P(ContentTypeLabel, IsDeliveredBesideTheBody) {
  ScriptedServer server(firstGets(response("caf\xE9")));
  PluginUnderTest plugin(oneClient(server.port()));
  const Answer answer = plugin.request(Request("GET", "/x"));
  expectLabels(answer);
  EXPECT_EQ(answer.body(), "caf\xE9");
  EXPECT_EQ(plugin.statusItem(".status"), "ONLINE");
  expectInStep(plugin, server, 1);
}

TEST_P(ContentTypeLabel, IsDeliveredUnderEveryPolicy) {
  for (const char* const policy : {"REJECT", "TRUNCATE_END", "TRUNCATE_START"}) {
    Request request("GET", "/x");
    request.limit(1).policy(policy);
    const Answer answer = answerTo(response("text"), request);
    expectLabels(answer);
    EXPECT_EQ(answer.body(), "text");
  }
}

TEST_P(ContentTypeLabel, IsDeliveredWithoutABody) {
  expectLabels(answerTo(response(""), Request("HEAD", "/x")));
  expectLabels(answerTo(response("")));
}

INSTANTIATE_TEST_SUITE_P(
    ThatIs, ContentTypeLabel,
    ::testing::Values(
        Label{"Absent", "", "", "utf-8"},
        Label{"AType", "Content-Type: application/json\r\n", "application/json", "utf-8"},
        Label{"ATypeOfThreeBytes", "Content-Type: a/b\r\n", "a/b", "utf-8"},
        Label{"ATypeInTheSendersCase", "content-type: Text/HTML\r\n", "Text/HTML", "utf-8"},
        Label{"ATypeOfAllKindsOfLetters", "Content-Type: a+b.c/d-e_f!\r\n", "a+b.c/d-e_f!",
              "utf-8"},
        Label{"ATypeWithASemicolon", "Content-Type: text/html;\r\n", "text/html", "utf-8"},
        Label{"TheFirstOfTwo", "Content-Type: a/b\r\nContent-Type: c/d\r\n", "a/b", "utf-8"}),
    nameOf);

INSTANTIATE_TEST_SUITE_P(
    WithACharset, ContentTypeLabel,
    ::testing::Values(
        Label{"InUpperCase", "Content-Type: text/html; charset=ISO-8859-1\r\n", "text/html",
              "iso-8859-1"},
        Label{"WithoutABlank", "Content-Type: text/html;charset=latin1\r\n", "text/html", "latin1"},
        Label{"WithBlanks", "Content-Type: text/html ; charset = latin1 \r\n", "text/html",
              "latin1"},
        Label{"InQuotes", "Content-Type: text/html; charset=\"utf-8\"\r\n", "text/html", "utf-8"},
        Label{"WithoutItsHyphen", "Content-Type: text/html; charset=UTF8\r\n", "text/html",
              "utf-8"},
        Label{"BehindAnotherParameter", "Content-Type: a/b; x=\"; charset=no\"; charset=latin1\r\n",
              "a/b", "latin1"},
        Label{"ThatIsEmpty", "Content-Type: text/html; charset=\r\n", "text/html", "utf-8"},
        Label{"WithoutAValue", "Content-Type: text/html; charset\r\n", "text/html", "utf-8"},
        Label{"InAnOpenQuote", "Content-Type: text/html; charset=\"latin1\r\n", "text/html",
              "latin1"},
        Label{"OfOtherLetters", "Content-Type: text/html; charset=caf\xE9\r\n", "text/html",
              "caf\u00e9"},
        Label{"BesideAnotherOne", "Content-Type: a/b; charset=latin1; charset=utf-8\r\n", "a/b",
              "latin1"},
        Label{"AndOtherParameters", "Content-Type: multipart/mixed; boundary=x\r\n",
              "multipart/mixed", "utf-8"}),
    nameOf);

INSTANTIATE_TEST_SUITE_P(
    ThatLabelsNothing, ContentTypeLabel,
    ::testing::Values(
        Label{"BecauseItIsEmpty", "Content-Type:\r\n", "", "utf-8"},
        Label{"BecauseItIsBlank", "Content-Type:  \t \r\n", "", "utf-8"},
        Label{"WithoutASlash", "Content-Type: something; charset=latin1\r\n", "", "utf-8"},
        Label{"OfALetter", "Content-Type: x\r\n", "", "utf-8"},
        Label{"WithoutASubtype", "Content-Type: text/; charset=latin1\r\n", "", "utf-8"},
        Label{"WithoutAType", "Content-Type: /html\r\n", "", "utf-8"},
        Label{"OfASlash", "Content-Type: /\r\n", "", "utf-8"},
        Label{"WithASlashTooMany", "Content-Type: a/b/c\r\n", "", "utf-8"},
        Label{"WithABlankInside", "Content-Type: text / html\r\n", "", "utf-8"},
        Label{"WithoutASemicolon", "Content-Type: text/html charset=latin1\r\n", "", "utf-8"},
        Label{"WithACommaForASemicolon", "Content-Type: text/html, a/b\r\n", "", "utf-8"},
        Label{"OfASemicolon", "Content-Type: ;\r\n", "", "utf-8"},
        Label{"OfAParameterAlone", "Content-Type: ; charset=latin1\r\n", "", "utf-8"},
        Label{"OfOtherLetters", "Content-Type: caf\xE9/au lait\r\n", "", "utf-8"},
        Label{"WithAControlCharacter", "Content-Type: te\x01xt/html\r\n", "", "utf-8"}),
    nameOf);

TEST(ContentTypeThatLabelsNothing, StaysAmongTheHeaders) {
  for (const std::string type : {"", ";", "text", "text/", "/plain", "text/plain charset=x"}) {
    const Answer answer =
        answerTo("HTTP/1.1 200 OK\r\nContent-Type: " + type + "\r\nContent-Length: 0\r\n\r\n");
    EXPECT_EQ(answer.header("content-type"), type);
    EXPECT_EQ(answer.text("contentType"), "");
  }
}

// --- Characters that are cut --------------------------------------------------------------------

// Behind a cut no part of a character stays where the text is UTF-8.
std::string cutWithin(const std::string& contentType) {
  const std::string body = std::string(999, 'x') + "\u00e9" + "and more";
  Request request("GET", "/x");
  request.limit(1).policy("TRUNCATE_END");
  const Answer answer = answerTo(
      responseHead(
          200, {{"Content-Type", contentType}, {"Content-Length", std::to_string(body.size())}}) +
          body,
      request);
  return answer.body().substr(999);
}

TEST(CutCharacter, GoesWhereNothingIsLabelled) {
  for (const char* const label : {"", "x", "text", "text/", ";;;", "no type; charset=latin1"}) {
    EXPECT_EQ(cutWithin(label), "[TRUNCATED]") << label;
  }
}

TEST(CutCharacter, GoesUnderUtf8) {
  EXPECT_EQ(cutWithin("text/plain; charset=UTF-8"), "[TRUNCATED]");
}

// A label without a charset is, by definition, not taken for UTF-8 here.
TEST(CutCharacter, StaysUnderEveryOtherLabel) {
  for (const char* const label : {"a/b", "text/plain", "text/plain; charset=latin1"}) {
    EXPECT_EQ(cutWithin(label), "\xC3[TRUNCATED]") << label;
  }
}

}  // namespace
}  // namespace test_support
