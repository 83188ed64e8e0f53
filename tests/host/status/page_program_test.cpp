// The status page in a browser, asking a run of the program.
#include <atomic>
#include <optional>
#include <string>
#include <vector>

#include <boost/json.hpp>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/host/status/StatusProgram.hpp"
#include "tests/support/ScriptedServer.hpp"
#include "tests/support/WebDriver.hpp"

namespace host_tests {
namespace {

using test_support::Connection;
using test_support::ScriptedServer;
using test_support::WebDriver;
using testing::AllOf;
using testing::Each;
using testing::HasSubstr;
using testing::IsEmpty;

constexpr std::size_t requestBytes = 700;
constexpr std::size_t responseBytes = 300;

class StatusPageOfARun : public testing::Test {
 protected:
  void SetUp() override {
    if (!WebDriver::available()) GTEST_SKIP() << "chromium is not installed";
    _browser.emplace();
    _browser->open(_run.url() + "/");
  }

  WebDriver& browser() { return *_browser; }
  StatusProgram& run() { return _run; }
  // From now on the server resets connections instead of answering, or not any more.
  void refuse(bool refuses) { _refuses = refuses; }

  void waitForState(const std::string& state) {
    browser().waitFor("document.querySelector('.chain .state-text')?.textContent === '" + state +
                      "'");
  }
  // The text where the page shows an item.
  static std::string shown(const std::string& item) {
    return "document.querySelector('.chain [data-item=\"" + item + "\"]')?.textContent";
  }
  // How many points a curve has.
  static std::string points(const std::string& item) {
    return "(document.querySelector('.line[data-item=\"" + item +
           "\"]')?.getAttribute('d') ?? '').split(/[ML]/).length - 1";
  }
  std::string published(const std::string& item) {
    const boost::json::value items = boost::json::parse(_run.get("/status.json"));
    return std::string(items.at("main.jobs." + item).as_string());
  }

 private:
  std::atomic<bool> _refuses = false;
  ScriptedServer _server{[this](Connection& connection) {
    while (connection.readRequest()) {
      if (_refuses) return connection.reset();
      connection.sendResponse(200, {}, std::string(responseBytes, 'y'));
    }
  }};
  StatusProgram _run{_server.port()};
  std::optional<WebDriver> _browser;
};

TEST_F(StatusPageOfARun, ShowsTheStateAndSaysWhenItChanges) {
  waitForState("ONLINE");
  refuse(true);
  run().request(requestBytes);
  waitForState("FAILED");
  browser().waitFor("document.getElementById('news').textContent === 'main.jobs is FAILED.'");
  EXPECT_THAT(browser().text("document.title"), HasSubstr("1 FAILED"));
  EXPECT_EQ(browser().text("document.querySelector('.chain .state').dataset.state"), "FAILED");
  refuse(false);
  run().request(requestBytes);
  waitForState("ONLINE");
  browser().waitFor("document.getElementById('news').textContent === 'main.jobs is ONLINE.'");
  EXPECT_THAT(browser().takeLog("SEVERE"), IsEmpty());
  EXPECT_EQ(run().program().finish(), 0);
}

TEST_F(StatusPageOfARun, ShowsWhatIsPublished) {
  run().request(requestBytes);
  run().request(requestBytes);
  refuse(true);
  run().request(requestBytes);
  browser().waitFor(shown("responsesTowardsHost") + " === '2'");
  browser().waitFor(shown("errorsTowardsHost") + " === '1'");
  browser().waitFor(shown("requestSizeMaxInLastHourBytes") + " === '700\u202fB'");
  browser().waitFor(shown("responseSizeEWMALongBytes") + " === '300\u202fB'");
  for (const std::string item : {"requestLatencyEWMAShortMillis", "requestLatencyEWMALongMillis"}) {
    browser().waitFor(shown(item) + " === '" + published(item) + "\u202fms'");
  }
  browser().waitFor(shown("queueSize") + " === '" + published("queueSize") + "'");
  browser().waitFor(shown("concurrencyUtilizationPercent") + " === '" +
                    published("concurrencyUtilizationPercent") + "\u202f%'");
  browser().waitFor(shown("numClients") + " === '2'");
  EXPECT_THAT(browser().takeLog("SEVERE"), IsEmpty());
  EXPECT_EQ(run().program().finish(), 0);
}

TEST_F(StatusPageOfARun, DrawsACurveThatGrows) {
  browser().waitFor(points("queueSize") + " >= 1");
  const double before = browser().number(points("queueSize"));
  browser().waitFor(points("queueSize") + " >= " + std::to_string(before + 2));
  const std::string curve =
      "document.querySelector('.line[data-item=responsesTowardsHost\\\\ per\\\\ second]')";
  browser().waitFor(curve + ".getBBox().height === 0");
  for (int i = 0; i < 20; ++i) run().request(requestBytes);
  browser().waitFor(curve + ".getBBox().height > 0");
  EXPECT_EQ(run().program().finish(), 0);
}

TEST_F(StatusPageOfARun, KeepsTheLastValuesWhenTheProgramHasEndedAndSaysSo) {
  run().request(requestBytes);
  browser().waitFor(shown("responsesTowardsHost") + " === '1'");
  browser().waitFor(points("queueSize") + " >= 2");
  EXPECT_THAT(browser().takeLog("SEVERE"), IsEmpty());
  EXPECT_EQ(run().program().finish(), 0);

  browser().waitFor("!document.getElementById('silence').hidden");
  const std::string silence = browser().text("document.getElementById('silence').textContent");
  EXPECT_THAT(silence, testing::MatchesRegex("No answer from the program since "
                                             "[0-9][0-9]:[0-9][0-9]:[0-9][0-9]; showing the last "
                                             "values"));
  EXPECT_EQ(browser().text("document.getElementById('news').textContent"), silence + ".");
  EXPECT_EQ(browser().text(shown("responsesTowardsHost")), "1");
  EXPECT_EQ(browser().text("document.querySelector('.state-text').textContent"), "ONLINE");
  EXPECT_GE(browser().number(points("queueSize")), 2);
  EXPECT_THAT(browser().takeLog("SEVERE"),
              Each(AllOf(HasSubstr("/status.json"), HasSubstr("net::ERR_"))));
}

}  // namespace
}  // namespace host_tests
