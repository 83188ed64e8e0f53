// What the program's own help says that its commands take: the measure of every other description.
#pragma once

#include <string>
#include <vector>

namespace packaging_tests {

// What a program writes to its standard output; a test failure unless it ends with 0.
std::string outputOf(const std::vector<std::string>& command);

// Whether the distribution's program of that name is installed, in /usr/bin.
bool isInstalled(const std::string& program);

// The commands, in the order of the help.
std::vector<std::string> commands();
// "-H", "--header" and so on; of a command or, with an empty text, of the program.
std::vector<std::string> optionsOf(const std::string& command);

}  // namespace packaging_tests
