// Texts of the documents against those of the sources: log lines, errors, complaints.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace docs_tests {

// A printf format as the documents write it: "…" for each conversion.
std::string withGaps(const std::string& format);
// Whether it holds a letter.
bool saysSomething(std::string_view text);
// The string literals below these folders that say something, with gaps.
std::vector<std::string> formatsBelow(const std::vector<std::string>& folders);
// Whether one of the formats makes the text, or the text is put together from parts of them: then
// each piece between its gaps stands in one of them.
bool isMadeBy(const std::vector<std::string>& formats, const std::string& text);
// Whether each piece of the text between "..." is a part of one of the literals, or has one of the
// longer ones as its part.
bool isQuotedFrom(const std::vector<std::string>& literals, const std::string& text);

}  // namespace docs_tests
