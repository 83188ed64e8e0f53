// The texts that every request and response is read and built with, made and hashed once for each
// transport, so that a look-up neither hashes nor allocates.
//
// Immutable after construction; any thread may read it.
#pragma once

#include <cstdint>

#include "connectivity/data_t.hpp"
#include "connectivity/map_t.hpp"

namespace connectivity::plugins {

// A metadata key, or a literal that stands in metadata.
struct Constant {
  // `literal` must outlive the constant.
  explicit Constant(const char* literal)
      : value(literal), hash(hashes::hash(value)), text(literal) {}

  // The value under this key, or null.
  const data_t* in(const map_t& map) const { return map.findText(text, hash); }
  data_t* in(map_t& map) const { return map.findText(text, hash); }

  const data_t value;        // a string; its copy() is the key of a new entry
  const std::uint64_t hash;  // of the key, for find_for_insert, findText and insert
  const char* const text;
};

struct DataTConstants {
  const Constant charset{"charset"};
  const Constant contentType{"contentType"};
  const Constant cookies{"cookies"};
  const Constant headers{"headers"};
  const Constant http{"http"};
  const Constant method{"method"};
  const Constant path{"path"};
  const Constant queryString{"queryString"};
  const Constant requestId{"requestId"};
  const Constant statusCode{"statusCode"};
  const Constant statusReason{"statusReason"};
  const Constant textPlain{"text/plain"};
  const Constant utf8{"utf-8"};
  const Constant form{"form"};
  const Constant emptyString{""};
  const Constant requestSentTime{"requestSentTime"};
  const Constant maxResponseKB{"maxResponseKB"};
  const Constant maxResponsePolicy{"maxResponsePolicy"};
  const Constant deadlineSecs{"deadlineSecs"};
  const Constant failure{"failure"};

  // What the transport itself reads of a message, before a worker does.
  const Constant controlType{"qor.control.type"};
  const Constant controlObject{"qor.controlObject"};
  const Constant concurrencyControlKey{"concurrencyControlKey"};
  const Constant concurrencyControlFlush{"concurrencyControlFlush"};
};

}  // namespace connectivity::plugins
