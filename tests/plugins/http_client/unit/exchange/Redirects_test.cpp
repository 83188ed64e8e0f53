// Whether a redirect is followed, where to, and with what: tables, nothing is sent.
#include "plugins/http_client/exchange/Redirects.hpp"

#include <optional>
#include <string>

#include <gtest/gtest.h>

#include "connectivity/value_access.hpp"
#include "tests/plugins/http_client/TransportParts.hpp"

namespace connectivity::plugins {
namespace {

using test_support::Request;

const Location current{"http", "home.test", 8080, "/a/b?q"};

// A redirect to nowhere else, unless a test says where.
ResponseHead redirect(int status, const char* location = "/next") {
  ResponseHead head;
  head.setStatus(1, status, "Moved");
  if (location != nullptr) head.addField("Location", location);
  return head;
}

class RedirectsTest : public testing::Test {
 protected:
  std::optional<FollowUp> decide(const ResponseHead& head) {
    return processRedirectResponse(head, current, req, parts.log);
  }
  std::string failureOf(const ResponseHead& head) {
    try {
      decide(head);
    } catch (const RedirectFailed& failure) {
      EXPECT_EQ(failure.name(), nullptr);
      return failure.what();
    }
    return "no failure";
  }

  const TransportParts parts;
  request req = parts.read(Request("GET", "/a").id("an id"));
};

TEST_F(RedirectsTest, AreOfFiveStatuses) {
  for (int status = 100; status < 1000; ++status) {
    const bool expected =
        status == 301 || status == 302 || status == 303 || status == 307 || status == 308;
    EXPECT_EQ(isRedirect(status), expected) << status;
  }
}

// --- What becomes of the method -----------------------------------------------------------------

struct Method {
  int status;
  const char* method;
  const char* next;
  bool withoutBody;
};

std::string nameOf(const testing::TestParamInfo<Method>& info) {
  return std::string(info.param.method) + "After" + std::to_string(info.param.status);
}

class RedirectMethod : public testing::TestWithParam<Method> {};

TEST_P(RedirectMethod, IsKeptOrBecomesGet) {
  const TransportParts parts;
  request req = parts.read(Request(GetParam().method, "/a").body("body"));
  const auto next = processRedirectResponse(redirect(GetParam().status), current, req, parts.log);
  ASSERT_TRUE(next);
  EXPECT_EQ(next->withoutBody, GetParam().withoutBody);
  follow(*next, req);
  EXPECT_EQ(req.hop.method, GetParam().next);
  EXPECT_EQ(req.hop.target, "/next");
  EXPECT_EQ(get<buffer_t>(req.payload).view(), GetParam().withoutBody ? "" : "body");
  EXPECT_STREQ(req.method.text(), GetParam().method) << "the answer carries the request's own";
}

INSTANTIATE_TEST_SUITE_P(
    Of, RedirectMethod,
    testing::Values(Method{301, "GET", "GET", false}, Method{301, "POST", "GET", true},
                    Method{301, "PUT", "PUT", false}, Method{301, "DELETE", "DELETE", false},
                    Method{301, "HEAD", "HEAD", false}, Method{302, "GET", "GET", false},
                    Method{302, "POST", "GET", true}, Method{302, "PUT", "PUT", false},
                    Method{302, "DELETE", "DELETE", false}, Method{302, "HEAD", "HEAD", false},
                    Method{303, "GET", "GET", true}, Method{303, "POST", "GET", true},
                    Method{303, "PUT", "GET", true}, Method{303, "DELETE", "GET", true},
                    Method{303, "HEAD", "HEAD", false}, Method{307, "GET", "GET", false},
                    Method{307, "POST", "POST", false}, Method{307, "PUT", "PUT", false},
                    Method{307, "DELETE", "DELETE", false}, Method{307, "HEAD", "HEAD", false},
                    Method{308, "GET", "GET", false}, Method{308, "POST", "POST", false},
                    Method{308, "PUT", "PUT", false}, Method{308, "DELETE", "DELETE", false},
                    Method{308, "HEAD", "HEAD", false}),
    nameOf);

TEST_F(RedirectsTest, DropTheFormAndTheHeadersOfABodyWithIt) {
  request form = parts.read(Request("POST", "/a")
                                .field("a", "1")
                                .contentType("application/x-www-form-urlencoded")
                                .header("Content-Encoding", "identity")
                                .header("X-A", "stays"));
  const auto next = processRedirectResponse(redirect(303), current, form, parts.log);
  ASSERT_TRUE(next);
  follow(*next, form);
  EXPECT_TRUE(form.form.empty());
  EXPECT_EQ(form.payload.tag(), QOR_BUFFER);
  EXPECT_EQ(form.headers, (request::Texts{{"x-a", "stays"}}));
}

TEST_F(RedirectsTest, KeepTheHeadersOfABodyThatIsKept) {
  request body = parts.read(Request("POST", "/a").body("x").contentType("a/b"));
  const auto next = processRedirectResponse(redirect(307), current, body, parts.log);
  ASSERT_TRUE(next);
  follow(*next, body);
  EXPECT_EQ(body.headers, (request::Texts{{"content-type", "a/b"}}));
}

// --- Where to -----------------------------------------------------------------------------------

struct Where {
  const char* name;
  const char* location;
  bool permanentFollowed;
  bool temporaryFollowed;
  bool elsewhere;
};

std::string whereOf(const testing::TestParamInfo<Where>& info) { return info.param.name; }

class RedirectPlace : public testing::TestWithParam<Where> {
 protected:
  const TransportParts parts;
};

TEST_P(RedirectPlace, IsFollowedOrNot) {
  for (const int status : {301, 302, 303, 307, 308}) {
    request req = parts.read(Request("GET", "/a"));
    const auto next =
        processRedirectResponse(redirect(status, GetParam().location), current, req, parts.log);
    const bool permanent = status == 301 || status == 308;
    EXPECT_EQ(next.has_value(),
              permanent ? GetParam().permanentFollowed : GetParam().temporaryFollowed)
        << status;
    if (next) {
      EXPECT_EQ(next->elsewhere, GetParam().elsewhere) << status;
    }
    EXPECT_EQ(req.redirectsTaken, 1) << "it counts either way";
  }
}

INSTANTIATE_TEST_SUITE_P(
    At, RedirectPlace,
    testing::Values(Where{"TheSamePath", "", true, true, false},
                    Where{"APath", "/x", true, true, false},
                    Where{"ARelativePath", "../x", true, true, false},
                    Where{"AQuery", "?x", true, true, false},
                    Where{"TheServerItself", "http://home.test:8080/x", true, true, false},
                    Where{"TheServerInOtherCase", "HTTP://HOME.Test:8080/x", true, true, false},
                    Where{"TheServersNameAlone", "//home.test:8080", true, true, false},
                    Where{"AnotherPort", "http://home.test/x", true, false, true},
                    Where{"AnotherHost", "http://other.test:8080/x", true, false, true},
                    Where{"AnotherScheme", "https://home.test:8080/x", false, false, false},
                    Where{"ASchemeThatIsNotHttp", "ftp://home.test/x", false, false, false}),
    whereOf);

TEST_F(RedirectsTest, ComparedWithAConfiguredHostInAnyCase) {
  const auto next = processRedirectResponse(redirect(302, "http://home.test/x"),
                                            {"http", "Home.TEST", 80, "/"}, req, parts.log);
  ASSERT_TRUE(next);
  EXPECT_FALSE(next->elsewhere);
}

TEST_F(RedirectsTest, LeadWhereTheFirstLocationSays) {
  ResponseHead head = redirect(302, "/first");
  head.addField("Location", "/second");
  EXPECT_EQ(decide(head)->location.target, "/first");
}

TEST_F(RedirectsTest, WithoutALocationAreNotFollowedAndDoNotCount) {
  EXPECT_FALSE(decide(redirect(302, nullptr)));
  EXPECT_EQ(req.redirectsTaken, 0);
}

// --- What fails ---------------------------------------------------------------------------------

TEST_F(RedirectsTest, AreFollowedNineTimes) {
  for (int time = 1; time <= 9; ++time) {
    EXPECT_TRUE(decide(redirect(302))) << time;
    EXPECT_EQ(req.redirectsTaken, time);
  }
  EXPECT_EQ(failureOf(redirect(302)), "Maximum redirects exceeded");
  EXPECT_EQ(req.redirectsTaken, 9);
}

TEST_F(RedirectsTest, FailWhereTheirLocationCannotBeRead) {
  EXPECT_EQ(failureOf(redirect(302, "http://home test/")),
            "Invalid Location header (malformed host): http://home test/");
  EXPECT_EQ(failureOf(redirect(302, "/caf\xE9%zz")),
            "Invalid Location header (broken percent-encoding): /caf\u00e9%zz");
}

TEST(RedirectFailure, MayHaveANameOfItsKind) {
  EXPECT_STREQ(RedirectFailed("text", "kind").name(), "kind");
  EXPECT_STREQ(RedirectFailed("text", "kind").what(), "text");
  EXPECT_EQ(RedirectFailed("text").name(), nullptr);
}

// --- The log ------------------------------------------------------------------------------------

TEST_F(RedirectsTest, AreReportedWhereTheyAreFollowed) {
  decide(redirect(301, "http://other.test/x"));
  EXPECT_TRUE(parts.logged(Level::Debug, "Received Redirect request for Id an id and status 301"));
  EXPECT_TRUE(parts.logged(Level::Debug,
                           "Processing request for status: 301 ,Last URI: /a/b?q ,Target URI: "
                           "http://other.test/x"));
  EXPECT_TRUE(parts.logged(Level::Debug,
                           "Received permanent redirects requests with host= other.test and new "
                           "URL http://other.test/x"));
  EXPECT_TRUE(parts.logged(Level::Debug, "Redirect Request: GET /a 301 and RequestURI /x"));
}

TEST_F(RedirectsTest, AreReportedWhereTheyAreNotFollowed) {
  decide(redirect(302, nullptr));
  EXPECT_TRUE(parts.logged(Level::Warn,
                           "Ignored HTTP redirect: No location header specified in redirect for "
                           "Id an id ,status 302"));
  decide(redirect(302, "https://home.test:8080/x"));
  EXPECT_TRUE(parts.logged(Level::Warn,
                           "Ignored HTTP redirect: Id an id, status 302, it redirects to "
                           "different schema, from http to https and LocationURI "
                           "https://home.test:8080/x"));
  decide(redirect(302, "http://other.test/x"));
  EXPECT_TRUE(parts.logged(Level::Warn,
                           "Ignored HTTP redirect: Id an id, status 302, it redirects to "
                           "different host/port, from host home.test or port 8080 to "
                           "other.test:80"));
}

}  // namespace
}  // namespace connectivity::plugins
