// What somebody may have meant who wrote a word that is none of those allowed.
#pragma once

#include <span>
#include <string>
#include <string_view>

namespace host {

// The candidate that is nearest to the word by the optimal string alignment distance (Damerau and
// Levenshtein's with each part changed once), regardless of case; or that begins with the word's
// first three letters or more and holds no others, or the other way round. Empty where none is
// near: farther than a third of the longer one's letters, or than one slip.
std::string_view nearestWord(std::string_view word, std::span<const std::string_view> candidates);

// ` (did you mean "transport"?)`, or nothing.
std::string didYouMean(std::string_view word, std::span<const std::string_view> candidates);

}  // namespace host
