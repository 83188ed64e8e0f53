// Texts that are put together from others, and compared, without being copied: each is a chain of
// pieces of one long text, to whose end everything is written.
//
// For keys that hold keys: the text of the inner one becomes a part of the outer one's, wherever it
// stands in the long text. Used by one thread at a time.
#pragma once

#include <cstddef>
#include <limits>
#include <string>
#include <string_view>
#include <vector>

namespace host {

class KeyTexts {
 public:
  static constexpr std::size_t none = std::numeric_limits<std::size_t>::max();

  // The first and the last piece. A copy is the same text, not another one.
  struct Text {
    std::size_t first = none;
    std::size_t last = none;
  };
  // A state to go back to.
  struct Mark {
    std::size_t length = 0;
    std::size_t pieces = 0;
  };

  // Where to write.
  std::string& end() noexcept { return _all; }
  // What is written from now on is the next piece of some text.
  void beginPiece() noexcept { _begin = _all.size(); }
  // Appends what was written since beginPiece().
  void endPiece(Text& text);
  // Appends a text, which must not be used again.
  void append(Text& text, const Text& other) noexcept;

  // In the order of their bytes.
  bool comesBefore(const Text& left, const Text& right) const noexcept;
  void copyTo(std::string& out, const Text& text) const;

  Mark mark() const noexcept { return {_all.size(), _pieces.size()}; }
  // Forgets every text that was begun since.
  void release(const Mark& mark);
  void clear() { release({}); }

 private:
  struct Piece {
    std::size_t begin;
    std::size_t length;  // at least 1
    std::size_t next;
  };
  class Cursor;

  std::string_view view(const Piece& piece) const noexcept {
    return std::string_view(_all).substr(piece.begin, piece.length);
  }

  std::string _all;
  std::vector<Piece> _pieces;
  std::size_t _begin = 0;
};

}  // namespace host
