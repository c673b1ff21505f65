// Runs a shell command line for the tests that drive the executables and tools.
#pragma once

#include <string>

// Runs the command with its stderr joined to stdout; returns the exit status (-1 when it did
// not exit normally) and puts everything it printed into output.
int run_command(const std::string& command, std::string& output);
