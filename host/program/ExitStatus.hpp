// The exit statuses of the program.
#pragma once

namespace host {

enum class ExitStatus : int {
  Success = 0,
  CouldNotRun = 1,   // a chain could not start, or its input, output or transport failed
  WrongUsage = 2,    // of the command line
  InvalidLines = 3,  // some input lines were not valid messages
  NoSuccess = 22,    // of a single request: no response, or a status outside 200 to 399
};

}  // namespace host
