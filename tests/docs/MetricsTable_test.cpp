// docs/status-items.md: the table of metrics against what /metrics makes of each item.
#include <set>
#include <string>

#include <gtest/gtest.h>

#include "host/status/MetricsText.hpp"
#include "tests/docs/Markdown.hpp"

namespace docs_tests {
namespace {

const Page& page() {
  static const Page items = readPage("docs/status-items.md");
  return items;
}

// What an item's "100" is in a unit of the table.
std::string hundredIn(const std::string& unit) {
  if (unit == "seconds") return "0.1";
  if (unit.starts_with("ratio")) return "1";
  return unit.starts_with("1 while") ? "0" : "100";
}

TEST(MetricsTable, GivesEachItemsMetricWithItsTypeAndUnit) {
  for (const Row& row : page().table("As metrics").rows) {
    const std::string metric = row.codes("metric").at(0);
    const std::string text = host::statusAsMetrics({{"shop.orders" + row.name, "100"}});
    EXPECT_NE(text.find("# TYPE " + metric + " " + row.text("type") + "\n"), std::string::npos)
        << row.place << " but " << text;
    EXPECT_NE(text.find("\n" + metric + "{transport=\"shop.orders\"} " +
                        hundredIn(row.text("unit")) + "\n"),
              std::string::npos)
        << row.place << " but " << text;
  }
}

TEST(MetricsTable, HasEveryItemButTheKpis) {
  std::set<std::string> items;
  for (const Row& row : page().table("Status items").rows) items.insert(row.name);
  std::set<std::string> withMetric{".KPIs"};
  for (const Row& row : page().table("As metrics").rows) withMetric.insert(row.name);
  EXPECT_EQ(withMetric, items);
}

}  // namespace
}  // namespace docs_tests
