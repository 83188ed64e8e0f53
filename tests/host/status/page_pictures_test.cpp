// Pictures of the status page for the documents: scripts/pictures writes them to docs/pictures. The
// page shows five minutes of two chains that exist in this file only.
#include <cstdlib>
#include <fstream>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/host/status/PageUnderTest.hpp"

namespace host_tests {
namespace {

using testing::StartsWith;

// Numbers that look alike in each run: a generator of its own, and averages as a transport has
// them.
constexpr const char* fiveMinutesOfAShop = R"js(
  let seed = 7;
  const random = () => (seed = seed * 16807 % 2147483647) / 2147483647;
  const chain = (prefix, workers) => {
    const averages = {};
    const average = (name, sample) => {
      for (const [kind, weight] of [['Short', 0.5], ['Long', 0.1]]) {
        const key = name.replace('*', kind);
        const old = averages[key] ?? sample;
        averages[key] = old * (1 - weight) + sample * weight;
      }
    };
    const state = {answers: 48210, errors: 37, barriers: 12, requestMax: 6120, responseMax: 48300};
    let load = 40;
    return (second, trouble, isDown) => {
      load += (40 - load) * 0.05 + (random() - 0.5) * 8;
      const answered = isDown ? 0 : Math.round(load * (trouble ? 0.7 : 1) * workers / 4);
      state.answers += answered;
      state.errors += isDown ? workers : Math.round(random() * (trouble ? 9 : 0.62));
      state.barriers += second % 60 === 0 ? 1 : 0;
      average('requestLatencyEWMA*Millis', (isDown ? 5000 : trouble ? 160 : 38) * (0.7 + 0.6 * random()));
      average('requestSizeEWMA*Bytes', 1400 + 900 * Math.sin(second / 37) + 700 * random());
      if (!isDown) average('responseSizeEWMA*Bytes', 17000 + 6000 * Math.sin(second / 23) + 9000 * random());
      const items = {
        status: isDown ? 'FAILED' : 'ONLINE',
        responsesTowardsHost: state.answers, errorsTowardsHost: state.errors,
        serializedRequests: state.barriers, numClients: workers,
        requestSizeMaxInLastHourBytes: state.requestMax,
        responseSizeMaxInLastHourBytes: state.responseMax,
        concurrencyUtilizationPercent: Math.min(100, 86 + 5 * Math.sin(second / 41) + 3 * random()),
        queueSize: Math.max(0, (trouble ? 140 : 14) * (0.6 + 0.8 * random())),
        ...averages,
      };
      return Object.entries(items).map(([item, value]) =>
        [`${prefix}.${item}`, typeof value === 'number' ? String(Math.trunc(value)) : value]);
    };
  };
  const orders = chain('shop.orders', 4);
  const returns = chain('shop.returns', 2);
  return (async () => {
    for (let second = 0; second <= 312; ++second) {
      const items = [...orders(second, second > 150 && second < 205, false),
                     ...returns(second, false, second > 280)];
      await test.step(Object.fromEntries(items), 1);
    }
  })();
)js";

void keep(const std::string& name, const std::string& picture) {
  const char* const folder = std::getenv("ORRERY_PICTURES");
  if (folder == nullptr) return;
  std::ofstream(std::string(folder) + "/" + name, std::ios::binary) << picture;
}

TEST(StatusPagePictures, ShowThePageInBothColourSchemesOnAWideAndANarrowScreen) {
  if (!test_support::WebDriver::available()) GTEST_SKIP() << "chromium is not installed";
  PageUnderTest page;
  page.browser().run(fiveMinutesOfAShop);
  page.browser().waitFor("document.querySelector('.plot .line').getAttribute('d')");
  page.browser().devTools("Emulation.setScrollbarsHidden", {{"hidden", true}});
  for (const std::string scheme : {"light", "dark"}) {
    page.prefer("prefers-color-scheme", scheme);
    for (const bool isWide : {true, false}) {
      page.showOn(isWide ? 1280 : 390, isWide ? 960 : 1400);
      // Two frames: the size has changed, the charts are drawn in it.
      page.browser().run(
          "return new Promise((done) => requestAnimationFrame(() => requestAnimationFrame(() => "
          "requestAnimationFrame(() => done()))))");
      const std::string picture = page.browser().screenshot();
      EXPECT_THAT(picture, StartsWith("\x89PNG"));
      keep("status-" + scheme + (isWide ? "-wide.png" : "-narrow.png"), picture);
    }
  }
}

}  // namespace
}  // namespace host_tests
