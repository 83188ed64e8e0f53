// The project's documents as the tests read them: tables row by row, and fenced snippets with what
// a comment in front of each says about it.
//
//   const Page page = readPage("docs/configuration.md");
//   for (const Row& row : page.table("The transport").rows) row.codes("example");
//
// Plain values; any thread may read them.
#pragma once

#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace docs_tests {

// The texts between backquotes, in order.
std::vector<std::string> codeSpans(std::string_view text);

// A code span and the word in front of it, as in: sends `GET / HTTP/1.1`.
struct Statement {
  std::string verb;
  std::string code;
};
std::vector<Statement> statements(std::string_view text);

struct Row {
  std::string place;  // "docs/configuration.md:12: numClients", for failures
  std::map<std::string, std::string> cells;

  // Throws where the table has no such column.
  const std::string& text(const std::string& column) const;
  std::vector<std::string> codes(const std::string& column) const;
  // The first code span of the first column named "key", "suffix", "line", "text"...
  std::string name;
};

struct Table {
  std::string heading;  // of the section that it stands in
  std::vector<std::string> columns;
  std::vector<Row> rows;
};

struct Fence {
  std::string place;  // "README.md:12"
  std::string heading;
  std::string language;
  std::string example;  // "run exit 1" of <!-- example: run exit 1 --> in front of it, or empty
  std::string text;     // with its last line feed
};

struct Page {
  std::string name;  // relative to the project's folder
  std::vector<Table> tables;
  std::vector<Fence> fences;

  // The index-th table of a section. Throws where there is none.
  const Table& table(const std::string& heading, std::size_t index = 0) const;
  const Fence& fence(const std::string& heading, std::size_t index = 0) const;
};

// `path` is relative to the project's folder. Throws where it cannot be read.
Page readPage(const std::string& path);
// The same for a text.
Page parsePage(const std::string& name, const std::string& text);
// README.md and docs/*.md, in order.
std::vector<std::string> pageNames();
// The absolute path of a file of the project.
std::string projectFile(const std::string& path);

}  // namespace docs_tests
