// The tables of docs/configuration.md that say what the transport's configuration may hold.
#pragma once

#include <string>
#include <vector>

#include "tests/docs/Markdown.hpp"

namespace docs_tests {

inline const std::string configurationPageName = "docs/configuration.md";

inline const Page& configurationPage() {
  static const Page page = readPage(configurationPageName);
  return page;
}

inline const std::vector<Row>& optionRows() {
  return configurationPage().table("The transport").rows;
}
inline const std::vector<Row>& olderSpellingRows() {
  return configurationPage().table("The transport", 1).rows;
}

}  // namespace docs_tests
