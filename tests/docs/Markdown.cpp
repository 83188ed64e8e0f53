#include "tests/docs/Markdown.hpp"

#include <algorithm>
#include <filesystem>
#include <regex>
#include <sstream>
#include <stdexcept>

#include "tests/support/TemporaryDirectory.hpp"

namespace docs_tests {

namespace {

std::string trimmed(std::string_view text) {
  const auto first = text.find_first_not_of(" \t\r");
  if (first == std::string_view::npos) return {};
  return std::string(text.substr(first, text.find_last_not_of(" \t\r") - first + 1));
}

// "| a | b \| c |" as {"a", "b | c"}.
std::vector<std::string> cellsOf(const std::string& line) {
  std::vector<std::string> cells;
  std::string cell;
  for (std::size_t i = 1; i < line.size(); ++i) {
    if (line[i] == '\\' && i + 1 < line.size() && line[i + 1] == '|') {
      cell += line[++i];
    } else if (line[i] == '|') {
      cells.push_back(trimmed(cell));
      cell.clear();
    } else {
      cell += line[i];
    }
  }
  return cells;
}

class Parser {
 public:
  explicit Parser(const std::string& name) { _page.name = name; }

  void take(const std::string& line) {
    ++_line;
    if (_inFence) {
      takeFenceLine(line);
    } else if (line.starts_with("```")) {
      openFence(line);
    } else {
      takeText(line);
    }
  }

  Page finish() {
    if (_inFence) throw std::runtime_error(_page.fences.back().place + ": the fence has no end");
    return std::move(_page);
  }

 private:
  std::string place() const { return _page.name + ":" + std::to_string(_line); }

  void openFence(const std::string& line) {
    _inFence = true;
    _inTable = false;
    _page.fences.push_back({place(), _heading, trimmed(line.substr(3)), _example, ""});
    _example.clear();
  }

  void takeFenceLine(const std::string& line) {
    if (line.starts_with("```")) {
      _inFence = false;
    } else {
      _page.fences.back().text += line + "\n";
    }
  }

  void takeText(const std::string& line) {
    static const std::regex heading("^#+ +(.*?) *$");
    static const std::regex example("^<!-- example: (.*?) *-->$");
    std::smatch match;
    if (!line.starts_with("|")) _inTable = false;
    if (std::regex_match(line, match, heading)) {
      _heading = match[1];
    } else if (std::regex_match(line, match, example)) {
      _example = trimmed(match[1].str());
    } else if (line.starts_with("|")) {
      takeTableLine(line);
    } else if (!trimmed(line).empty()) {
      _example.clear();
    }
  }

  void takeTableLine(const std::string& line) {
    const auto cells = cellsOf(line);
    if (!_inTable) {
      _inTable = true;
      _page.tables.push_back({_heading, cells, {}});
    } else if (line.find_first_not_of("|-: ") != std::string::npos) {
      addRow(cells);
    }
  }

  void addRow(const std::vector<std::string>& cells) {
    Table& table = _page.tables.back();
    if (cells.size() != table.columns.size()) {
      throw std::runtime_error(place() + ": the row has " + std::to_string(cells.size()) +
                               " cells, its table " + std::to_string(table.columns.size()));
    }
    Row row;
    for (std::size_t i = 0; i < cells.size(); ++i) row.cells[table.columns[i]] = cells[i];
    for (const std::string& cell : cells) {
      const auto codes = codeSpans(cell);
      if (!codes.empty() && row.name.empty()) row.name = codes.front();
    }
    row.place = place() + ": " + row.name;
    table.rows.push_back(std::move(row));
  }

  Page _page;
  int _line = 0;
  bool _inFence = false;
  bool _inTable = false;
  std::string _heading;
  std::string _example;
};

template <typename Part>
const Part& inSection(const std::vector<Part>& parts, const std::string& page,
                      const std::string& heading, std::size_t index) {
  for (const Part& part : parts) {
    if (part.heading == heading && index-- == 0) return part;
  }
  throw std::runtime_error(page + ": the section \"" + heading + "\" lacks a table or a snippet");
}

}  // namespace

std::vector<std::string> codeSpans(std::string_view text) {
  std::vector<std::string> spans;
  for (const Statement& statement : statements(text)) spans.push_back(statement.code);
  return spans;
}

std::vector<Statement> statements(std::string_view text) {
  std::vector<Statement> found;
  for (;;) {
    const auto open = text.find('`');
    const auto close = open == std::string_view::npos ? open : text.find('`', open + 1);
    if (close == std::string_view::npos) return found;
    const std::string before = trimmed(text.substr(0, open));
    const auto space = before.find_last_of(" \t");
    found.push_back({space == std::string::npos ? before : before.substr(space + 1),
                     std::string(text.substr(open + 1, close - open - 1))});
    text.remove_prefix(close + 1);
  }
}

const std::string& Row::text(const std::string& column) const {
  const auto cell = cells.find(column);
  if (cell == cells.end()) throw std::runtime_error(place + ": no column \"" + column + "\"");
  return cell->second;
}

std::vector<std::string> Row::codes(const std::string& column) const {
  return codeSpans(text(column));
}

const Table& Page::table(const std::string& heading, std::size_t index) const {
  return inSection(tables, name, heading, index);
}

const Fence& Page::fence(const std::string& heading, std::size_t index) const {
  return inSection(fences, name, heading, index);
}

Page parsePage(const std::string& name, const std::string& text) {
  Parser parser(name);
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) parser.take(line);
  return parser.finish();
}

Page readPage(const std::string& path) {
  return parsePage(path, test_support::readFile(projectFile(path)));
}

std::vector<std::string> pageNames() {
  std::vector<std::string> names{"README.md"};
  for (const auto& entry : std::filesystem::directory_iterator(projectFile("docs"))) {
    if (entry.path().extension() == ".md") {
      names.push_back("docs/" + entry.path().filename().string());
    }
  }
  std::sort(names.begin() + 1, names.end());
  return names;
}

std::string projectFile(const std::string& path) { return PROJECT_FOLDER "/" + path; }

}  // namespace docs_tests
