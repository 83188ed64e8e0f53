#include "host/messages/JsonWriter.hpp"

#include <algorithm>
#include <compare>
#include <cstdint>
#include <cstring>

#include "connectivity/value_access.hpp"
#include "host/messages/ExtendedJson.hpp"
#include "host/messages/JsonLeaves.hpp"
#include "host/messages/MapEntries.hpp"

namespace host {

using connectivity::data_t;
using connectivity::list_t;
using connectivity::map_t;

namespace {

// The first bytes of a text, up to 8, as a number that orders like they do.
std::uint64_t firstBytes(const char* text) noexcept {
  std::uint64_t number = 0;
  for (unsigned shift = 64; shift > 0 && *text != '\0'; ++text) {
    shift -= 8;
    number |= std::uint64_t{static_cast<unsigned char>(*text)} << shift;
  }
  return number;
}

const data_t& seen(const qor_data_t& raw) noexcept { return reinterpret_cast<const data_t&>(raw); }

}  // namespace

void JsonWriter::write(const data_t& value) {
  reset();
  begin(value);
  run();
}

void JsonWriter::write(const map_t& map) {
  reset();
  begin(map);
  run();
}

void JsonWriter::writeString(std::string_view text) { appendJsonString(text, _out); }

// Something is left where a write has thrown.
void JsonWriter::reset() {
  _levels.clear();
  _entries.clear();
  _keysAround = 0;
  _keys.clear();
}

void JsonWriter::run() {
  while (!_levels.empty()) {
    Level& level = _levels.back();
    switch (level.kind) {
      case Level::Kind::List:
        continueList(level);
        break;
      case Level::Kind::Object:
        continueObject(level);
        break;
      case Level::Kind::Keys:
        continueKeys(level);
        break;
      case Level::Kind::Pairs:
        continuePairs(level);
        break;
    }
  }
}

// Writes a value, or puts a level on the stack where it holds others: then `level` of the caller is
// no longer valid.
void JsonWriter::begin(const data_t& value) {
  if (value.tag() == QOR_MAP) return begin(connectivity::get<map_t>(value));
  if (value.tag() != QOR_LIST) return appendJsonLeaf(value, text());
  const auto& list = connectivity::get<list_t>(value);
  text() += '[';
  Level level{.kind = Level::Kind::List};
  level.element = list.begin();
  level.end = list.end();
  _levels.push_back(level);
}

void JsonWriter::begin(const map_t& map) {
  Level level{.kind = Level::Kind::Object, .first = _entries.size()};
  level.next = level.first;
  bool onlyTexts = true;
  forEachEntry(map.table(), [&](const data_t& key, const data_t& value) {
    _entries.push_back({.key = key.raw(), .value = value.raw()});
    onlyTexts = onlyTexts && key.isString();
  });
  if (onlyTexts) {
    orderTexts(std::span(_entries).subspan(level.first));
    text() += '{';
  } else {
    beginKeys(level);
  }
  _levels.push_back(level);
}

// Texts that are scattered over memory are slow to compare: most are told apart by the bytes that
// follow what all of them begin with.
void JsonWriter::orderTexts(std::span<Entry> entries) {
  if (entries.size() < 2) return;
  std::string_view common = seen(entries.front().key).text();
  for (std::size_t i = 0; i < entries.size(); ++i) {
    prefetchText(entries, i + textsAhead);
    const char* const text = seen(entries[i].key).text();
    std::size_t length = 0;
    while (length < common.size() && text[length] == common[length]) ++length;
    common = common.substr(0, length);
  }
  for (std::size_t i = 0; i < entries.size(); ++i) {
    prefetchText(entries, i + textsAhead);
    entries[i].bytes = firstBytes(seen(entries[i].key).text() + common.size());
  }
  std::sort(entries.begin(), entries.end(), [](const Entry& left, const Entry& right) {
    if (left.bytes != right.bytes) return left.bytes < right.bytes;
    return std::strcmp(seen(left.key).text(), seen(right.key).text()) < 0;
  });
}

void JsonWriter::continueList(Level& level) {
  if (level.element == level.end) {
    text() += ']';
    return _levels.pop_back();
  }
  if (level.next++ > 0) text() += ',';
  begin(*level.element++);
}

void JsonWriter::continueObject(Level& level) {
  if (level.next == _entries.size()) return endMap(level, "}");
  if (level.next > level.first) text() += ',';
  prefetchText(_entries, level.next + textsAhead);
  const Entry& entry = _entries[level.next++];
  appendJsonString(seen(entry.key).text(), text());
  text() += ':';
  // A copy: what begins may move the entries.
  const qor_data_t value = entry.value;
  begin(seen(value));
}

// The text of that entry's key will be needed soon. Of a large object, they do not fit into the
// processor's cache.
void JsonWriter::prefetchText(std::span<const Entry> entries, std::size_t index) noexcept {
  if (index < entries.size()) __builtin_prefetch(entries[index].key.value.string);
}

void JsonWriter::beginKeys(Level& level) {
  level.kind = Level::Kind::Keys;
  if (_keysAround > 0) _keys.endPiece(_currentKey);
  level.outer = _currentKey;
  level.mark = _keys.mark();
  ++_keysAround;
}

void JsonWriter::continueKeys(Level& level) {
  if (level.next > level.first) {
    _keys.endPiece(_currentKey);
    _entries[level.next - 1].keyText = _currentKey;
  }
  _currentKey = {};
  _keys.beginPiece();
  if (level.next < _entries.size()) {
    const qor_data_t key = _entries[level.next++].key;
    return begin(seen(key));
  }
  const auto comesBefore = [this](const Entry& left, const Entry& right) {
    const std::uint32_t tag = left.key.tag;
    if (tag != right.key.tag) return tag < right.key.tag;
    if (tag == QOR_INT64) return left.key.value.int64 < right.key.value.int64;
    if (tag == QOR_DOUBLE) {
      return std::is_lt(std::strong_order(left.key.value.float64, right.key.value.float64));
    }
    return _keys.comesBefore(left.keyText, right.keyText);
  };
  std::sort(_entries.begin() + static_cast<std::ptrdiff_t>(level.first), _entries.end(),
            comesBefore);
  --_keysAround;
  _currentKey = level.outer;
  level.kind = Level::Kind::Pairs;
  level.next = level.first;
  text() += std::string("{\"") + mapKey + "\":[";
}

void JsonWriter::continuePairs(Level& level) {
  if (level.next > level.first) text() += ']';
  if (level.next == _entries.size()) return endMap(level, "]}");
  text() += level.next > level.first ? ",[" : "[";
  const Entry& entry = _entries[level.next++];
  writeKey(entry);
  text() += ',';
  const qor_data_t value = entry.value;
  begin(seen(value));
}

void JsonWriter::writeKey(const Entry& entry) {
  if (_keysAround == 0) return _keys.copyTo(_out, entry.keyText);
  _keys.endPiece(_currentKey);
  _keys.append(_currentKey, entry.keyText);
  _keys.beginPiece();
}

void JsonWriter::endMap(const Level& level, std::string_view closing) {
  text() += closing;
  _entries.resize(level.first);
  if (level.kind == Level::Kind::Pairs && _keysAround == 0) _keys.release(level.mark);
  _levels.pop_back();
}

std::string toJson(const data_t& value) {
  std::string text;
  JsonWriter(text).write(value);
  return text;
}

}  // namespace host
