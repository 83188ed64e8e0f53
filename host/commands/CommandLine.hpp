// The command line of orrery-host.
#pragma once

namespace host {

// Does what the arguments say and returns the exit status of the program.
int runCommandLine(int argc, const char* const* argv);

}  // namespace host
