// The chain file: what `orrery-host run` and `orrery-host check` read.
//
//   chains:                      a list with at least one chain
//     - id: orders               text, required
//       name: shop               text, required: the plug-in's name in this chain
//       transport: HTTPClient    text, required: a C identifier
//       library: /path/to.so     text: this file instead of lib<transport>.so
//       codec: text              text (the default), json or none
//       assignRequestIds: true   boolean (the default is true)
//       config: {...}            handed to the transport as it stands
//       input: requests.jsonl    text; "-" or absent: standard input
//       output: responses.jsonl  text; "-" or absent: standard output
//   log:
//     level: info                error, warn, info (the default), debug or trace
//     levels: {category: level}  for one category; wins
//   status:                      absent: no status server
//     port: 9090                 0 to 65535, required; 0: the system picks one
//     address: 127.0.0.1         text
//
// Relative paths are relative to the directory that the program runs in. Every error is a
// ChainFileError, whose text names the file, the line and column, the key and, for a word that is
// not known, the nearest that is.
#pragma once

#include <map>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "connectivity/data_t.hpp"
#include "host/chain/ChainFileError.hpp"
#include "host/messages/PayloadCodec.hpp"
#include "host/status/StatusDefinition.hpp"

namespace host {

// A text of the chain file and the place to name when it turns out to be wrong.
struct PlacedText {
  std::string text;
  FilePosition at;
  std::string key;
};

struct ChainDefinition {
  std::string id;
  std::string name;
  PlacedText transport;
  std::optional<PlacedText> library;
  Codec codec = Codec::Text;
  bool assignRequestIds = true;
  connectivity::map_t config;
  PlacedText input{"-", {}, ""};
  PlacedText output{"-", {}, ""};
};

struct LogDefinition {
  int level = QOR_LOG_INFO;
  std::map<std::string, int> levels;  // by category
};

struct ChainFile {
  std::string path;
  std::vector<ChainDefinition> chains;
  LogDefinition log;
  std::optional<StatusDefinition> status;
};

// The names of the levels of the log, the one that logs least first.
std::span<const std::string_view> logLevelNames();
// The level of that name, or nothing.
std::optional<int> logLevelNamed(const std::string& name);

ChainFile readChainFile(const std::string& path);
// The same for a text; `path` is for the errors.
ChainFile parseChainFile(const std::string& text, const std::string& path);

// Refuses what cannot run together or is not there: chains that share an identity, a standard
// stream or an output file, an output that is somebody's input, and input and library files that
// cannot be read. A text without a position (it came from the command line) is named by its key.
void checkFiles(const ChainFile& file);

}  // namespace host
