#include "plugins/http_client/wire/InputBuffer.hpp"

#include <algorithm>
#include <cstring>

namespace connectivity::plugins {

void InputBuffer::attach(ByteSource* source) noexcept {
  _source = source;
  _begin = _end = 0;
}

void InputBuffer::consume(std::size_t count) noexcept {
  _begin += count;
  if (_begin == _end) _begin = _end = 0;
}

void InputBuffer::makeRoom() {
  if (_begin > 0) {
    std::memmove(_bytes.data(), _bytes.data() + _begin, size());
    _end -= _begin;
    _begin = 0;
  }
  if (_bytes.size() < _end + blockSize) _bytes.resize(_end + blockSize);
}

bool InputBuffer::fill() {
  if (_source == nullptr) return false;
  makeRoom();
  const std::size_t received = _source->receive(_bytes.data() + _end, blockSize);
  _end += received;
  return received > 0;
}

std::size_t InputBuffer::read(char* data, std::size_t size) {
  if (empty()) return _source == nullptr ? 0 : _source->receive(data, size);
  const std::size_t count = std::min(size, this->size());
  std::memcpy(data, this->data(), count);
  consume(count);
  return count;
}

}  // namespace connectivity::plugins
