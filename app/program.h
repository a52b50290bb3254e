// Pieces of the program entry shared with the forward command line.
#pragma once

#include <optional>
#include <ostream>
#include <string>

/// The command-line word at `index`, if there is one.
std::optional<std::string> argumentAt(int argc, char** argv, int index);

/// The top-level usage text.
void printUsage(std::ostream& out);
