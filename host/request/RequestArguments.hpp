// orrery-host request on the command line.
#pragma once

#include <optional>

#include <CLI/App.hpp>

#include "host/request/RequestMessage.hpp"

namespace host {

// Adds the command; once the command line is parsed, `options` holds what it says.
void addRequestCommand(CLI::App& app, RequestOptions& options);

// Adds --log-level to a command.
void addLogLevel(CLI::App& command, std::optional<int>& level);

}  // namespace host
