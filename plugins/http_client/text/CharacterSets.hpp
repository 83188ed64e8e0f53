// Conversion of texts between character sets, by ICU; for headers between UTF-8, which the host
// speaks, and ISO-8859-1, which goes over the wire.
//
// Every function may be called from any thread. Texts end at their first NUL, save those given as a
// std::string_view.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace connectivity::plugins {

// `text`, converted from one character set to another, both by their ICU names. `capacity` bounds
// the result, in bytes with a final NUL; what does not fit, and an unknown character set, is a
// std::runtime_error "Could not convert argument from <from> to <to>". A character that `to` lacks
// becomes the control character 0x1A. Out of memory: std::runtime_error "Failed to allocate
// memory".
std::string convertBetweenCharsets(const std::string& text, const std::string& from,
                                   const std::string& to, unsigned int capacity);

// From UTF-8. Characters beyond ISO-8859-1 become 0x1A: for what is only shown, not sent.
std::string convertToISO88591(const std::string& text);
std::string convertFromISO88591(const std::string& text);
// From `charset` to UTF-8.
std::string convertFromCharset(const std::string& text, const std::string& charset);

// A header name or value for the wire, one byte for each character; nothing where it holds a NUL,
// malformed UTF-8 or a character beyond U+00FF, be it one that shows nothing (U+200B, U+FEFF).
std::optional<std::string> tryHeaderToWire(std::string_view text);
// The same, but throws std::runtime_error "<item> holds a character that ISO-8859-1 lacks".
std::string headerToWire(std::string_view text, const std::string& item = "A header");
// A header name or value from the wire, in UTF-8.
std::string headerFromWire(const std::string& text);

// Any bytes of a peer, for an error's text: valid UTF-8 without a NUL. They are read as ISO-8859-1,
// and a NUL is written out: "caf\xE9\0" -> "café\x00". Other control characters stay; who writes
// the text to a log or a terminal escapes them.
std::string shownFromWire(std::string_view bytes);

}  // namespace connectivity::plugins
