#include "host/commands/CommandLine.hpp"

int main(int argc, char** argv) { return host::runCommandLine(argc, argv); }
