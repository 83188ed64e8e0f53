// The whole table of failures, and how a failure is told.
#include "plugins/http_client/response/Failures.hpp"

#include <stdexcept>
#include <string>

#include <Poco/Exception.h>
#include <Poco/Net/NetException.h>
#include <gtest/gtest.h>

namespace connectivity::plugins {
namespace {

constexpr const char* processing = "Caught exception processing a request";

struct Row {
  const char* name;
  FailureKind kind;
  int status;
  const char* line;
  bool setsFailed;
  bool isRequestSample;
  const char* mark;
};

std::string nameOf(const testing::TestParamInfo<Row>& info) { return info.param.name; }

class FailureTable : public testing::TestWithParam<Row> {};

TEST_P(FailureTable, SaysWhatFollows) {
  const FailureRow& row = rowOf(GetParam().kind);
  EXPECT_EQ(row.kind, GetParam().kind);
  EXPECT_EQ(row.status, GetParam().status);
  EXPECT_STREQ(row.line, GetParam().line);
  EXPECT_EQ(row.setsFailed, GetParam().setsFailed);
  EXPECT_EQ(row.isRequestSample, GetParam().isRequestSample);
  EXPECT_STREQ(row.mark, GetParam().mark);
  const Failure failure{GetParam().kind, "", "text"};
  EXPECT_EQ(&failure.row(), &row);
}

// Only what was refused before anything was sent says nothing of the server.
INSTANTIATE_TEST_SUITE_P(
    Of, FailureTable,
    testing::Values(
        Row{"Refused", FailureKind::Refused, 400, processing, false, false, "refused"},
        Row{"Unreachable", FailureKind::Unreachable, 400, processing, true, true, "unreachable"},
        Row{"TunnelRefused", FailureKind::TunnelRefused, 400, processing, true, true, "refused"},
        Row{"NoAnswer", FailureKind::NoAnswer, 400, processing, true, true, "noAnswer"},
        Row{"BadAnswer", FailureKind::BadAnswer, 400, processing, true, true, "badAnswer"},
        Row{"LimitExceeded", FailureKind::LimitExceeded, 413, processing, true, true, "badAnswer"},
        Row{"RedirectFailed", FailureKind::RedirectFailed, 400, "Failed to perform HTTP redirect",
            true, true, "badAnswer"},
        Row{"DeadlineExceeded", FailureKind::DeadlineExceeded, 400, processing, true, true,
            "deadline"}),
    nameOf);

TEST(Failure, IsToldByItsNameAndItsMessage) {
  EXPECT_EQ((Failure{FailureKind::NoAnswer, "Timeout", "too long"}.text()), "Timeout: too long");
  EXPECT_EQ((Failure{FailureKind::NoAnswer, "Timeout", ""}.text()), "Timeout");
  EXPECT_EQ((Failure{FailureKind::NoAnswer, "", "too long"}.text()), "too long");
}

Failure of(void (*thrower)()) {
  try {
    thrower();
  } catch (...) {
    return currentFailure(FailureKind::DeadlineExceeded);
  }
  return {};
}

TEST(Failure, OfTheLibraryHasItsName) {
  const Failure failure = of([] { throw Poco::Net::ConnectionRefusedException("127.0.0.1:1"); });
  EXPECT_EQ(failure.kind, FailureKind::DeadlineExceeded);
  EXPECT_EQ(failure.name, "Connection refused");
  EXPECT_EQ(failure.message, "127.0.0.1:1");
}

TEST(Failure, OfAnyOtherExceptionHasItsTextAlone) {
  const Failure failure = of([] { throw std::out_of_range("text"); });
  EXPECT_EQ(failure.name, "");
  EXPECT_EQ(failure.message, "text");
}

TEST(Failure, OfWhatIsNoExceptionSaysSo) {
  const Failure failure = of([] { throw 42; });
  EXPECT_EQ(failure.name, "");
  EXPECT_EQ(failure.message, "Unknown exception");
}

}  // namespace
}  // namespace connectivity::plugins
