// Runs a program with a capture.
#pragma once

#include <string>

#include "tools/diagtap/Analysis.h"

namespace diagtap {

// Runs the program and waits for it. Returns its exit status, 128 and the number for a signal's,
// 126 or 127 if it cannot be started (with a line on standard error).
int runProgram(char* const* command, const std::string& capture);

// What is to be seen of the node on this machine.
Surroundings lookAround();

}  // namespace diagtap
