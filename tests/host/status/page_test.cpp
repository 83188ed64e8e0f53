// What the status page makes of its answers, in a browser whose clock and answers the test sets.
#include <algorithm>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/host/status/PageUnderTest.hpp"

namespace host_tests {
namespace {

using test_support::WebDriver;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

using Items = PageUnderTest::Items;
using Texts = std::vector<std::string>;

class StatusPage : public testing::Test {
 protected:
  void SetUp() override {
    if (!WebDriver::available()) GTEST_SKIP() << "chromium is not installed";
    openWith("[]");
  }
  // Nothing in the page failed, was refused by its policy, or was asked elsewhere.
  void TearDown() override {
    if (!_page) return;
    EXPECT_THAT(browser().takeLog("SEVERE"), IsEmpty());
    EXPECT_EQ(texts("performance.getEntriesByType('resource').map(({name}) => name)"
                    ".filter((name) => !name.startsWith(location.origin))"),
              Texts());
  }

  void openWith(const std::string& past) {
    _page.reset();
    _page.emplace(past);
  }
  PageUnderTest& page() { return *_page; }
  WebDriver& browser() { return _page->browser(); }

  // An expression whose value is a list of texts.
  Texts texts(const std::string& expression) {
    Texts list;
    const boost::json::value values = browser().run("return " + expression);
    for (const boost::json::value& value : values.as_array()) {
      list.emplace_back(value.as_string());
    }
    return list;
  }
  Texts textsOf(const std::string& selector) {
    return texts("[...document.querySelectorAll(" + quoted(selector) +
                 ")].map((e) => e.textContent)");
  }
  std::string textOf(const std::string& selector) {
    return browser().text("document.querySelector(" + quoted(selector) + ").textContent");
  }
  std::string attribute(const std::string& selector, const std::string& name) {
    return browser().text("document.querySelector(" + quoted(selector) + ").getAttribute('" + name +
                          "')");
  }
  static std::string quoted(const std::string& text) { return boost::json::serialize(text); }
  static std::string shown(const std::string& item) { return "[data-item=\"" + item + "\"]"; }
  static std::string curve(const std::string& item) { return ".line" + shown(item); }

