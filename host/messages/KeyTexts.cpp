#include "host/messages/KeyTexts.hpp"

#include <algorithm>

namespace host {

// Reads a text from its beginning.
class KeyTexts::Cursor {
 public:
  Cursor(const KeyTexts& texts, const Text& text) noexcept : _texts(texts), _next(text.first) {}

  // What is left of the piece, or of the next one; empty at the end.
  std::string_view rest() noexcept {
    if (_rest.empty() && _next != none) {
      const Piece& piece = _texts._pieces[_next];
      _rest = _texts.view(piece);
      _next = piece.next;
    }
    return _rest;
  }
  void skip(std::size_t length) noexcept { _rest.remove_prefix(length); }

 private:
  const KeyTexts& _texts;
  std::size_t _next;
  std::string_view _rest;
};

void KeyTexts::endPiece(Text& text) {
  if (_all.size() == _begin) return;
  _pieces.push_back({_begin, _all.size() - _begin, none});
  const std::size_t added = _pieces.size() - 1;
  append(text, {added, added});
}

void KeyTexts::append(Text& text, const Text& other) noexcept {
  if (other.first == none) return;
  if (text.first == none) {
    text.first = other.first;
  } else {
    _pieces[text.last].next = other.first;
  }
  text.last = other.last;
}

bool KeyTexts::comesBefore(const Text& left, const Text& right) const noexcept {
  Cursor mine(*this, left);
  Cursor theirs(*this, right);
  for (;;) {
    const std::string_view here = mine.rest();
    const std::string_view there = theirs.rest();
    const std::size_t length = std::min(here.size(), there.size());
    if (length == 0) return here.size() < there.size();
    const int order = here.compare(0, length, there, 0, length);
    if (order != 0) return order < 0;
    mine.skip(length);
    theirs.skip(length);
  }
}

void KeyTexts::copyTo(std::string& out, const Text& text) const {
  for (std::size_t at = text.first; at != none; at = _pieces[at].next) out += view(_pieces[at]);
}

void KeyTexts::release(const Mark& mark) {
  _all.resize(mark.length);
  _pieces.resize(mark.pieces);
}

}  // namespace host
