// Error numbers by name, in scenario files and in the trace.
#pragma once

#include <string>

namespace diagsim {

// "EACCES" for EACCES; "errno 95" for a number without a name here.
std::string errnoName(int number);

// The number for such a name; 0 for an unknown one.
int errnoNumber(const std::string& name);

// The known names, as "EACCES, ENOENT, ...".
std::string errnoNames();

}  // namespace diagsim
