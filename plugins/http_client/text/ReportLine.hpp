// How code that has no log of its own reports: the caller decides where the line goes.
#pragma once

#include <functional>
#include <string>

namespace connectivity::plugins {

// Takes the text of one line for the log, at level 3.
using ReportLine = std::function<void(const std::string&)>;

}  // namespace connectivity::plugins
