#include "tests/docs/Texts.hpp"

#include <algorithm>
#include <cctype>
#include <regex>

#include "tests/docs/Values.hpp"

namespace docs_tests {

namespace {

const std::string gap = "…";

// What stands between the gaps, without punctuation around it.
std::vector<std::string> piecesOf(const std::string& line) {
  constexpr const char* punctuation = " :,()";
  std::vector<std::string> pieces;
  for (std::size_t from = 0; from < line.size();) {
    const auto at = std::min(line.find(gap, from), line.size());
    const std::string piece = line.substr(from, at - from);
    const auto first = piece.find_first_not_of(punctuation);
    if (first != std::string::npos) {
      pieces.push_back(piece.substr(first, piece.find_last_not_of(punctuation) + 1 - first));
    }
    from = at + gap.size();
  }
  return pieces;
}

}  // namespace

std::string withGaps(const std::string& format) {
  static const std::regex conversion("%[0-9.]*(?:ll|l)?[a-z]");
  return std::regex_replace(format, conversion, gap);
}

bool saysSomething(std::string_view text) {
  return std::ranges::any_of(text, [](unsigned char c) { return std::isalpha(c) != 0; });
}

std::vector<std::string> formatsBelow(const std::vector<std::string>& folders) {
  std::vector<std::string> formats;
  for (const std::string& literal : literalsBelow(folders)) {
    std::string format = withGaps(literal);
    if (saysSomething(format)) formats.push_back(std::move(format));
  }
  return formats;
}

bool isMadeBy(const std::vector<std::string>& formats, const std::string& text) {
  if (std::ranges::any_of(formats, [&](const auto& format) { return matches(text, format); })) {
    return true;
  }
  return std::ranges::all_of(piecesOf(text), [&](const std::string& piece) {
    return std::ranges::any_of(formats, [&](const std::string& format) {
      return format.find(piece) != std::string::npos;
    });
  });
}

bool isQuotedFrom(const std::vector<std::string>& literals, const std::string& text) {
  constexpr std::size_t longEnough = 12;
  static const std::regex dots("\\.\\.\\.");
  return std::ranges::all_of(
      piecesOf(std::regex_replace(text, dots, gap)), [&](const std::string& piece) {
        return std::ranges::any_of(literals, [&](const std::string& literal) {
          return literal.find(piece) != std::string::npos ||
                 (literal.size() >= longEnough && piece.find(literal) != std::string::npos);
        });
      });
}

}  // namespace docs_tests
