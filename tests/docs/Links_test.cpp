// Links between the documents lead to files and headings that exist.
#include <cctype>
#include <filesystem>
#include <regex>
#include <set>
#include <sstream>
#include <string>

#include <gtest/gtest.h>

#include "tests/docs/Markdown.hpp"
#include "tests/support/TemporaryDirectory.hpp"

namespace docs_tests {
namespace {

namespace fs = std::filesystem;

// A heading's anchor: lower case, blanks as hyphens, everything else but letters, digits, "_" and
// "-" left out.
std::string anchorOf(const std::string& heading) {
  std::string anchor;
  for (const char c : heading) {
    const auto byte = static_cast<unsigned char>(c);
    if (c == ' ') {
      anchor += '-';
    } else if (std::isalnum(byte) != 0 || c == '-' || c == '_') {
      anchor += static_cast<char>(std::tolower(byte));
    }
  }
  return anchor;
}

std::set<std::string> anchorsOf(const std::string& text) {
  static const std::regex heading("(?:^|\n)#+ +([^\n]*)");
  std::set<std::string> anchors;
  for (auto it = std::sregex_iterator(text.begin(), text.end(), heading);
       it != std::sregex_iterator(); ++it) {
    anchors.insert(anchorOf((*it)[1]));
  }
  return anchors;
}

std::vector<std::string> allPages() {
  std::vector<std::string> pages = pageNames();
  for (const char* name : {"ARCHITECTURE.md", "CONTRIBUTING.md", "CHANGELOG.md",
                           "benchmarks/README.md", "examples/README.md"}) {
    pages.emplace_back(name);
  }
  return pages;
}

void checkLink(const std::string& page, const std::string& target) {
  const auto hash = target.find('#');
  const std::string path = target.substr(0, hash);
  const fs::path file =
      path.empty() ? fs::path(projectFile(page)) : fs::path(projectFile(page)).parent_path() / path;
  ASSERT_TRUE(fs::exists(file)) << page << ": the link " << target << " leads nowhere";
  if (hash == std::string::npos || file.extension() != ".md") return;
  const auto anchors = anchorsOf(test_support::readFile(file.string()));
  EXPECT_TRUE(anchors.contains(target.substr(hash + 1)))
      << page << ": the link " << target << " leads to no heading";
}

TEST(Links, LeadToFilesAndHeadingsThatExist) {
  static const std::regex link(R"(\]\(([^)\s]+)\))");
  std::size_t checked = 0;
  for (const std::string& page : allPages()) {
    const std::string text = test_support::readFile(projectFile(page));
    for (auto it = std::sregex_iterator(text.begin(), text.end(), link);
         it != std::sregex_iterator(); ++it) {
      const std::string target = (*it)[1];
      if (target.find("://") != std::string::npos) continue;
      checkLink(page, target);
      ++checked;
    }
  }
  EXPECT_GT(checked, 50U);
}

// A page that nothing links to is never found.
TEST(Links, TheReadmeLeadsToEveryPage) {
  const std::string readme = test_support::readFile(projectFile("README.md"));
  for (const std::string& page : pageNames()) {
    if (page == "README.md") continue;
    EXPECT_NE(readme.find("](" + page + ")"), std::string::npos)
        << "README.md: no link to " << page;
  }
}

TEST(Links, TheSiteHasEveryPage) {
  const std::string site = test_support::readFile(projectFile("mkdocs.yml"));
  for (const std::string& page : allPages()) {
    EXPECT_NE(site.find(": " + page + "\n"), std::string::npos) << "mkdocs.yml: nav lacks " << page;
  }
}

}  // namespace
}  // namespace docs_tests
