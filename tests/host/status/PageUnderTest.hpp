// The status page in a browser with a clock and answers that the test decides on. The page itself
// is the real one, from a real status server; only what it hears and when is replaced.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "host/status/StatusServer.hpp"
#include "tests/support/WebDriver.hpp"

namespace host_tests {

// In the page, before its own script: time stands still but for step(), whose answer is the next
// one that the page gets; null is none. `past` is what it hears of the time before.
inline constexpr const char* ownClockAndAnswers = R"js(
  const realTimer = window.setTimeout;
  const test = window.test = {now: Date.UTC(2026, 2, 14, 12, 0, 0), answer: {}, poll: null};
  Date.now = () => test.now;
  window.fetch = async (path) => {
    if (path === 'history.json') return {ok: true, json: async () => past};
    if (test.answer === null) throw new TypeError('no answer');
    return {ok: true, json: async () => structuredClone(test.answer)};
  };
  window.setTimeout = (call, delay) => {
    if (call.name === 'poll') test.poll = call;
    else realTimer(call, delay);
  };
  test.step = async (answer, seconds) => {
    while (!test.poll) await new Promise((resolve) => realTimer(resolve, 1));
    const poll = test.poll;
    test.poll = null;
    test.now += seconds * 1000;
    test.answer = answer;
    await poll();
  };
)js";

class PageUnderTest {
 public:
  // `past` is what /history.json is, as a literal of JavaScript.
  explicit PageUnderTest(const std::string& past = "[]") {
    const std::string script = "const past = " + past + ";" + ownClockAndAnswers;
    _browser.devTools("Page.addScriptToEvaluateOnNewDocument", {{"source", "{" + script + "}"}});
    _browser.open("http://127.0.0.1:" + std::to_string(_server.port()) + "/");
  }

  test_support::WebDriver& browser() { return _browser; }

  using Items = std::vector<std::pair<std::string, std::string>>;
  // The page's next answer, that many seconds behind the one before.
  void answer(const Items& items, double seconds = 1) {
    boost::json::object object;
    for (const auto& [key, text] : items) object[key] = text;
    _browser.run("return test.step(arguments[0], arguments[1])", {object, seconds});
  }
  void noAnswer(double seconds = 1) {
    _browser.run("return test.step(null, arguments[0])", {seconds});
  }

  // As the page is seen by people who want it so.
  void showOn(int width, int height) {
    _browser.devTools(
        "Emulation.setDeviceMetricsOverride",
        {{"width", width}, {"height", height}, {"deviceScaleFactor", 1}, {"mobile", width < 600}});
  }
  void prefer(const std::string& feature, const std::string& value) {
    const boost::json::object wish{{"name", feature}, {"value", value}};
    _browser.devTools("Emulation.setEmulatedMedia", {{"features", boost::json::array{wish}}});
  }

 private:
  host::StatusTable _table;
  host::StatusServer _server{{}, _table, {}};
  test_support::WebDriver _browser;
};

}  // namespace host_tests
