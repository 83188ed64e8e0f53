// Connections in memory for the tests of what reads from them.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <functional>
#include <istream>
#include <iterator>
#include <string>
#include <utility>
#include <vector>

#include "plugins/http_client/wire/InputBuffer.hpp"
#include "plugins/http_client/wire/ResponseBody.hpp"

namespace connectivity::plugins {

// Hands out its pieces, one for each receive (less where the room is less), then ends.
class PiecesSource final : public ByteSource {
 public:
  explicit PiecesSource(std::vector<std::string> pieces) : _pieces(std::move(pieces)) {}

  std::size_t receive(char* data, std::size_t size) override {
    roomOffered.push_back(size);
    if (_at == _pieces.size()) {
      if (atEnd) atEnd();
      return 0;
    }
    std::string& piece = _pieces[_at];
    const std::size_t count = std::min(size, piece.size());
    std::memcpy(data, piece.data(), count);
    piece.erase(0, count);
    if (piece.empty()) ++_at;
    return count;
  }

  std::function<void()> atEnd;  // may throw
  std::vector<std::size_t> roomOffered;

 private:
  std::vector<std::string> _pieces;
  std::size_t _at = 0;
};

// A response's body over such a connection.
struct BodyInPieces {
  explicit BodyInPieces(std::vector<std::string> pieces) : source(std::move(pieces)) {
    input.attach(&source);
  }
  ResponseBody& begin(Framing framing, std::int64_t length = 0) {
    body.begin(framing, length);
    return body;
  }
  // What is left behind the body.
  std::string leftOver() {
    body.settle();
    return std::string(input.view());
  }

  PiecesSource source;
  InputBuffer input;
  ResponseBody body{input};
};

inline std::string readAll(std::istream& stream) {
  return {std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()};
}

// As one large read, straight into the caller's memory. Sets the stream's bad bit where it fails.
inline std::string readLarge(std::istream& stream, std::size_t size) {
  std::string text(size, '?');
  stream.read(text.data(), static_cast<std::streamsize>(size));
  text.resize(static_cast<std::size_t>(stream.gcount()));
  return text;
}

}  // namespace connectivity::plugins