 private:
  std::optional<PageUnderTest> _page;
};

// One chain with every item that has a curve.
Items chainItems(const std::string& prefix, const std::string& status = "ONLINE") {
  Items items{{prefix + ".status", status}, {prefix + ".KPIs", prefix + ".queueSize"}};
  for (const char* item :
       {"responsesTowardsHost", "errorsTowardsHost", "serializedRequests", "numClients",
        "requestLatencyEWMAShortMillis", "requestLatencyEWMALongMillis",
        "requestSizeEWMAShortBytes", "requestSizeEWMALongBytes", "requestSizeMaxInLastHourBytes",
        "responseSizeEWMAShortBytes", "responseSizeEWMALongBytes", "responseSizeMaxInLastHourBytes",
        "concurrencyUtilizationPercent", "queueSize"}) {
    items.emplace_back(prefix + "." + item, "4");
  }
  return items;
}

Items operator+(Items items, const Items& more) {
  items.insert(items.end(), more.begin(), more.end());
  return items;
}

TEST_F(StatusPage, SaysThatThereAreNoItems) {
  page().answer({});
  EXPECT_EQ(browser().text("document.getElementById('empty').checkVisibility()"), "true");
  EXPECT_EQ(textOf("#empty"), "No status items yet.");
  page().answer(chainItems("a.b"));
  EXPECT_EQ(browser().text("document.getElementById('empty').checkVisibility()"), "false");
}

TEST_F(StatusPage, GroupsItemsByChainAndLinksToEachWithItsState) {
  page().answer(chainItems("shop.orders") + chainItems("shop.returns", "FAILED") +
                chainItems("shop.new", "STARTING") + chainItems("shop.odd", "RESTING"));
  EXPECT_THAT(textsOf(".chain h2"),
              ElementsAre("shop.new", "shop.odd", "shop.orders", "shop.returns"));
  EXPECT_THAT(textsOf(".chain .state-text"),
              ElementsAre("STARTING", "RESTING", "ONLINE", "FAILED"));
  EXPECT_THAT(textsOf("#overview .state-text"),
              ElementsAre("STARTING", "RESTING", "ONLINE", "FAILED"));
  browser().run("document.querySelectorAll('#overview a')[3].click()");
  EXPECT_EQ(browser().text("document.querySelector(':target h2').textContent"), "shop.returns");
  EXPECT_EQ(browser().number("new Set([...document.querySelectorAll('.chain .shape-back')]"
                             ".map((shape) => shape.getAttribute('d'))).size"),
            4)
      << "each state has a shape of its own";
}

TEST_F(StatusPage, TakesNamesAndItemsForNothingButText) {
  const std::string markup = "<img src=x onerror=alert(1)>.\"'&<b>";
  page().answer(chainItems(markup) +
                Items{{markup + ".<script>x</script>", "<i>1</i>"}, {markup + ".__proto__", "7"}});
  EXPECT_EQ(textOf(".chain h2"), markup);
  EXPECT_THAT(textsOf(".further tbody th"), ElementsAre("<script>x</script>", "__proto__"));
  EXPECT_THAT(textsOf(".further tbody td"), ElementsAre("<i>1</i>", "7"));
  EXPECT_EQ(browser().number("document.querySelectorAll('img, b, i, main script').length"), 0);
}

TEST_F(StatusPage, ShowsItemsThatItDoesNotKnowInATableAndChartsOnlyOfWhatIsThere) {
  page().answer({{"mail.out.status", "ONLINE"},
                 {"mail.out.queueSize", "3"},
                 {"mail.out.sentMails", "12"},
                 {"mail.out.mood", "calm"},
                 {"alone", "1"}});
  EXPECT_THAT(textsOf("#chain-1 .chart h3"), ElementsAre("Queue length"));
  EXPECT_THAT(textsOf("#chain-1 .further tbody th"), ElementsAre("mood", "sentMails"));
  EXPECT_THAT(textsOf("#chain-1 .further tbody td"), ElementsAre("calm", "12"));
  EXPECT_THAT(textsOf("#chain-1 .all-items tbody th"),
              ElementsAre("mood", "queueSize", "sentMails", "status"));
  EXPECT_EQ(textOf("#chain-0 h2"), "Items without a chain");
  EXPECT_THAT(textsOf("#chain-0 .further tbody th"), ElementsAre("alone"));
}

TEST_F(StatusPage, ShowsCountersAlsoAsTheirIncreasePerSecond) {
  const auto answers = [](const std::string& count) {
    return Items{{"a.b.status", "ONLINE"},
                 {"a.b.responsesTowardsHost", count},
                 {"a.b.errorsTowardsHost", "0"}};
  };
  const std::string rate = shown("responsesTowardsHost per second");
  page().answer(answers("1000"));
  EXPECT_EQ(textOf(rate), "–");
  page().answer(answers("1030"), 2);
  EXPECT_EQ(textOf(rate), "15.0\u202f/s");
  EXPECT_EQ(textOf("dd" + shown("responsesTowardsHost")), "1,030");
  page().answer(answers("5"));
  EXPECT_EQ(textOf(rate), "–") << "started anew: nothing is known of that second";
  page().answer(answers("7"));
  EXPECT_EQ(textOf(rate), "2.00\u202f/s");
  EXPECT_EQ(textOf(shown("errorsTowardsHost per second")), "0\u202f/s");
  const std::string path = attribute(curve("responsesTowardsHost per second"), "d");
  EXPECT_EQ(std::count(path.begin(), path.end(), 'M'), 2) << "the curve is interrupted: " << path;
}

TEST_F(StatusPage, WritesValuesInTheUnitThatFitsAndAxesWithRoundSteps) {
  const auto latencyAndSize = [](const std::string& millis, const std::string& bytes) {
    return Items{{"a.b.requestLatencyEWMAShortMillis", millis},
                 {"a.b.requestSizeEWMAShortBytes", bytes}};
  };
  const auto axis = [this](const std::string& title) {
    return texts(
        "[...[...document.querySelectorAll('.chart')].find((chart) => "
        "chart.querySelector('h3').textContent === '" +
        title +
        "').querySelectorAll('.grid text:not([text-anchor=middle])')]"
        ".map((e) => e.textContent)");
  };
  page().answer(latencyAndSize("12", "999"));
  EXPECT_EQ(textOf(shown("requestLatencyEWMAShortMillis")), "12\u202fms");
  EXPECT_EQ(textOf(shown("requestSizeEWMAShortBytes")), "999\u202fB");
  EXPECT_THAT(axis("Latency"), ElementsAre("0", "5", "10", "15", "ms"));
  EXPECT_THAT(axis("Request size"), ElementsAre("0", "500", "1,000", "B"));
  page().answer(latencyAndSize("1234", "1500000"));
  EXPECT_EQ(textOf(shown("requestLatencyEWMAShortMillis")), "1.23\u202fs");
  EXPECT_EQ(textOf(shown("requestSizeEWMAShortBytes")), "1.50\u202fMB");
  EXPECT_THAT(axis("Latency"), ElementsAre("0.0", "0.5", "1.0", "1.5", "s"));
  EXPECT_THAT(axis("Request size"), ElementsAre("0.0", "0.5", "1.0", "1.5", "MB"));
}

TEST_F(StatusPage, NamesALargestThatIsFarAboveTheCurvesInsteadOfFlatteningThem) {
  page().answer(
      {{"a.b.requestSizeEWMAShortBytes", "100"}, {"a.b.requestSizeMaxInLastHourBytes", "2000000"}});
  EXPECT_THAT(textsOf(".grid text"), testing::Contains("↑ largest of the hour: 2.00\u202fMB"));
  EXPECT_EQ(textOf(shown("requestSizeMaxInLastHourBytes")), "2.00\u202fMB");
}

TEST_F(StatusPage, DrawsWhatTheProgramRemembersOfTheTimeBeforeItWasOpened) {
  openWith(
      "[{age: 9, items: {'a.b.queueSize': '2', 'a.b.responsesTowardsHost': '10', 'x.y.z': '1'}},"
      " {age: 4, items: {'a.b.queueSize': '7', 'a.b.responsesTowardsHost': '20'}}]");
  page().answer({{"a.b.queueSize", "3"}, {"a.b.responsesTowardsHost", "35"}});
  EXPECT_EQ(attribute(".chart svg[role=img]", "aria-label"),
            "Answers per second, last 5 minutes. status 200 to 399 3.00\u202f/s, between "
            "2.00\u202f/s and 3.00\u202f/s; errors: no values yet.");
  const std::string path = attribute(curve("queueSize"), "d");
  EXPECT_EQ(std::count(path.begin(), path.end(), 'M'), 1) << path;
  EXPECT_EQ(std::count(path.begin(), path.end(), 'L'), 2) << path;
  EXPECT_THAT(textsOf(".chain h2"), ElementsAre("a.b")) << "and nothing of what is no more";
}

TEST_F(StatusPage, KeepsWhatItKnowsWhileNoAnswerComesAndGoesOnByItself) {
  page().answer(chainItems("a.b"));
  page().answer(chainItems("a.b"));
  page().noAnswer();
  EXPECT_EQ(textOf("#silence"),
            "No answer from the program since 12:00:02; showing the last values");
  EXPECT_EQ(browser().text("document.getElementById('silence').hidden"), "false");
  EXPECT_THAT(browser().text("document.title"), HasSubstr("no answer"));
  EXPECT_EQ(textOf("dd" + shown("responsesTowardsHost")), "4");
  page().noAnswer(60);
  EXPECT_EQ(textOf("#silence"),
            "No answer from the program since 12:00:02; showing the last values");
  page().answer(chainItems("a.b"));
  EXPECT_EQ(browser().text("document.getElementById('silence').hidden"), "true");
  EXPECT_EQ(textOf("#news"), "The program answers again.");
  EXPECT_EQ(textOf("#freshness"), "As of 12:01:04");
  const std::string path = attribute(curve("queueSize"), "d");
  EXPECT_EQ(std::count(path.begin(), path.end(), 'M'), 2) << "a gap, and no line across: " << path;
}

TEST_F(StatusPage, KeepsAChainThatIsNotPublishedAnyMore) {
  page().answer(chainItems("a.b") + chainItems("c.d"));
  page().answer(chainItems("a.b"));
  EXPECT_EQ(textOf("#news"), "c.d is not published any more.");
  EXPECT_EQ(textOf("#chain-1 .chain-since"),
            "not published since 12:00:02; these are its last values");
  EXPECT_EQ(textOf("#chain-1 dd"), "4");
  page().answer(chainItems("a.b") + chainItems("c.d"));
  EXPECT_EQ(textOf("#chain-1 .chain-since"), "since 12:00:03");
}

TEST_F(StatusPage, ShowsTheTimeThatIsChosenWithTheKeyboard) {
  for (int minute = 0; minute < 10; ++minute) page().answer(chainItems("a.b"), 60);
  const std::string points =
      "document.querySelector('.line[data-item=queueSize]')"
      ".getAttribute('d').split(/[ML]/).length - 1";
  EXPECT_EQ(browser().number(points), 7) << "each minute of five, and one in front";
  browser().press({WebDriver::tabKey, WebDriver::tabKey});
  EXPECT_EQ(browser().text("document.activeElement.value"), "5");
  EXPECT_NE(browser().text("getComputedStyle(document.activeElement.nextElementSibling)"
                           ".outlineStyle"),
            "none")
      << "the focus is seen";
  browser().press({WebDriver::rightKey});
  EXPECT_EQ(browser().text("document.activeElement.value"), "15");
  EXPECT_EQ(browser().number(points), 10);
  browser().press({WebDriver::leftKey});
  browser().press({WebDriver::leftKey});
  EXPECT_EQ(browser().text("document.activeElement.value"), "1");
  EXPECT_EQ(browser().number(points), 3);
}

TEST_F(StatusPage, ReachesEverythingWithTabInTheOrderOfThePage) {
  page().answer(chainItems("a.b") + chainItems("c.d"));
  Texts reached;
  for (int i = 0; i < 21; ++i) {
    browser().press({WebDriver::tabKey});
    reached.push_back(browser().text(
        "document.activeElement.value ?? document.activeElement.textContent.trim()"));
    EXPECT_EQ(browser().text("document.activeElement.matches(':focus-visible')"), "true");
  }
  const auto table = StartsWith("Values as a table: ");
  const std::string all = "All items as published";
  EXPECT_THAT(reached,
              ElementsAre("Skip to the chains", "5", HasSubstr("a.b"), HasSubstr("c.d"), table,
                          table, table, table, table, table, all, table, table, table, table, table,
                          table, all, "status.json", "metrics", "healthz"));
}

TEST_F(StatusPage, TellsTheValuesOfTheMomentUnderThePointer) {
  for (const char* millis : {"10", "30", "20"}) {
    page().answer({{"a.b.requestLatencyEWMAShortMillis", millis}}, 60);
  }
  const std::string value = shown("requestLatencyEWMAShortMillis");
  const auto point = [this](const std::string& type, double minutesAgo) {
    browser().run(
        "const plot = document.querySelector('.plot');"
        "const inside = plot.querySelector('svg svg').getBoundingClientRect();"
        "const clientX = inside.right - 2 - inside.width * arguments[1] / 5;"
        "plot.dispatchEvent(new PointerEvent(arguments[0], {clientX}))",
        {type, minutesAgo});
  };
  point("pointermove", 0.9);
  browser().waitFor("document.querySelector('.moment').textContent === 'at 12:02:00'");
  EXPECT_EQ(textOf(value), "30\u202fms");
  point("pointerleave", 0);
  browser().waitFor("document.querySelector('.moment').textContent === ''");
  EXPECT_EQ(textOf(value), "20\u202fms");
}

TEST_F(StatusPage, TellsEachChartInWordsAndAsATable) {
  const auto latency = [](const std::string& millis) {
    return Items{{"a.b.requestLatencyEWMAShortMillis", millis},
                 {"a.b.requestLatencyEWMALongMillis", "9"}};
  };
  for (const char* millis : {"10", "30", "20"}) page().answer(latency(millis), 30);
  EXPECT_EQ(attribute(".chart svg[role=img]", "aria-label"),
            "Latency, last 5 minutes. short average 20\u202fms, between 10\u202fms and 30\u202fms; "
            "long average 9\u202fms, between 9\u202fms and 9\u202fms.");
  browser().run("document.querySelector('.readings').open = true");
  browser().waitFor("document.querySelectorAll('.readings tbody tr').length === 3");
  EXPECT_THAT(textsOf(".readings thead th"), ElementsAre("Time", "short average", "long average"));
  EXPECT_THAT(textsOf(".readings tbody th"), ElementsAre("12:01:30", "12:01:00", "12:00:30"));
  EXPECT_THAT(textsOf(".readings tbody td:nth-child(2)"),
              ElementsAre("20\u202fms", "30\u202fms", "10\u202fms"));
}

TEST_F(StatusPage, HasLandmarksHeadingsAndNamesForEverything) {
  page().answer(chainItems("a.b") + chainItems("c.d"));
  const boost::json::value tree = browser().devTools("Accessibility.getFullAXTree", {});
  std::map<std::string, int> roles;
  for (const boost::json::value& node : tree.at("nodes").as_array()) {
    if (node.at("ignored").as_bool()) continue;
    const std::string role(node.at("role").at("value").as_string());
    ++roles[role];
    for (const char* named : {"image", "heading", "navigation", "region", "link", "radio"}) {
      if (role != named) continue;
      EXPECT_NE(node.at("name").at("value").as_string(), "") << role << " without a name";
    }
  }
  EXPECT_EQ(roles["main"], 1);
  EXPECT_EQ(roles["banner"], 1);
  EXPECT_EQ(roles["contentinfo"], 1);
  EXPECT_EQ(roles["navigation"], 2);
  EXPECT_EQ(roles["region"], 2) << "one for each chain";
  EXPECT_EQ(roles["image"], 12) << "one for each chart";
  EXPECT_EQ(roles["status"], 1);
  EXPECT_EQ(roles["radio"], 3);
  EXPECT_EQ(roles["heading"], 1 + 2 * (1 + 6));
}

// The contrast of WCAG 2 between each text and what is behind it: those below 4.5, or 3 where the
// text is large.
constexpr const char* textsWithTooLittleContrast = R"js(
  const numbers = (color) => color.match(/[\d.]+/g).map(Number);
  const luminance = (color) => {
    const [r, g, b] = numbers(color).map((part) => part / 255)
      .map((part) => part <= 0.04045 ? part / 12.92 : ((part + 0.055) / 1.055) ** 2.4);
    return 0.2126 * r + 0.7152 * g + 0.0722 * b;
  };
  const isClear = (color) => numbers(color)[3] === 0;
  const behind = (element) => {
    while (element && isClear(getComputedStyle(element).backgroundColor)) element = element.parentElement;
    return getComputedStyle(element ?? document.body).backgroundColor;
  };
  const bad = [];
  for (const element of document.body.querySelectorAll('*')) {
    const hasText = [...element.childNodes].some((node) => node.nodeType === 3 && node.data.trim());
    if (!hasText || !element.checkVisibility() || element.closest('script, template')) continue;
    const style = getComputedStyle(element);
    const color = element.namespaceURI.endsWith('svg') ? style.fill : style.color;
    const [light, dark] = [luminance(color), luminance(behind(element))].sort((a, b) => b - a);
    const isLarge = parseFloat(style.fontSize) >= 24;
    const contrast = (light + 0.05) / (dark + 0.05);
    if (contrast < (isLarge ? 3 : 4.5)) bad.push(`${element.textContent}: ${contrast}`);
  }
  for (const line of document.querySelectorAll('.line')) {
    const [light, dark] = [luminance(getComputedStyle(line).stroke), luminance(behind(line))]
      .sort((a, b) => b - a);
    if ((light + 0.05) / (dark + 0.05) < 3) bad.push('a curve');
  }
  return bad;
)js";

TEST_F(StatusPage, HasEnoughContrastInBothColourSchemes) {
  page().answer(chainItems("a.1") + chainItems("a.2", "FAILED") + chainItems("a.3", "STARTING") +
                chainItems("a.4", "RESTING") + Items{{"a.4.x", "1"}});
  for (const std::string scheme : {"light", "dark"}) {
    page().prefer("prefers-color-scheme", scheme);
    EXPECT_EQ(boost::json::serialize(browser().run(textsWithTooLittleContrast)), "[]") << scheme;
  }
  page().noAnswer();
  for (const std::string scheme : {"light", "dark"}) {
    page().prefer("prefers-color-scheme", scheme);
    EXPECT_EQ(boost::json::serialize(browser().run(textsWithTooLittleContrast)), "[]") << scheme;
  }
}

TEST_F(StatusPage, FitsAPhoneInOneColumn) {
  page().showOn(360, 740);
  page().answer(chainItems("shop." + std::string(80, 'x')) + chainItems("c.d", "FAILED") +
                Items{{"c.d.itemWithAVeryLongNameThatNobodyWouldChoose", std::string(200, 'y')}});
  browser().run("for (const details of document.querySelectorAll('details')) details.open = true");
  browser().waitFor("document.querySelector('.readings tbody tr')");
  browser().waitFor("document.documentElement.clientWidth === 360");
  EXPECT_EQ(browser().number("document.documentElement.scrollWidth"), 360);
  EXPECT_EQ(browser().number("new Set([...document.querySelectorAll('.chart')]"
                             ".map((chart) => chart.getBoundingClientRect().left)).size"),
            1);
  browser().waitFor(
      "[...document.querySelectorAll('.plot > svg')].slice(0, 1).every((plot) => "
      "plot.getBoundingClientRect().right <= 360)");
}

TEST_F(StatusPage, MovesNothingForWhoWantsLessMotion) {
  page().prefer("prefers-reduced-motion", "reduce");
  page().answer(chainItems("a.b"));
  page().answer(chainItems("a.b", "FAILED"));
  EXPECT_EQ(browser().text("getComputedStyle(document.documentElement).scrollBehavior"), "auto");
  EXPECT_EQ(browser().number("document.getAnimations().length"), 0);
}

}  // namespace
}  // namespace host_tests
