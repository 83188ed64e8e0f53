// orrery-host run: the chains of a chain file, at the same time, until their inputs end.
#pragma once

#include <optional>
#include <string>

#include "host/commands/Summary.hpp"
#include "host/program/ExitStatus.hpp"

namespace host {

// What the command line gives; it wins over the chain file.
struct RunOptions {
  std::string chainFile;
  std::optional<std::string> input;   // for a chain file with one chain
  std::optional<std::string> output;  // for a chain file with one chain
  std::optional<int> logLevel;
  std::optional<int> statusPort;
  bool showsProgress = true;  // on a terminal
  SummaryForm summary = SummaryForm::Text;
};

// Returns when every chain has ended. UsageError where the options do not fit the chain file,
// std::runtime_error where a chain cannot start.
ExitStatus run(const RunOptions& options);

}  // namespace host
